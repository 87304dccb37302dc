#include "merge.hpp"

#include <algorithm>

namespace zncimport {
namespace {

// PATH_MAX on Linux: no legitimate image has longer paths.
constexpr std::size_t kPathMax = 4095;

constexpr std::string_view kWhiteoutMark = ".wh.";
// metadata of AUFS, left by builders that use it
constexpr std::string_view kMetadataMark = ".wh..wh.";
constexpr std::string_view kOpaqueName = ".wh..wh..opq";
// A directory in the root in which AUFS kept files with several links. It is not part of the image,
// but other names in the layer are hard links to its files.
constexpr std::string_view kLinkStoreName = ".wh..wh.plnk";

// Hard links to other unresolved hard links, through symbolic links. Images made by common builders
// need one round.
constexpr unsigned kMaxRounds = 32;

enum class Role { kMember, kWhiteout, kOpaque, kLinkStore, kMetadata };

// Indexes and landmark files for lazy pulling. They describe the original archive and are
// meaningless in a new one.
bool is_index(const std::string& name)
{
    return name == "stargz.index.json" || name == ".prefetch.landmark" ||
           name == ".no.prefetch.landmark";
}

Role role_of(const Member& member, const std::vector<std::string>& path)
{
    if (path.empty())
        return Role::kMember;
    for (std::size_t i = 0; i + 1 < path.size(); ++i) {
        if (path[i].starts_with(kMetadataMark))
            return i == 0 && path[0] == kLinkStoreName ? Role::kLinkStore : Role::kMetadata;
        if (path[i].starts_with(kWhiteoutMark))
            throw Failure(member.path, "is below a whiteout");
    }
    const std::string& name = path.back();
    if (name == kOpaqueName)
        return Role::kOpaque;
    if (name.starts_with(kMetadataMark))
        return Role::kMetadata;
    if (name.starts_with(kWhiteoutMark)) {
        const std::string hidden = name.substr(kWhiteoutMark.size());
        if (hidden.empty() || hidden == "." || hidden == "..")
            throw Failure(member.path, "is a whiteout without a name");
        return Role::kWhiteout;
    }
    const bool dropped = path.size() == 1 && member.kind == Kind::kFile && is_index(name);
    return dropped ? Role::kMetadata : Role::kMember;
}

void set_attributes(Node& node, const Member& member)
{
    node.mode = member.mode & 07777U;
    node.uid = member.uid;
    node.gid = member.gid;
    node.mtime = member.mtime;
    node.xattrs = member.xattrs;
    node.implied = false;
}

bool same_attributes(const Node& node, const Member& member)
{
    return node.mode == (member.mode & 07777U) && node.uid == member.uid &&
           node.gid == member.gid && node.mtime == member.mtime && node.xattrs == member.xattrs;
}

std::shared_ptr<Node> make_node(const Entry& entry, std::size_t layer)
{
    auto node = std::make_shared<Node>();
    node->kind = entry.member.kind;
    set_attributes(*node, entry.member);
    node->data = entry.data;
    if (node->kind == Kind::kSymlink)
        node->target = entry.member.target;
    node->major = entry.member.major;
    node->minor = entry.member.minor;
    node->layer = layer;
    return node;
}

void check_length(const Member& member)
{
    if (member.path.size() > kPathMax)
        throw Failure(member.path.substr(0, 64) + "...", "has a path that is too long");
    if (member.target.size() > kPathMax)
        throw Failure(member.path, "is a link to a path that is too long");
}

} // namespace

std::vector<Entry> Merge::read_layer(ArchiveReader& archive, Spool& spool)
{
    std::vector<Entry> entries;
    for (Member member; archive.next(member); member = {}) {
        check_length(member);
        Entry entry;
        entry.data.offset = spool.size();
        if (member.kind == Kind::kFile)
            archive.data([&](std::span<const std::byte> bytes) { spool.append(bytes); });
        entry.data.size = spool.size() - entry.data.offset;
        entry.member = std::move(member);
        entries.push_back(std::move(entry));
    }
    return entries;
}

void Merge::add_layer(const std::vector<Entry>& entries)
{
    const std::size_t first = pending_.size();
    apply_whiteouts(entries);
    for (const Entry& entry : entries)
        add_member(entry);
    settle_links(first);
    link_store_.clear();
    ++layer_;
}

// All whiteouts are looked up before the first is applied, so that their order does not matter.
void Merge::apply_whiteouts(const std::vector<Entry>& entries)
{
    std::vector<std::pair<Node*, std::string>> hidden; // "" for an opaque directory
    for (const Entry& entry : entries) {
        const std::vector<std::string> path = Tree::split(entry.member.path, limits_.depth);
        const Role role = role_of(entry.member, path);
        if (role != Role::kWhiteout && role != Role::kOpaque)
            continue;
        Node* const parent = tree_.existing_parent_of(path);
        if (parent != nullptr)
            hidden.emplace_back(
                parent, role == Role::kOpaque ? "" : path.back().substr(kWhiteoutMark.size()));
    }
    std::vector<Children> removed; // kept until the end, because `hidden` points at directories
    for (const auto& [parent, name] : hidden) {
        Children& gone = removed.emplace_back();
        if (name.empty())
            gone.swap(parent->children);
        else if (auto child = parent->children.extract(name); !child.empty())
            gone.insert(std::move(child));
        for (const auto& [child_name, child] : gone)
            touch_all(*child);
    }
}

void Merge::add_member(const Entry& entry)
{
    const Member& member = entry.member;
    const std::vector<std::string> path = Tree::split(member.path, limits_.depth);
    const Role role = role_of(member, path);
    if (role == Role::kWhiteout || role == Role::kOpaque)
        return;
    if (role != Role::kMember) {
        report_.add(Change::kMetadataFile, Tree::join(path));
        if (role == Role::kLinkStore && member.kind == Kind::kFile)
            link_store_.insert_or_assign(Tree::join(path), make_node(entry, layer_));
        return;
    }
    if (member.sparse)
        report_.add(Change::kSparse, Tree::join(path));
    if (path.empty())
        put_root(member);
    else if (member.kind == Kind::kHardlink)
        put_link(member, path);
    else
        put(entry, path);
}

void Merge::put_root(const Member& member)
{
    if (member.kind != Kind::kDirectory)
        throw Failure(member.path, "replaces the root directory by another type of file");
    set_attributes(tree_.root(), member);
}

void Merge::put(const Entry& entry, const std::vector<std::string>& path)
{
    Node& parent = parent_of(path, entry.member);
    const auto old = parent.children.find(path.back());
    const bool both_directories = entry.member.kind == Kind::kDirectory &&
                                  old != parent.children.end() &&
                                  old->second->kind == Kind::kDirectory;
    if (!both_directories) {
        replace(parent, path.back(), make_node(entry, layer_));
        return;
    }
    if (!same_attributes(*old->second, entry.member))
        touch(old->second->layer);
    set_attributes(*old->second, entry.member);
}

// Look up the target first: it may be inside the directory that the new name replaces.
void Merge::put_link(const Member& member, const std::vector<std::string>& path)
{
    const std::vector<std::string> target = Tree::split(member.target, limits_.depth);
    std::shared_ptr<Node> file = file_at(target);
    if (file != nullptr && file->kind == Kind::kDirectory)
        throw Failure(member.path, "is a hard link to a directory");
    Node& parent = parent_of(path, member);
    if (file != nullptr && file->kind != Kind::kHardlink) {
        touch(file->layer);
        replace(parent, path.back(), std::move(file));
        return;
    }
    auto place = std::make_shared<Node>();
    place->kind = Kind::kHardlink;
    place->layer = layer_;
    pending_.push_back(
        {Tree::join(path), path.back(), parent.weak_from_this(), place, target, nullptr, false});
    replace(parent, path.back(), std::move(place));
}

Node& Merge::parent_of(const std::vector<std::string>& path, const Member& member)
{
    std::vector<std::size_t> replaced;
    Node& parent = tree_.parent_of(path, {member.mtime, layer_, &replaced});
    for (const std::size_t layer : replaced)
        touch(layer);
    return parent;
}

void Merge::replace(Node& parent, const std::string& name, std::shared_ptr<Node> node)
{
    std::shared_ptr<Node>& place = parent.children[name];
    if (place != nullptr)
        touch_all(*place);
    place = std::move(node);
}

// Returns the target of a hard link, or null. A hard link to a symbolic link shares the symbolic
// link.
std::shared_ptr<Node> Merge::file_at(const std::vector<std::string>& target)
{
    if (!target.empty() && target[0] == kLinkStoreName) {
        const auto found = link_store_.find(Tree::join(target));
        return found != link_store_.end() ? found->second : nullptr;
    }
    Node* const node = tree_.find(target);
    return node != nullptr ? node->shared_from_this() : nullptr;
}

// Resolves the hard links from index `first` on; those without a target stay in the list. Repeats,
// because a name that has just become a symbolic link may be on the path of another link's target.
void Merge::settle_links(std::size_t first)
{
    for (unsigned round = 0; round < kMaxRounds; ++round) {
        drop_gone_links(first);
        const std::size_t before = pending_.size();
        if (before > first)
            settle_links_once(first);
        if (pending_.size() == before)
            return;
    }
}

void Merge::settle_links_once(std::size_t first)
{
    Waiting waiting;
    for (std::size_t i = first; i < pending_.size(); ++i) {
        pending_[i].seen = false;
        waiting.emplace(pending_[i].place.lock().get(), i);
    }
    for (std::size_t i = first; i < pending_.size(); ++i)
        find_file(i, waiting);
    for (std::size_t i = first; i < pending_.size(); ++i)
        put_file(pending_[i]);
    drop_gone_links(first);
}

// Removes from the list the links whose placeholders have been replaced, by their targets or by
// later members.
void Merge::drop_gone_links(std::size_t first)
{
    const auto is_gone = [](const Pending& link) { return link.place.expired(); };
    const auto begin = pending_.begin() + static_cast<std::ptrdiff_t>(first);
    pending_.erase(std::remove_if(begin, pending_.end(), is_gone), pending_.end());
}

// A link to another unresolved link gets the target of that link. Links in a cycle stay without a
// target.
void Merge::find_file(std::size_t at, const Waiting& waiting)
{
    std::vector<std::size_t> chain;
    std::shared_ptr<Node> file;
    while (!pending_[at].seen) {
        pending_[at].seen = true;
        chain.push_back(at);
        file = file_at(pending_[at].target);
        if (file == nullptr || file->kind != Kind::kHardlink)
            break;
        const auto next = waiting.find(file.get());
        file = nullptr;
        if (next == waiting.end())
            break;
        at = next->second;
        file = pending_[at].file;
    }
    for (const std::size_t link : chain)
        pending_[link].file = file;
}

void Merge::put_file(const Pending& link)
{
    const auto place = link.place.lock();
    const auto parent = link.parent.lock();
    if (link.file == nullptr || place == nullptr || parent == nullptr)
        return;
    if (link.file->kind == Kind::kDirectory)
        throw Failure(link.path, "is a hard link to a directory");
    if (link.file->layer < place->layer)
        touch(link.file->layer);
    parent->children[link.name] = link.file; // destroys `place`
}

Tree Merge::finish()
{
    settle_links(0);
    for (const Pending& link : pending_) {
        report_.add(Change::kDanglingLink, link.path, "to " + Tree::join(link.target));
        if (const auto parent = link.parent.lock())
            parent->children.erase(link.name);
    }
    pending_.clear();
    return std::move(tree_);
}

bool Merge::touched(std::size_t layer) const
{
    return layer < touched_.size() && touched_[layer];
}

void Merge::touch(std::size_t layer)
{
    if (layer >= layer_)
        return;
    touched_.resize(std::max(touched_.size(), layer + 1));
    touched_[layer] = true;
}

void Merge::touch_all(const Node& node)
{
    touch(node.layer);
    for (const auto& [name, child] : node.children)
        touch_all(*child);
}

} // namespace zncimport
