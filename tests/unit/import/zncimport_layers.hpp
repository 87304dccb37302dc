// zncimport_layers.hpp - builds layers member by member for tests, and describes the result of a
// merge.
#ifndef ZNCIMPORT_LAYERS_HPP
#define ZNCIMPORT_LAYERS_HPP

#include "import/merge/merge.hpp"
#include "import/source/failure.hpp"

#include <string>
#include <vector>

namespace layers {

using zncimport::Entry;
using zncimport::Kind;
using zncimport::Node;

inline Entry entry(Kind kind, const std::string& path, const std::string& target = "")
{
    Entry made;
    made.member.kind = kind;
    made.member.path = path;
    made.member.target = target;
    made.member.mode = kind == Kind::kDirectory ? 0755 : 0644;
    made.member.mtime = 1000;
    return made;
}

inline Entry directory(const std::string& path, std::uint32_t mode = 0755)
{
    Entry made = entry(Kind::kDirectory, path);
    made.member.mode = mode;
    return made;
}

// Contents are distinguished by their offsets in the spool.
inline Entry file(const std::string& path, std::uint64_t place = 0, std::uint64_t size = 10)
{
    Entry made = entry(Kind::kFile, path);
    made.member.size = size;
    made.data = {place, size};
    return made;
}

inline Entry symbolic(const std::string& path, const std::string& target)
{
    return entry(Kind::kSymlink, path, target);
}

inline Entry hardlink(const std::string& path, const std::string& target)
{
    return entry(Kind::kHardlink, path, target);
}

using Layer = std::vector<Entry>;

// Returns every path of a tree in the order in which it is written, directories with a final "/",
// links with their targets.
inline void add_names(const Node& directory, const std::string& path,
                      std::vector<std::string>& names)
{
    for (const auto& [name, node] : directory.children) {
        const std::string child = path + name;
        if (node->kind == Kind::kDirectory) {
            names.push_back(child + "/");
            add_names(*node, child + "/", names);
        } else {
            names.push_back(node->kind == Kind::kSymlink ? child + " -> " + node->target : child);
        }
    }
}

inline std::vector<std::string> names(const zncimport::Tree& tree)
{
    std::vector<std::string> result;
    add_names(tree.root(), "", result);
    return result;
}

// Returns the message of the Failure that a call throws, or "".
template <class Call> std::string failure_of(Call call)
{
    try {
        call();
    } catch (const zncimport::Failure& failure) {
        return failure.object() + ": " + failure.what();
    }
    return "";
}

} // namespace layers

#endif
