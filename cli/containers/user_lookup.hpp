// user_lookup.hpp - finds the user and group that a text such as "nobody", "1000:100" or "www:mail"
// names, in the passwd and group files of a container's root. The files are untrusted. Used by the
// commands that start a program as a given user.
#ifndef ZNC_CLI_CONTAINERS_USER_LOOKUP_HPP
#define ZNC_CLI_CONTAINERS_USER_LOOKUP_HPP

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

struct User {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::vector<std::uint32_t> groups; // supplementary groups, each once
    std::string home = "/";            // absolute
};

// Looks up USER or USER:GROUP in the root that the directory descriptor refers to. Each part is a
// name or a decimal number. A text of digits is always a number, even if an entry has that name,
// and needs no entry. An empty user is 0.
//
// Without a group, the group and the supplementary groups are those of the user's entry; a number
// without an entry has group 0. With a group, there are no supplementary groups. Of several entries
// the first is used.
//
// False with a message in `error` if there is no such name, if a number or the entry that is used
// is not valid, or if a file cannot be examined; `out` is then unchanged. Links are resolved inside
// the root. Files must be regular and at most 1 MiB long; one that does not exist has no entries.
bool lookup_user(int root_fd, std::string_view text, User& out, std::string& error);

} // namespace zncctl

#endif
