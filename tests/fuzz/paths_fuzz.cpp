// paths_fuzz.cpp - operations on paths, names and numbers as text, each against a second way to
// the same result. The first byte chooses the operation, the second the size of its buffer.
#include "fuzz_input.hpp"

#include "mount_plan.hpp"
#include "zarnel/fs.h"
#include "zncImageLib.hpp"
#include "zncRuntimeService.hpp"
#include "zncTarLib.hpp"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using fuzz::require;

// As much memory as is asked for and not a byte more.
class Buffer {
  public:
    explicit Buffer(std::size_t size) : size_(size), bytes_(new char[size != 0 ? size : 1]) {}
    [[nodiscard]] char* begin() const { return bytes_.get(); }
    [[nodiscard]] char* end() const { return bytes_.get() + size_; }
    [[nodiscard]] std::size_t size() const { return size_; }

  private:
    std::size_t size_;
    std::unique_ptr<char[]> bytes_;
};

// "/a/b" of any member path; none when ".." is in it. A final separator stays.
std::optional<std::string> condensed(std::string_view path)
{
    std::string out;
    std::string component;
    const auto finish = [&] {
        if (!component.empty() && component != ".")
            out += "/" + component;
        const bool good = component != "..";
        component.clear();
        return good;
    };
    for (const char c : path) {
        if (c != '/' && c != '\\')
            component += c;
        else if (!finish())
            return std::nullopt;
    }
    if (!finish())
        return std::nullopt;
    if (!path.empty() && (path.back() == '/' || path.back() == '\\'))
        out += '/';
    return out;
}

void condense(std::string_view path, std::size_t room)
{
    const Buffer buffer(room);
    char* out = buffer.begin();
    const STATUS status = tarCopyCondense(&out, room, path.data(), path.size());
    const std::optional<std::string> wanted = condensed(path);
    if (status != OK) {
        require(!wanted.has_value() && errno == EPERM, "only .. is refused");
        return;
    }
    require(out >= buffer.begin() && out <= buffer.end(), "a result is inside its buffer");
    const std::string result(buffer.begin(), out);
    if (out == buffer.end())
        return; // cut
    require(*out == '\0' && wanted == result, "a path is condensed as it should be");
    char* again = buffer.begin();
    require(tarCopyCondense(&again, room, result.data(), result.size()) == OK &&
                std::string(buffer.begin(), again) == result,
            "a condensed path stays as it is");
}

std::string appended(std::string base, std::string_view component)
{
    if (base.empty() || component.empty())
        return base.append(component);
    const std::size_t first = component.find_first_not_of('/');
    component.remove_prefix(first == std::string_view::npos ? component.size() : first);
    while (!base.empty() && base.back() == '/')
        base.pop_back();
    return base.append("/").append(component);
}

void append(fuzz::Input& input, std::size_t room)
{
    const std::string base(input.until('\0'));
    const std::string component(input.until('\0'));
    const Buffer buffer(std::max(room, base.size() + 1));
    base.copy(buffer.begin(), base.size());
    buffer.begin()[base.size()] = '\0';
    const char* const end = znPathAppend(buffer.begin(), buffer.size(), component.c_str());
    const std::string wanted = appended(base, component);
    if (wanted.size() < buffer.size())
        require(end == buffer.begin() + wanted.size() && wanted == buffer.begin(),
                "a component is appended with one separator");
    else
        require(end == buffer.end() && wanted.starts_with(buffer.begin()),
                "what does not fit is cut");
}

void blob_path(fuzz::Input& input, std::size_t room)
{
    const auto type = static_cast<JSON_FILE_TYPE>(input.byte() % 7);
    const std::string base(input.until('\0'));
    const std::string text(input.until('\0'));
    const znc::CJsonPtr digest(cJSON_CreateString(text.c_str()));
    const Buffer buffer(room);
    if (composeFileName(base.c_str(), type, digest.get(), buffer.begin(),
                        static_cast<UINT32>(room)) != OK)
        return;
    std::string wanted = base + "/";
    if (type == OCILAYOUTJSON || type == INDEXJSON) {
        wanted += type == OCILAYOUTJSON ? "oci-layout" : "index.json";
    } else {
        const std::size_t colon = text.find(':');
        require(colon != std::string::npos && colon > 0, "a digest has an algorithm");
        wanted += "blobs/" + text.substr(0, colon) + "/" + text.substr(colon + 1);
    }
    require(wanted == buffer.begin(), "a blob's path is made of its digest");
}

