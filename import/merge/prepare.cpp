#include "prepare.hpp"

#include "link_target.hpp"
#include "ustar.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <unordered_map>

namespace zncimport {
namespace {

constexpr std::int64_t kMaxOwner = 07777777;    // seven octal digits
constexpr std::int64_t kMaxTime = 077777777777; // eleven
constexpr std::uint32_t kSpecialBits = 07000;   // set-user-ID, set-group-ID and sticky bits
constexpr std::uint32_t kSetIdBits = 06000;

std::string below(const std::string& directory, const std::string& name)
{
    return directory.empty() ? name : directory + "/" + name;
}

// Calls `visit` for each node below a directory with its path: parents before children, names in
// byte order. Removes the nodes for which `visit` returns false.
template <class Visit> void for_each_child(Node& directory, const std::string& path, Visit& visit)
{
    for (auto child = directory.children.begin(); child != directory.children.end();) {
        const std::string child_path = below(path, child->first);
        if (!visit(child->second, child_path)) {
            child = directory.children.erase(child);
            continue;
        }
        if (child->second->kind == Kind::kDirectory)
            for_each_child(*child->second, child_path, visit);
        ++child;
    }
}

// Returns why the node's name, size or numbers cannot be represented, or "". Owners, times and long
// link targets are handled elsewhere.
std::string problem_of(const Node& node, const std::string& path)
{
    if (node.kind == Kind::kOther || node.kind == Kind::kHardlink)
        return "its type is unknown";
    if (node.kind == Kind::kSymlink && node.target.empty())
        return "it is a symbolic link without a target";
    UstarMember member;
    member.path = node.kind == Kind::kDirectory ? path + "/" : path;
    member.type = ustar_type(node.kind);
    member.mode = node.mode;
    member.size = node.kind == Kind::kFile ? node.data.size : 0;
    member.target = node.kind == Kind::kSymlink ? "x" : "";
    member.major = node.major;
    member.minor = node.minor;
    return ustar_problem(member);
}

bool is_device(Kind kind)
{
    return kind == Kind::kCharDevice || kind == Kind::kBlockDevice;
}

class Preparation {
  public:
    Preparation(Tree& tree, const EmitOptions& options, const Limits& limits, Report& report)
        : tree_(tree), options_(options), limits_(limits), report_(report),
          hops_(tree.root(), options.long_links == LongLinks::kHop)
    {
    }
    void run();

  private:
    bool stays(const Node& node, const std::string& path);
    bool special_stays(const Node& node, const std::string& path);
    void give_own_node(std::shared_ptr<Node>& node, const std::string& path);
    bool is_copied(const Node& node, const std::string& path);
    void shorten(Node& node, const std::string& path);
    void settle_attributes(Node& node, const std::string& path);
    void settle_owner(Node& node, const std::string& path);
    void settle_time(Node& node, const std::string& path);
    void note_xattrs(Node& node, const std::string& path);

