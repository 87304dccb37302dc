#include "layer_check.hpp"

#include "digest.hpp"
#include "files.hpp"
#include "words.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <numeric>
#include <optional>

#include "zarnel/owned.hpp"
#include "zncontainer.h"

namespace zncctl {
namespace {

constexpr std::size_t kBlock = 512;
constexpr std::size_t kParentsMax = 256;

struct Header {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char checksum[8];
    char type;
    char link[100];
    char magic[6];
    char version[2];
    char user[32];
    char group[32];
    char major[8];
    char minor[8];
    char prefix[155];
    char rest[12];
};
static_assert(sizeof(Header) == kBlock);

struct GzCloser {
    void operator()(gzFile file) const { ugzclose(file); }
};

// The plain bytes of an archive, compressed or not.
class Source {
  public:
    explicit Source(const std::string& path) : file_(open_regular(path))
    {
        std::array<unsigned char, 6> magic{};
        const bool read = file_ && ::pread(file_.get(), magic.data(), magic.size(), 0) == 6;
        if (read && magic[0] == 0x1f && magic[1] == 0x8b)
            gz_.reset(ugzopen(path.c_str(), "r"));
        static constexpr std::array<std::pair<const char*, std::string_view>, 3> kOthers = {
            {{"zstd", "\x28\xb5\x2f\xfd"}, {"xz", "\xfd\x37zXZ"}, {"bzip2", "BZh"}}};
        for (const auto& [name, start] : kOthers)
            if (read && std::memcmp(magic.data(), start.data(), start.size()) == 0)
                compression_ = name;
    }

    explicit operator bool() const { return static_cast<bool>(file_); }
    [[nodiscard]] const char* unknown_compression() const { return compression_; }

    // False at the end, or when there is no whole block.
    bool read(Header& block, Digest& digest)
    {
        auto* out = reinterpret_cast<char*>(&block);
        std::size_t have = 0;
        while (have < kBlock) {
            const auto want = static_cast<unsigned>(kBlock - have);
            const ssize_t n =
                gz_ ? ugzread(gz_.get(), out + have, want) : ::read(file_.get(), out + have, want);
            if (n <= 0)
                break;
            have += static_cast<std::size_t>(n);
        }
        digest.add(out, have);
        torn_ = torn_ || (have != 0 && have != kBlock);
        return have == kBlock;
    }
    [[nodiscard]] bool torn() const { return torn_; }

  private:
    znc::UniqueFd file_;
    std::unique_ptr<gzFile_s, GzCloser> gz_;
    const char* compression_ = nullptr;
    bool torn_ = false;
};

template <std::size_t N> std::string_view field(const char (&text)[N])
{
    return {text, ::strnlen(text, N)};
}

// As the extractor reads numbers: octal digits behind blanks, or nothing.
template <std::size_t N> std::optional<std::uint64_t> octal(const char (&text)[N])
{
    std::string_view digits(text, N);
    digits.remove_prefix(std::min(digits.find_first_not_of(" \t"), digits.size()));
    std::uint64_t number = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), number, 8);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

bool checksum_good(const Header& header)
{
    Header copy = header;
    std::fill(std::begin(copy.checksum), std::end(copy.checksum), ' ');
    const auto* bytes = reinterpret_cast<const unsigned char*>(&copy);
    return octal(header.checksum) == std::accumulate(bytes, bytes + kBlock, std::uint64_t{0});
}

bool is_zero(const Header& header)
{
    const auto* bytes = reinterpret_cast<const char*>(&header);
    return std::all_of(bytes, bytes + kBlock, [](char c) { return c == 0; });
}

class LayerCheck {
  public:
    LayerCheck(const std::string& path, std::string diff_id)
        : source_(path), diff_id_(std::move(diff_id)),
          digest_(diff_id_.empty() ? "sha256" : diff_id_.substr(0, diff_id_.find(':')))
    {
    }

    std::vector<Finding> run()
    {
        if (!source_)
            refuse("the archive cannot be read");
        else if (source_.unknown_compression() != nullptr)
            refuse(fmt::format("it is compressed with {}", source_.unknown_compression()));
        else
            members();
        return std::move(findings_);
    }

  private:
    enum class Kind { kDirectory, kFile, kLink };

    void members()
    {
        Header header = {};
        bool ended = false;
        while (!ended && !stopped_ && source_.read(header, digest_)) {
            ended = is_zero(header);
            if (!ended)
                member(header);
        }
        if (stopped_)
            return;
        if (!ended)
            refuse("there is no end mark");
        while (source_.read(header, digest_)) {
        }
        if (source_.torn())
            refuse("its length is no multiple of 512 bytes");
        else if (!diff_id_.empty() && digest_ && digest_.text() != diff_id_)
            refuse("its content is not what the image's configuration says");
    }

