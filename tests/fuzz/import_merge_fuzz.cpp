// import_merge_fuzz.cpp - layers of treacherous members, merged, prepared and written as one
// archive into memory, which is then read block by block: the archive must be one that any reader
// takes. The first byte holds the options; four bytes make a member: its kind or the end of a
// layer, its name, where it links to, its owner, time, mode and size. A name's number has a
// parent's and its own half.
#include "fuzz_input.hpp"

#include "import/merge/merge.hpp"
#include "import/merge/ustar.hpp"
#include "import/output/emit.hpp"
#include "import/source/failure.hpp"

#include <array>
#include <charconv>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

namespace {

using namespace zncimport;
using fuzz::require;

constexpr std::size_t kMembersMax = 64;
constexpr unsigned kEndOfLayer = 15;

constexpr std::array<Kind, 9> kKinds = {Kind::kFile,     Kind::kDirectory,   Kind::kSymlink,
                                        Kind::kHardlink, Kind::kCharDevice,  Kind::kFifo,
                                        Kind::kOther,    Kind::kBlockDevice, Kind::kDirectory};

std::string name_of(unsigned number)
{
    static const std::array<std::string, 16> kParents = {"",
                                                         "a/",
                                                         "b/",
                                                         "a/b/",
                                                         "l/",
                                                         "/",
                                                         "./",
                                                         "a/../",
                                                         "dev/",
                                                         "a//b/./",
                                                         "../",
                                                         "l/l/",
                                                         std::string(70, 'p') + "/",
                                                         std::string(99, 'p') + "/" +
                                                             std::string(54, 'q') + "/",
                                                         "a/b/c/d/e/f/g/h/",
                                                         ".wh..wh.plnk/"};
    static const std::array<std::string, 16> kNames = {"a",
                                                       "b",
                                                       "c",
                                                       "l",
                                                       "",
                                                       ".",
                                                       "..",
                                                       ".wh.a",
                                                       ".wh.b",
                                                       ".wh..wh..opq",
                                                       ".wh.",
                                                       "a\\b",
                                                       ".l",
                                                       std::string(99, 'n'),
                                                       std::string(120, 'n'),
                                                       "\xff\n"};
    return kParents[number >> 4U & 15U] + kNames[number & 15U];
}

Entry member_of(fuzz::Input& input, unsigned kind)
{
    Entry entry;
    Member& member = entry.member;
    member.kind = kKinds[kind % kKinds.size()];
    member.path = name_of(input.byte());
    const unsigned target = input.byte();
    const unsigned rest = input.byte();
    // Twice the name, so that links longer than the format's are made of what there is.
    member.target = (rest & 1U) != 0 ? name_of(target) + "/" + name_of(target) : name_of(target);
    if ((rest & 2U) != 0)
        member.target.insert(0, "/");
    member.mode = (rest & 4U) != 0 ? 06755 : 0640;
    member.uid = (rest & 8U) != 0 ? 0 : 1000;
    member.gid = (rest & 16U) != 0 ? 3'000'000 : 0;
    member.mtime = (rest & 32U) != 0 ? -1 : 77;
    if ((rest & 64U) != 0)
        member.xattrs = {"user.x"};
    if (member.kind == Kind::kFile)
        entry.data.size = (rest & 128U) != 0 ? 700 : 3;
    member.size = entry.data.size;
    return entry;
}

struct Header {
    std::array<char, kBlock> bytes{};

    [[nodiscard]] std::string text(std::size_t at, std::size_t size) const
    {
        const std::string_view field(bytes.data() + at, size);
        return std::string(field.substr(0, field.find('\0')));
    }
    [[nodiscard]] std::uint64_t number(std::size_t at, std::size_t size) const
    {
        std::uint64_t value = 0;
        const std::string digits = text(at, size);
        const auto [end, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), value, 8);
        require(error == std::errc() && !digits.empty(), "numbers are octal");
        return value;
    }
    [[nodiscard]] std::string path() const
    {
        const std::string prefix = text(345, 155);
        return prefix.empty() ? text(0, 100) : prefix + "/" + text(0, 100);
    }
    [[nodiscard]] std::uint64_t sum() const
    {
        std::uint64_t sum = 8 * ' ';
        for (std::size_t i = 0; i < kBlock; ++i)
            sum += i < 148 || i >= 156 ? static_cast<unsigned char>(bytes[i]) : 0U;
        return sum;
    }
};

