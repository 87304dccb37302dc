#include "tree.hpp"

#include <fmt/format.h>

namespace zncimport {
namespace {

// Limits for resolving one path, to stop at loops and at chains of links that grow without end.
constexpr unsigned kMaxLinks = 255;
constexpr std::size_t kMaxLinkNames = 1024;

std::vector<std::string_view> names_of(std::string_view path)
{
    std::vector<std::string_view> names;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        if (end > 0 && path.substr(0, end) != ".")
            names.push_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return names;
}

// The components that remain to be resolved, and the number of links followed so far.
class Way {
  public:
    explicit Way(std::span<const std::string> names) : object_(Tree::join(names))
    {
        left_.assign(names.rbegin(), names.rend());
    }

    [[nodiscard]] const std::string& object() const { return object_; }
    [[nodiscard]] bool at_end() const { return left_.empty(); }
    std::string next()
    {
        std::string name = std::move(left_.back());
        left_.pop_back();
        return name;
    }
    void follow(std::string_view target)
    {
        const std::vector<std::string_view> names = names_of(target);
        followed_ += names.size();
        if (++links_ > kMaxLinks || followed_ > kMaxLinkNames)
            throw Failure(object_, "goes through too many symbolic links");
        left_.insert(left_.end(), names.rbegin(), names.rend());
    }

  private:
    std::string object_;
    std::vector<std::string> left_; // in reverse order
    unsigned links_ = 0;
    std::size_t followed_ = 0;
};

[[noreturn]] void too_deep(const std::string& object, std::uint64_t depth)
{
    throw Failure(object, fmt::format("is more than {} directories deep (see --max-depth)", depth));
}

} // namespace

Tree::Tree(const Limits& limits)
    : root_(std::make_shared<Node>()), depth_(limits.depth), implied_left_(limits.entries)
{
    root_->implied = true;
}

std::vector<std::string> Tree::split(const std::string& path, std::uint64_t depth)
{
    std::vector<std::string> result;
    for (const std::string_view name : names_of(path)) {
        if (name != "..") {
            result.emplace_back(name);
            continue;
        }
        if (result.empty())
            throw Failure(path, "leads out of the root directory");
        result.pop_back();
    }
    if (result.size() > depth)
        too_deep(path, depth);
    return result;
}

std::string Tree::join(std::span<const std::string> path)
{
    return fmt::format("{}", fmt::join(path, "/"));
}

Node* Tree::find(const std::string& path, std::uint64_t depth)
{
    return find(split(path, depth));
}

Node* Tree::find(const std::vector<std::string>& path)
{
    if (path.empty())
        return root_.get();
    Node* const parent = existing_parent_of(path);
    if (parent == nullptr)
        return nullptr;
    const auto found = parent->children.find(path.back());
    return found != parent->children.end() ? found->second.get() : nullptr;
}

Node& Tree::parent_of(const std::vector<std::string>& path, const Implied& implied)
{
    return *descend(std::span(path).first(path.size() - 1), &implied);
}

Node* Tree::existing_parent_of(const std::vector<std::string>& path)
{
    return descend(std::span(path).first(path.size() - 1), nullptr);
}

// As in the kernel, ".." in a link target leads to the parent of the directory reached so far, and
// at the root it has no effect.
Node* Tree::descend(std::span<const std::string> names, const Implied* implied)
{
    std::vector<Node*> reached = {root_.get()};
    Way way(names);
    while (!way.at_end()) {
        const std::string name = way.next();
        if (name == "..") {
            if (reached.size() > 1)
                reached.pop_back();
            continue;
        }
        const auto found = reached.back()->children.find(name);
        Node* next = found != reached.back()->children.end() ? found->second.get() : nullptr;
        if (next != nullptr && next->kind == Kind::kSymlink) {
            way.follow(next->target);
            if (next->target.starts_with('/'))
                reached.resize(1);
            continue;
        }
        if (next == nullptr || next->kind != Kind::kDirectory) {
            if (implied == nullptr)
                return nullptr;
            next = &make_directory(*reached.back(), name, *implied);
        }
        reached.push_back(next);
        if (implied != nullptr && reached.size() > depth_)
            too_deep(way.object(), depth_);
    }
    return reached.back();
}

Node& Tree::make_directory(Node& parent, const std::string& name, const Implied& implied)
{
    if (implied_left_ == 0)
        throw Failure(
            name,
            "requires too many directories that have no member of their own (see --max-entries)");
    --implied_left_;
    const auto made = std::make_shared<Node>();
    made->mtime = implied.mtime;
    made->layer = implied.layer;
    made->implied = true;
    std::shared_ptr<Node>& place = parent.children[name];
    if (place != nullptr && implied.replaced != nullptr)
        implied.replaced->push_back(place->layer);
    place = made;
    return *made;
}

} // namespace zncimport