    void member(const Header& header)
    {
        const auto size = octal(header.size).value_or(0);
        name_ = (std::memcmp(header.magic, "ustar", 6) == 0 && header.prefix[0] != 0
                     ? std::string(field(header.prefix)) + "/"
                     : "") +
                std::string(field(header.name));
        if (!checksum_good(header))
            return stop("the header is damaged");
        if ((static_cast<unsigned char>(header.size[0]) & 0x80U) != 0)
            return stop("the size is not written in octal digits");
        if (size > UINT32_MAX)
            return stop("the member has 4 GiB or more");
        if (!clean_path())
            return stop("\"..\" in the name");
        if (extension(header.type))
            return;
        if (!path_.empty())
            made(header, size);
        if (!stopped_)
            skip(size);
    }

    // Types whose data the extractor takes for members.
    bool extension(char type)
    {
        switch (type) {
        case 'x':
        case 'g':
            stop("pax header");
            return true;
        case 'L':
            stop("long name (GNU)");
            return true;
        case 'K':
            stop("long link (GNU)");
            return true;
        case 'S':
            stop("sparse file (GNU)");
            return true;
        default:
            return false;
        }
    }

    void made(const Header& header, std::uint64_t size)
    {
        if (!parents_good())
            return;
        if (octal(header.mode).value_or(0) & 07000U)
            lose("set-id or sticky bit: dropped");
        if (octal(header.uid).value_or(0) != 0 || octal(header.gid).value_or(0) != 0)
            lose("owner other than root: dropped");
        if (size == 0 && named_as_directory_) {
            tree_.emplace(path_, Kind::kDirectory);
            return;
        }
        if (path_.substr(path_.rfind('/') + 1).starts_with(".wh."))
            lose("whiteout: stays a file and hides nothing");
        switch (header.type) {
        case '0':
        case '\0':
        case ' ':
            regular();
            break;
        case '2':
            if (!tree_.emplace(path_, Kind::kLink).second)
                stop("a symbolic link where something is already");
            break;
        default:
            other(header.type, size);
        }
    }

    void regular()
    {
        const auto [at, fresh] = tree_.emplace(path_, Kind::kFile);
        if (!fresh && at->second == Kind::kDirectory)
            lose("a file where a directory is: left out");
        else
            at->second = Kind::kFile;
    }

    void other(char type, std::uint64_t size)
    {
        if (size != 0)
            return stop("a link, device or directory with data");
        switch (type) {
        case '1':
            return lose("hard link: left out");
        case '3':
        case '4':
            return lose("device: left out");
        case '5':
            return lose("directory whose name does not end in \"/\": left out");
        case '6':
            return lose("FIFO: left out");
        default:
            return lose("member of an unknown type: left out");
        }
    }

    // The name as the extractor takes it: separators of both kinds, no "." and no empty parts.
    bool clean_path()
    {
        path_.clear();
        named_as_directory_ = name_.ends_with('/') || name_.ends_with('\\');
        std::string part;
        for (const char c : name_ + "/") {
            if (c != '/' && c != '\\') {
                part += c;
                continue;
            }
            if (part == "..")
                return false;
            if (!part.empty() && part != ".")
                path_ += "/" + part;
            part.clear();
        }
        return true;
    }

    bool parents_good()
    {
        const std::string parents = path_.substr(0, path_.rfind('/'));
        if (parents.empty())
            return true;
        const auto found = tree_.find(parents);
        if (parents.size() >= kParentsMax)
            stop("the name is too long");
        else if (found == tree_.end())
            stop("no directory for the member");
        else if (found->second != Kind::kDirectory)
            stop("the member's directory is a link or a file");
        return !stopped_;
    }

    void skip(std::uint64_t size)
    {
        Header data = {};
        for (std::uint64_t left = size; left > 0; left -= std::min<std::uint64_t>(left, kBlock))
            if (!source_.read(data, digest_))
                return stop("the archive ends within a member");
    }

    void note(bool refused, std::string what)
    {
        for (Finding& finding : findings_)
            if (finding.what == what) {
                finding.count++;
                return;
            }
        findings_.push_back({refused, std::move(what), 1, name_});
    }
    void lose(std::string what) { note(false, std::move(what)); }
    void refuse(std::string what)
    {
        name_.clear();
        note(true, std::move(what));
    }
    // The extractor goes no further either.
    void stop(std::string what)
    {
        stopped_ = true;
        note(true, std::move(what));
    }

    Source source_;
    std::string diff_id_;
    Digest digest_;
    std::map<std::string, Kind> tree_;
    std::vector<Finding> findings_;
    std::string name_;
    std::string path_;
    bool named_as_directory_ = false;
    bool stopped_ = false;
};

} // namespace

std::vector<Finding> check_layer(const std::string& path, const std::string& diff_id)
{
    return LayerCheck(path, diff_id).run();
}

} // namespace zncctl
