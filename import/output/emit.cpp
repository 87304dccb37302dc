#include "emit.hpp"

#include "import/merge/ustar.hpp"

#include <algorithm>

namespace zncimport {
namespace {

UstarMember member_of(const std::string& path, const Node& node)
{
    UstarMember member;
    member.path = node.kind == Kind::kDirectory ? path + "/" : path;
    member.type = ustar_type(node.kind);
    member.mode = node.mode;
    member.uid = static_cast<std::uint64_t>(node.uid);
    member.gid = static_cast<std::uint64_t>(node.gid);
    member.mtime = static_cast<std::uint64_t>(node.mtime);
    if (node.kind == Kind::kFile)
        member.size = node.data.size;
    if (node.kind == Kind::kSymlink)
        member.target = node.target;
    if (node.kind == Kind::kCharDevice || node.kind == Kind::kBlockDevice) {
        member.major = node.major;
        member.minor = node.minor;
    }
    return member;
}

class Archive {
  public:
    Archive(const Spool& spool, const ByteSink& sink, LayerRange layers)
        : spool_(spool), sink_(sink), layers_(layers)
    {
    }

    // Adds everything below a directory. The recursion is bounded, because a header limits the
    // length of paths. `path` ends with "/" except for the root.
    void add_children(const Node& directory, const std::string& path)
    {
        for (const auto& [name, node] : directory.children)
            add(*node, path + name);
    }

    void end()
    {
        const Block zeros{};
        sink_(zeros);
        sink_(zeros);
    }

  private:
    struct Waiting {
        std::string path;
        const Node* node;
    };

    // A directory of another layer is written only if a member below it is written.
    void add(const Node& node, const std::string& path)
    {
        const bool wanted = node.layer >= layers_.first && node.layer < layers_.last;
        if (wanted)
            write(node, path);
        if (node.kind != Kind::kDirectory)
            return;
        if (!wanted)
            waiting_.push_back({path, &node});
        add_children(node, path + "/");
        if (!waiting_.empty() && waiting_.back().node == &node)
            waiting_.pop_back();
    }

    void write(const Node& node, const std::string& path)
    {
        for (const Waiting& above : waiting_)
            write_header(*above.node, above.path);
        waiting_.clear();
        write_header(node, path);
        if (node.kind == Kind::kFile)
            write_data(node.data, path);
    }

    void write_header(const Node& node, const std::string& path)
    {
        const UstarMember member = member_of(path, node);
        if (const std::string problem = ustar_problem(member); !problem.empty())
            throw Failure(path, problem);
        sink_(ustar_header(member));
    }

    void write_data(Extent data, const std::string& path)
    {
        if (data.size == 0)
            return;
        const ReaderPtr reader = spool_.read(data);
        for (std::uint64_t left = data.size; left > 0;) {
            const std::size_t most = std::min<std::uint64_t>(left, buffer_.size());
            const std::size_t got = reader->read(std::span(buffer_).first(most));
            if (got == 0)
                throw Failure(path, "its data is missing in the temporary file");
            sink_(std::span<const std::byte>(buffer_).first(got));
            left -= got;
        }
        const Block zeros{};
        sink_(std::span<const std::byte>(zeros).first((kBlock - data.size % kBlock) % kBlock));
    }

    const Spool& spool_;
    const ByteSink& sink_;
    LayerRange layers_;
    std::vector<Waiting> waiting_; // parent directories that have not been written yet
    std::vector<std::byte> buffer_ = std::vector<std::byte>(std::size_t{256} * 1024);
};

} // namespace

void emit(const Tree& tree, const Spool& spool, const ByteSink& sink, LayerRange layers)
{
    Archive archive(spool, sink, layers);
    archive.add_children(tree.root(), "");
    archive.end();
}

} // namespace zncimport
