#include "layer_check.hpp"

#include "front/digest.hpp"
#include "layer_reader.hpp"

#include <fmt/format.h>
#include <map>

namespace zncctl {
namespace {

constexpr std::size_t kParentsMax = 256;

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
        TarHeader header = {};
        bool ended = false;
        while (!ended && !stopped_ && read(header)) {
            ended = header.is_zero();
            if (!ended)
                member(header);
        }
        if (stopped_)
            return;
        if (!ended)
            refuse("there is no end mark");
        while (read(header)) {
        }
        if (source_.torn())
            refuse("its length is no multiple of 512 bytes");
        else if (!diff_id_.empty() && digest_ && digest_.text() != diff_id_)
            refuse("its content is not what the image's configuration says");
    }

    void member(const TarHeader& header)
    {
        const auto size = header.size_value();
        name_ = header.full_name();
        if (!header.checksum_good())
            return stop("the header is damaged");
        if ((static_cast<unsigned char>(header.size[0]) & 0x80U) != 0)
            return stop("the size is not written in octal digits");
        if (size > UINT32_MAX)
            return stop("the member has 4 GiB or more");
        const auto path = clean_path(name_);
        if (!path)
            return stop("\"..\" in the name");
        path_ = *path;
        named_as_directory_ = names_directory(name_);
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

    void made(const TarHeader& header, std::uint64_t size)
    {
        if (!parents_good())
            return;
        // A directory gets its sticky bit back when a container is made.
        const bool directory = size == 0 && named_as_directory_;
        if ((header.mode_value() & (directory ? 06000U : 07000U)) != 0)
            lose("set-id or sticky bit: dropped");
        if (header.has_owner())
            lose("owner other than root: dropped");
        if (directory) {
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

    bool read(TarHeader& block)
    {
        const bool whole = source_.read(block);
        digest_.add(&block, source_.last_count());
        return whole;
    }

    void skip(std::uint64_t size)
    {
        TarHeader data = {};
        for (std::uint64_t left = size; left > 0; left -= std::min<std::uint64_t>(left, kTarBlock))
            if (!read(data))
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

    LayerReader source_;
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