bool digits_end_at(std::string_view text, std::size_t& at)
{
    const std::size_t start = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9')
        ++at;
    return at > start;
}

void queue_name(std::string_view text)
{
    constexpr std::string_view kStart = "/znc-u-";
    std::size_t at = kStart.size();
    const bool wanted = text.substr(0, at) == kStart && digits_end_at(text, at) &&
                        at < text.size() && text[at++] == '-' && digits_end_at(text, at) &&
                        at == text.size();
    require(znc::is_client_queue_name(text) == wanted, "a client's queue is known by its name");
}

// The C library reads the same number, from a copy that ends with a NUL.
void octal_number(std::string_view field)
{
    constexpr std::size_t kLongest = 12;
    const std::string text(field.substr(0, kLongest));
    unsigned long value = 17;
    unsigned long wanted = 17;
    const bool found = znc::tar_octal(text, value);
    const bool expected = std::sscanf(text.c_str(), "%lo", &wanted) == 1;
    require(found == expected && value == wanted, "numbers are read as scanf reads them");
}

void mount_options(fuzz::Input& input)
{
    const bool exists = (input.byte() & 1) != 0;
    const std::string type(input.until('\0'));
    std::vector<std::string> words;
    while (!input.empty())
        words.emplace_back(input.until(','));
    std::vector<const char*> options;
    for (std::string& word : words) {
        word = word.c_str(); // up to its NUL
        options.push_back(word.c_str());
    }
    options.push_back(nullptr);
    const auto plan = std::make_unique<zn::MountPlan>();
    if (zn::mount_plan_make(type.c_str(), options.data(), exists, *plan) != 0)
        return;
    require(plan->optionsLen <= sizeof plan->options, "options fit in their place");
    unsigned count = 0;
    for (std::size_t i = 0; i < plan->optionsLen; ++i)
        count += plan->options[i] == '\0' ? 1 : 0;
    require(count == plan->optionCount, "every option ends");
    require(plan->bind || plan->type != nullptr, "a mount binds or has a type");
    require((plan->attrSet & plan->attrClear & 0xf) == 0, "a flag is set or cleared");
}

void texts(fuzz::Input& input)
{
    const std::string first(input.until('\0'));
    const std::string second(input.until('\0'));
    constexpr std::size_t kBound = znc::kTextBound;
    require((strEqual(first.c_str(), second.c_str()) == TRUE) ==
                (first.substr(0, kBound) == second.substr(0, kBound)),
            "texts are equal as far as they are looked at");
    require((strHasPrefix(first.c_str(), second.c_str()) == TRUE) ==
                first.starts_with(second.substr(0, kBound)),
            "a prefix is one as far as it is looked at");
    const std::size_t slash = first.rfind('/');
    const char* const found = pathCompBackup(first.c_str(), first.c_str() + first.size());
    require(slash == std::string::npos ? found == nullptr : found == first.c_str() + slash,
            "the last separator is found");
    static_cast<void>(zncUtilSignalNo(first.c_str()));
}

void hexadecimal(std::string_view bytes, std::size_t room)
{
    const Buffer buffer(room);
    std::string copy(bytes);
    const STATUS status = zncUtilBinToHex(
        buffer.begin(), room, reinterpret_cast<std::uint8_t*>(copy.data()), copy.size());
    require((status == OK) == (!copy.empty() && room > 2 * copy.size()), "what fits is written");
    if (status == OK)
        require(std::string_view(buffer.begin()).size() == 2 * copy.size(), "two digits a byte");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const unsigned operation = input.byte();
    const std::size_t room = input.byte() * 4;
    errno = 0;
    switch (operation % 8) {
    case 0:
        condense(input.rest(), room);
        break;
    case 1:
        append(input, room);
        break;
    case 2:
        blob_path(input, room);
        break;
    case 3:
        queue_name(input.rest());
        break;
    case 4:
        octal_number(input.rest());
        break;
    case 5:
        mount_options(input);
        break;
    case 6:
        texts(input);
        break;
    default:
        hexadecimal(input.rest(), room);
    }
    return 0;
}