void check_path(const std::string& path, bool directory, const std::set<std::string>& directories)
{
    require(!path.empty() && path[0] != '/', "paths begin in the root");
    require(path.ends_with('/') == directory, "directories, and only they, end with a slash");
    require(("/" + path + "/").find("/../") == std::string::npos, "no path goes up");
    require(path.find("//") == std::string::npos, "no component is empty");
    require(path.find('\\') == std::string::npos, "no path has a second separator");
    const std::string inner = directory ? path.substr(0, path.size() - 1) : path;
    const std::size_t slash = inner.rfind('/');
    require(slash == std::string::npos || directories.contains(inner.substr(0, slash + 1)),
            "parents come first");
}

// Sees an archive whole, in blocks.
void check_archive(std::string_view archive)
{
    std::set<std::string> names;
    std::set<std::string> directories;
    for (;;) {
        require(archive.size() >= 2 * kBlock, "an archive ends with its mark");
        Header header;
        archive.copy(header.bytes.data(), kBlock);
        archive.remove_prefix(kBlock);
        if (header.bytes[0] == '\0')
            break;
        require(header.number(148, 8) == header.sum(), "headers have their checksum");
        require(header.text(257, 6) == "ustar", "headers are of the plain format");
        const char type = header.bytes[156];
        const std::string path = header.path();
        check_path(path, type == '5', directories);
        require(names.insert(type == '5' ? path.substr(0, path.size() - 1) : path).second,
                "every name is there once");
        if (type == '5')
            directories.insert(path);
        require(header.text(157, 100).size() <= kTargetMax, "targets of links are short");
        require(type != '2' || header.bytes[157] != '\0', "links lead somewhere");
        require(std::string_view("023456").find(type) != std::string_view::npos, "no hard links");
        const std::uint64_t size = header.number(124, 12);
        require(size == 0 || type == '0', "only files have data");
        const std::uint64_t padded = (size + kBlock - 1) / kBlock * kBlock;
        require(padded <= archive.size(), "data is whole");
        archive.remove_prefix(padded);
    }
    require(archive == std::string(kBlock, '\0'), "nothing is behind the mark");
}

EmitOptions options_of(unsigned bits)
{
    EmitOptions options;
    options.hardlinks = static_cast<Hardlinks>(bits % 3);
    options.devices = static_cast<Devices>(bits / 3 % 3);
    options.long_links = (bits & 64U) != 0 ? LongLinks::kHop : LongLinks::kFail;
    options.skip_unrepresentable = (bits & 128U) != 0;
    return options;
}

std::string archive_of(const Tree& tree, LayerRange layers)
{
    static const Spool spool = [] {
        Spool data;
        const std::array<std::byte, 700> bytes{};
        data.append(bytes);
        return data;
    }();
    std::string archive;
    const auto sink = [&](std::span<const std::byte> bytes) {
        archive.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    };
    emit(tree, spool, sink, layers);
    return archive;
}

// False when it was refused, which may happen up to the end of prepare() and not behind it.
bool merge_and_prepare(fuzz::Input& input, Tree& tree)
{
    Limits limits;
    limits.depth = 12;
    limits.entries = 200;
    limits.hardlink_bytes = 800;
    Report report;
    const EmitOptions options = options_of(input.byte());
    Merge merge(limits, report);
    try {
        std::vector<Entry> layer;
        for (std::size_t i = 0; i < kMembersMax && !input.empty(); ++i) {
            const unsigned kind = input.byte() & 15U;
            if (kind != kEndOfLayer) {
                layer.push_back(member_of(input, kind));
                continue;
            }
            merge.add_layer(layer);
            layer.clear();
        }
        merge.add_layer(layer);
        tree = merge.finish();
        prepare(tree, options, limits, report);
    } catch (const Failure&) {
        return false;
    }
    fuzz::use(report.summary().size() + report.losses());
    require(report.document() != nullptr, "there is always a report");
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    Tree tree;
    if (!merge_and_prepare(input, tree))
        return 0;
    check_archive(archive_of(tree, {}));
    check_archive(archive_of(tree, {0, 1}));
    check_archive(archive_of(tree, {1, SIZE_MAX}));
    return 0;
}