    Tree& tree_;
    const EmitOptions& options_;
    const Limits& limits_;
    Report& report_;
    LinkHops hops_;
    // For files with several names, the path components of the first name, which keeps the file.
    std::unordered_map<const Node*, std::vector<std::string>> first_names_;
    std::uint64_t copied_ = 0; // bytes
};

// Nodes are dropped first, so that no link is redirected to a dropped node.
void Preparation::run()
{
    auto stays_here = [this](const std::shared_ptr<Node>& node, const std::string& path) {
        return stays(*node, path);
    };
    auto make_own = [this](std::shared_ptr<Node>& node, const std::string& path) {
        give_own_node(node, path);
        return true;
    };
    auto shorten_links = [this](const std::shared_ptr<Node>& node, const std::string& path) {
        shorten(*node, path);
        return true;
    };
    auto attributes = [this](const std::shared_ptr<Node>& node, const std::string& path) {
        settle_attributes(*node, path);
        return true;
    };
    for_each_child(tree_.root(), "", stays_here);
    for_each_child(tree_.root(), "", make_own);
    for_each_child(tree_.root(), "", shorten_links);
    settle_attributes(tree_.root(), "");
    for_each_child(tree_.root(), "", attributes);
    hops_.add_to_tree();
}

bool Preparation::stays(const Node& node, const std::string& path)
{
    if ((is_device(node.kind) || node.kind == Kind::kFifo) && !special_stays(node, path))
        return false;
    const std::string problem = problem_of(node, path);
    if (problem.empty())
        return true;
    if (!options_.skip_unrepresentable)
        throw Failure(path, problem + "; use --skip-unrepresentable to leave it out");
    report_.add(Change::kUnrepresentable, path, problem);
    return false;
}

// The runtime mounts its own /dev, so devices below dev can always be dropped.
bool Preparation::special_stays(const Node& node, const std::string& path)
{
    const bool device = is_device(node.kind);
    const bool in_dev = path.starts_with("dev/");
    if (!in_dev && options_.devices == Devices::kFail)
        throw Failure(
            path,
            fmt::format(
                "is a {}, which unpacking does not create; use --devices=drop to leave it out",
                device ? "device" : "FIFO"));
    const bool kept = !in_dev && options_.devices == Devices::kKeep;
    std::string detail = kept ? "in the layer, but not created" : "left out";
    if (device)
        detail = fmt::format("{} {}:{}, {}", node.kind == Kind::kCharDevice ? "char" : "block",
                             node.major, node.minor, detail);
    report_.add(device ? Change::kDevice : Change::kFifo, path, detail);
    return kept;
}

void Preparation::give_own_node(std::shared_ptr<Node>& node, const std::string& path)
{
    if (node->kind == Kind::kDirectory ||
        (node.use_count() == 1 && !first_names_.contains(node.get())))
        return;
    std::vector<std::string> names = Tree::split(path, limits_.depth);
    const auto [first, is_first] = first_names_.try_emplace(node.get(), names);
    if (is_first)
        return;
    auto own = std::make_shared<Node>(*node);
    if (is_copied(*node, path)) {
        report_.add(Change::kHardlinkCopied, path, "of " + Tree::join(first->second),
                    node->data.size);
    } else {
        own->kind = Kind::kSymlink;
        own->mode = 0777;
        own->data = {};
        own->xattrs.clear();
        names.pop_back();
        own->target = relative_target(names, first->second);
        report_.add(Change::kHardlinkLinked, path, "to " + Tree::join(first->second));
    }
    node = std::move(own);
}

bool Preparation::is_copied(const Node& node, const std::string& path)
{
    const std::uint64_t size = node.kind == Kind::kFile ? node.data.size : 0;
    const bool wanted = node.kind != Kind::kFile || (node.mode & kSetIdBits) != 0 ||
                        options_.hardlinks == Hardlinks::kCopy ||
                        (options_.hardlinks == Hardlinks::kAuto && size <= limits_.hardlink_bytes &&
                         copied_ <= limits_.hardlink_bytes - size);
    if (!wanted)
        return false;
    if (size > limits_.bytes || copied_ > limits_.bytes - size)
        throw Failure(path, "exceeds the limit for copies of hard-linked files (see --max-bytes)");
    copied_ += size;
    return true;
}

void Preparation::shorten(Node& node, const std::string& path)
{
    if (node.kind != Kind::kSymlink || node.target.size() <= kTargetMax)
        return;
    std::vector<std::string> directory = Tree::split(path, limits_.depth);
    directory.pop_back();
    const LinkTarget target(tree_.root(), directory, node.target);
    std::string shorter = target.shortest();
    if (shorter.size() > kTargetMax)
        shorter = hops_.target_of(target, path, node.layer);
    report_.add(Change::kLinkTarget, path, fmt::format("was {}, is {}", node.target, shorter));
    node.target = std::move(shorter);
}

void Preparation::settle_attributes(Node& node, const std::string& path)
{
    settle_owner(node, path);
    settle_time(node, path);
    note_xattrs(node, path);
    if (node.kind != Kind::kSymlink && (node.mode & kSpecialBits) != 0)
        report_.add(Change::kSetId, path, fmt::format("mode {:04o}", node.mode));
}

void Preparation::settle_owner(Node& node, const std::string& path)
{
    const auto fits = [](std::int64_t id) { return id >= 0 && id <= kMaxOwner; };
    if (node.uid == 0 && node.gid == 0)
        return;
    std::string detail = fmt::format("{}:{}", node.uid, node.gid);
    if (!fits(node.uid) || !fits(node.gid)) {
        if (!options_.skip_unrepresentable)
            throw Failure(path, fmt::format("belongs to {}, which the format cannot represent; use "
                                            "--skip-unrepresentable to give it to root",
                                            detail));
        node.uid = fits(node.uid) ? node.uid : 0;
        node.gid = fits(node.gid) ? node.gid : 0;
        detail += fmt::format(", now {}:{}", node.uid, node.gid);
    }
    report_.add(Change::kOwner, path, detail);
}

void Preparation::settle_time(Node& node, const std::string& path)
{
    const std::int64_t time = std::clamp<std::int64_t>(node.mtime, 0, kMaxTime);
    if (time != node.mtime && !node.implied)
        report_.add(Change::kTime, path, fmt::format("was {}, is {}", node.mtime, time));
    node.mtime = time;
}

// SELinux labels and attributes of the builder's overlay filesystem are not part of the image: they
// are not reported.
void Preparation::note_xattrs(Node& node, const std::string& path)
{
    std::string names;
    for (const std::string& name : node.xattrs) {
        if (name == "security.selinux" || name.starts_with("trusted.overlay.") ||
            name.starts_with("user.overlay."))
            continue;
        names += (names.empty() ? "" : ", ") + name;
    }
    node.xattrs.clear();
    if (!names.empty())
        report_.add(Change::kXattr, path, names);
}

} // namespace

void prepare(Tree& tree, const EmitOptions& options, const Limits& limits, Report& report)
{
    Preparation(tree, options, limits, report).run();
}

} // namespace zncimport
