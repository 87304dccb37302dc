#include "link_target.hpp"

#include "ustar.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace zncimport {
namespace {

// The maximum number of intermediate links. The kernel follows at most 40 links per lookup; the
// difference is left for links in the directories on the way.
constexpr std::size_t kMaxSteps = 32;

const Node* directory_in(const Node& above, const std::string& name)
{
    const auto child = above.children.find(name);
    const bool found = child != above.children.end() && child->second->kind == Kind::kDirectory;
    return found ? child->second.get() : nullptr;
}

// Returns the root and the leading components of the path that are real directories.
std::vector<const Node*> directories_to(const Node& root, std::span<const std::string> path)
{
    std::vector<const Node*> result = {&root};
    for (const std::string& name : path) {
        const Node* const next = directory_in(*result.back(), name);
        if (next == nullptr)
            break;
        result.push_back(next);
    }
    return result;
}

} // namespace

std::string relative_target(std::span<const std::string> directory,
                            std::span<const std::string> path)
{
    std::size_t common = 0;
    while (common < directory.size() && common < path.size() && directory[common] == path[common])
        ++common;
    std::string target;
    for (std::size_t i = common; i < directory.size(); ++i)
        target += target.empty() ? ".." : "/..";
    for (const std::string& name : path.subspan(common))
        target += (target.empty() ? "" : "/") + name;
    return target.empty() ? "." : target;
}

LinkTarget::LinkTarget(const Node& root, std::vector<std::string> directory,
                       std::string_view target)
    : directory_(std::move(directory))
{
    const bool to_directory = target.ends_with('/') || target.ends_with("/.");
    if (!target.starts_with('/'))
        path_ = directory_;
    // The real directories at the start of the path, beginning with the root.
    std::vector<const Node*> real = directories_to(root, path_);
    bool left = real.size() <= path_.size();
    while (!target.empty()) {
        const std::string name(target.substr(0, target.find('/')));
        target.remove_prefix(std::min(name.size() + 1, target.size()));
        if (name.empty() || name == ".")
            continue;
        if (!left && name == "..") {
            if (!path_.empty()) {
                path_.pop_back();
                real.pop_back();
            }
            continue;
        }
        path_.push_back(name);
        const Node* const next = left ? nullptr : directory_in(*real.back(), name);
        left = next == nullptr;
        if (!left)
            real.push_back(next);
    }
    real_ = real.size() - 1;
    if (to_directory && !path_.empty())
        path_.back() += '/';
}

std::string LinkTarget::shortest() const
{
    std::string absolute = "/" + Tree::join(path_);
    // A ".." after the last real directory must not cancel one of the real directories.
    const std::span<const std::string> path(path_);
    std::string relative = relative_target(directory_, path.first(real_));
    if (real_ < path.size())
        relative = (relative == "." ? "" : relative + "/") + Tree::join(path.subspan(real_));
    return relative.size() <= absolute.size() ? relative : absolute;
}

std::string LinkHops::target_of(const LinkTarget& target, const std::string& path,
                                std::size_t layer)
{
    if (!allowed_)
        throw Failure(path, fmt::format("is a symbolic link to a name longer than {} bytes; use "
                                        "--long-links=hop to split it into several links",
                                        kTargetMax));
    const std::span<const std::string> names(target.path());
    std::string at; // the intermediate link reached so far, "" for the root
    std::size_t done = 0;
    for (std::size_t steps = 0; steps < kMaxSteps; ++steps) {
        std::string way = at.empty() ? ".." : at;
        const std::size_t before = done;
        while (done + 1 < names.size() && way.size() + 1 + names[done].size() <= kTargetMax)
            way += "/" + names[done++];
        if (done == before)
            break;
        at = hop_to(way, layer);
        std::string last =
            fmt::format("/{}/{}/{}", directory_, at, Tree::join(names.subspan(done)));
        if (last.size() <= kTargetMax)
            return last;
    }
    throw Failure(path, "is a symbolic link to a name that is too long even with --long-links=hop");
}

std::string LinkHops::hop_to(const std::string& target, std::size_t layer)
{
    if (directory_.empty()) {
        directory_ = ".l";
        for (unsigned i = 1; root_.children.contains(directory_); ++i)
            directory_ = fmt::format(".l{}", i);
        nodes_ = std::make_shared<Node>();
        nodes_->implied = true;
        nodes_->layer = layer;
    }
    const auto [known, is_new] = hops_.try_emplace(target, std::to_string(hops_.size()));
    std::shared_ptr<Node>& hop = nodes_->children[known->second];
    if (is_new) {
        hop = std::make_shared<Node>();
        hop->kind = Kind::kSymlink;
        hop->mode = 0777;
        hop->target = target;
        hop->layer = layer;
    }
    hop->layer = std::min(hop->layer, layer);
    nodes_->layer = std::min(nodes_->layer, layer);
    return known->second;
}

void LinkHops::add_to_tree()
{
    if (nodes_ != nullptr)
        root_.children.emplace(directory_, std::move(nodes_));
}

} // namespace zncimport
