// Lists what a container changed in its root.
#include "cli/containers/changes.hpp"
#include "cli/containers/container.hpp"
#include "commands.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace zncctl {
namespace {

char letter_of(ChangeKind kind)
{
    return kind == ChangeKind::kAdded ? 'A' : kind == ChangeKind::kChanged ? 'C' : 'D';
}

const char* member_of(ChangeKind kind)
{
    return kind == ChangeKind::kAdded     ? "added"
           : kind == ChangeKind::kChanged ? "changed"
                                          : "deleted";
}

int print_text(const std::vector<Change>& changes)
{
    std::string text;
    for (const Change& change : changes)
        text += fmt::format("{} {}\n", letter_of(change.kind), printable(change.path));
    return text.empty() ? static_cast<int>(kExitOk) : print_result(text);
}

// Empty lists are left out.
int print_lists(const std::vector<Change>& changes)
{
    Json lists = Json::object();
    for (const Change& change : changes)
        lists[member_of(change.kind)].push_back(utf8(change.path));
    return print_json(pretty(lists));
}

} // namespace

int cmd_diff(const Arguments& args)
{
    const std::string id = args.operand(0);
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    if (status_of(id) == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    try {
        const RootParts root = open_root_parts(id);
        if (!root.upper)
            return failure(id, "without overlayfs there is no record of what it changed");
        const std::vector<Change> changes = changes_of(root);
        return as_json ? print_lists(changes) : print_text(changes);
    } catch (const std::runtime_error& error) {
        return failure(id, error.what());
    }
}

} // namespace zncctl
