#include "user_lookup.hpp"

#include "base/file.hpp"
#include "front/files.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <climits>
#include <fmt/format.h>
#include <optional>
#include <set>
#include <sys/stat.h>

#include "zarnel/fs.h"
#include "zarnel/spawn.h"

namespace zncctl {
namespace {

constexpr const char* kPasswd = "/etc/passwd";
constexpr const char* kGroup = "/etc/group";
constexpr off_t kFileMax = off_t{1} << 20;
constexpr std::uint32_t kNoId = UINT32_MAX; // (uid_t)-1: "unchanged" to the kernel

// The content of a file in the root; "" if it does not exist. Nullopt with `error` set.
std::optional<std::string> read_in_root(int root, const char* path, std::string& error)
{
    const znc::UniqueFd fd(znFileOpenInRoot(root, path));
    if (!fd && (errno == ENOENT || errno == ENOTDIR))
        return "";
    struct stat st = {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        error = fmt::format("{} of the container cannot be read: {}", path, read_error_text());
        return std::nullopt;
    }
    if (st.st_size > kFileMax) {
        error = fmt::format("{} of the container is larger than 1 MiB", path);
        return std::nullopt;
    }
    const znc::FileText file = znc::read_text(fd.get(), st);
    if (file.bytes == nullptr) {
        error = fmt::format("{} of the container cannot be read: {}", path, error_text());
        return std::nullopt;
    }
    return std::string(file.bytes.get(), file.len);
}

// Removes the text up to the next separator, or the end, and returns it without the separator.
std::string_view take(std::string_view& text, char separator)
{
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

bool is_number(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

// The id that a text of digits gives; nullopt if it is not one or out of range.
std::optional<std::uint32_t> to_id(std::string_view text)
{
    const auto id = is_number(text) ? to_number<std::uint32_t>(text) : std::nullopt;
    return id == kNoId ? std::nullopt : id;
}

// One line of passwd or group.
struct Entry {
    std::string_view name;
    std::string_view id;      // the user's number in passwd, the group's in group
    std::string_view number;  // in passwd: the group's number
    std::string_view home;    // in passwd
    std::string_view members; // in group
};

Entry passwd_entry(std::string_view line)
{
    Entry entry;
    entry.name = take(line, ':');
    take(line, ':'); // password
    entry.id = take(line, ':');
    entry.number = take(line, ':');
    take(line, ':'); // full name
    entry.home = take(line, ':');
    return entry;
}

Entry group_entry(std::string_view line)
{
    Entry entry;
    entry.name = take(line, ':');
    take(line, ':'); // password
    entry.id = take(line, ':');
    entry.members = line;
    return entry;
}

// Calls `visit` for each line that is an entry, until it returns true. Comments and the "+" and "-"
// lines of network information services are no entries.
template <class Parse, class Visit> bool any_entry(std::string_view file, Parse parse, Visit visit)
{
    while (!file.empty()) {
        const std::string_view line = take(file, '\n');
        const bool entry = !line.empty() && line.find_first_of("#+-:") != 0;
        if (entry && visit(parse(line)))
            return true;
    }
    return false;
}

// The first entry with this name or, if `id` is given, this number.
template <class Parse>
std::optional<Entry> find_entry(std::string_view file, Parse parse, std::string_view name,
                                std::optional<std::uint32_t> id)
{
    std::optional<Entry> found;
    any_entry(file, parse, [&](const Entry& entry) {
        if (id ? to_id(entry.id) == id : entry.name == name)
            found = entry;
        return found.has_value();
    });
    return found;
}

bool has_member(std::string_view members, std::string_view name)
{
    while (!members.empty())
        if (take(members, ',') == name)
            return true;
    return false;
}

std::string home_of(std::string_view home)
{
    const bool usable =
        home.starts_with('/') && home.size() < PATH_MAX && home.find('\0') == home.npos;
    return usable ? std::string(home) : "/";
}

class Lookup {
  public:
    Lookup(int root, std::string& error) : root_(root), error_(error) {}

    bool run(std::string_view text, User& user)
    {
        const std::size_t colon = text.find(':');
        const std::string_view group = colon == text.npos ? "" : text.substr(colon + 1);
        std::string_view name = text.substr(0, colon);
        if (name.empty())
            name = "0";
        if (!find_user(name, user))
            return false;
        return group.empty() ? find_groups(user) : find_group(group, user);
    }

  private:
    bool fail(std::string message)
    {
        error_ = std::move(message);
        return false;
    }

    // A number as the user wrote it. True also for a text that is no number; `id` is then empty.
    bool read_id(std::string_view text, const char* what, std::optional<std::uint32_t>& id)
    {
        id = to_id(text);
        return id || !is_number(text) || fail(fmt::format("{} {} is out of range", what, text));
    }

    bool find_user(std::string_view name, User& user)
    {
        std::optional<std::uint32_t> uid;
        if (!read_id(name, "user", uid))
            return false;
        const auto passwd = read_in_root(root_, kPasswd, error_);
        if (!passwd)
            return false;
        const auto entry = find_entry(*passwd, passwd_entry, name, uid);
        if (!entry && !uid)
            return fail(fmt::format("there is no user '{}' in the container's {}", name, kPasswd));
        user.uid = uid.value_or(0);
        return !entry || use(*entry, user);
    }

    bool use(const Entry& entry, User& user)
    {
        const auto uid = to_id(entry.id);
        const auto gid = to_id(entry.number);
        if (!uid || !gid)
            return fail(fmt::format("the entry of user '{}' in the container's {} is not valid",
                                    entry.name, kPasswd));
        user.uid = *uid;
        user.gid = *gid;
        user.home = home_of(entry.home);
        name_ = entry.name;
        return true;
    }

    bool find_group(std::string_view name, User& user)
    {
        std::optional<std::uint32_t> gid;
        if (!read_id(name, "group", gid))
            return false;
        if (!gid) {
            const auto file = read_in_root(root_, kGroup, error_);
            if (!file)
                return false;
            const auto entry = find_entry(*file, group_entry, name, std::nullopt);
            if (!entry)
                return fail(
                    fmt::format("there is no group '{}' in the container's {}", name, kGroup));
            gid = to_id(entry->id);
        }
        if (!gid)
            return fail(fmt::format("the entry of group '{}' in the container's {} is not valid",
                                    name, kGroup));
        user.gid = *gid;
        return true;
    }

    // The groups that list the user as a member.
    bool find_groups(User& user)
    {
        if (name_.empty())
            return true;
        const auto file = read_in_root(root_, kGroup, error_);
        if (!file)
            return false;
        std::set<std::uint32_t> groups;
        any_entry(*file, group_entry, [&](const Entry& entry) {
            if (const auto gid = to_id(entry.id); gid && has_member(entry.members, name_))
                groups.insert(*gid);
            return groups.size() > ZN_SPAWN_GROUPS_MAX;
        });
        if (groups.size() > ZN_SPAWN_GROUPS_MAX)
            return fail(fmt::format("user '{}' is in more than {} groups of the container's {}",
                                    name_, ZN_SPAWN_GROUPS_MAX, kGroup));
        user.groups.assign(groups.begin(), groups.end());
        return true;
    }

    int root_;
    std::string& error_;
    std::string name_; // of the user's entry; "" if there is none
};

} // namespace

bool lookup_user(int root_fd, std::string_view text, User& out, std::string& error)
{
    User user;
    if (!Lookup(root_fd, error).run(text, user))
        return false;
    out = std::move(user);
    return true;
}

} // namespace zncctl
