#include "zarnel/path_trust.h"

#include "ns_user.hpp"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr int kLinksMax = 40; // as in the kernel's path lookup
constexpr int kDirFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Inside a user namespace, files of users that are not mapped there show the overflow id. The
// host's root is one of these users if it is not mapped, but so is every other user of the host.
class UnmappedIds {
  public:
    UnmappedIds(const char* map, const char* overflow) : map_(map), overflow_(overflow) {}

    // Whether files with this id may belong to a user that is not mapped. In the host's user
    // namespace, the overflow id is an id like any other. Root's is never the overflow id, so that
    // nothing needs to be read for most paths.
    bool may_have(id_t id)
    {
        if (id == 0)
            return false;
        if (!known_)
            read();
        return hasUnmapped_ && id == shown_;
    }

  private:
    void read()
    {
        constexpr std::uint32_t kAll = UINT32_MAX;
        constexpr id_t kDefault = 65534;
        const znc::ErrnoSaver keep;
        List<IdMapping> map;
        hasUnmapped_ =
            mappings_read(::getpid(), map_, map) == 0 && (map.size() != 1 || map[0].count != kAll);
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(overflow_, "re"),
                                                                   std::fclose);
        if (!file || std::fscanf(file.get(), "%u", &shown_) != 1)
            shown_ = kDefault;
        known_ = true;
    }

    const char* map_;
    const char* overflow_;
    bool known_ = false;
    bool hasUnmapped_ = false;
    id_t shown_ = 0;
};

// The group bits of a file with an access control list are its mask and apply to all users and
// groups in the list.
bool has_access_list(int dir, const char* name)
{
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d/%s", dir, name);
    return ::getxattr(path, "system.posix_acl_access", nullptr, 0) >= 0;
}

// Resolves a path from "/", one component at a time, checking each.
class Walk {
  public:
    Walk(const char* path, znPathTrust& trust) : trust_(trust)
    {
        trust_ = {FALSE, ""};
        good_ = path[0] != '\0';
        if (!good_)
            errno = EINVAL;
        else if (path[0] != '/')
            good_ = ::getcwd(rest_, sizeof rest_) != nullptr && append(path);
        else
            good_ = append(path);
    }

    bool run()
    {
        good_ = good_ && restart();
        while (good_ && next_component())
            good_ = step();
        return good_;
    }

  private:
    bool append(const char* text)
    {
        const std::size_t len = std::strlen(rest_);
        const int n = std::snprintf(rest_ + len, sizeof rest_ - len, "/%s", text);
        if (n >= 0 && static_cast<std::size_t>(n) < sizeof rest_ - len)
            return true;
        errno = ENAMETOOLONG;
        return false;
    }

    bool restart()
    {
        struct stat st;
        at_.reset(::open("/", kDirFlags));
        return at_ && ::fstat(at_.get(), &st) == 0 && enter(st, ".");
    }

    // Takes the next component from the rest. False at the end of the path, after a missing
    // component, and on errors.
    bool next_component()
    {
        if (missing_)
            return false;
        const char* begin = rest_ + std::strspn(rest_, "/");
        const std::size_t len = std::strcspn(begin, "/");
        if (len == 0) {
            trust_.exists = TRUE;
            good_ = end_is_trusted();
            return false;
        }
        if (len >= sizeof name_) {
            errno = ENAMETOOLONG;
            good_ = false;
            return false;
        }
        std::memcpy(name_, begin, len);
        name_[len] = '\0';
        std::memmove(rest_, begin + len, std::strlen(begin + len) + 1);
        return true;
    }

    bool step()
    {
        if (std::strcmp(name_, ".") == 0)
            return true;
        struct stat st;
        if (::fstatat(at_.get(), name_, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            missing_ = errno == ENOENT;
            return missing_;
        }
        // In a sticky directory, only the owner of an entry and the owner of the directory can
        // replace the entry.
        if (open_to_others_ && !owner_trusted(st))
            return fault(name_, "belongs to another user");
        if (S_ISLNK(st.st_mode) && uids_.may_have(st.st_uid))
            return fault(name_, "is a symbolic link of a user that is not mapped");
        if (S_ISLNK(st.st_mode))
            return follow();
        if (!S_ISDIR(st.st_mode))
            return check_file(st);
        UniqueFd next(::openat(at_.get(), name_, kDirFlags));
        if (!next || ::fstat(next.get(), &st) != 0)
            return false;
        at_ = std::move(next);
        return enter(st, ".");
    }

    // Checks the directory `at_`, whose attributes are `st`.
    bool enter(const struct stat& st, const char* name)
    {
        // Above a directory that belongs to this user there may be some of a user that is not
        // mapped: nobody can give directories away, so that what is reached is this user's in any
        // case.
        unmapped_ = uids_.may_have(st.st_uid);
        if (!unmapped_ && !owner_trusted(st))
            return fault(name, "belongs to another user");
        open_to_others_ = others_may_write(st, name);
        if (open_to_others_ && (st.st_mode & S_ISVTX) == 0)
            return fault(name, "can be written by other users");
        return true;
    }

    bool check_file(const struct stat& st)
    {
        if (rest_[std::strspn(rest_, "/")] != '\0') {
            errno = ENOTDIR;
            return false;
        }
        rest_[0] = '\0';
        if (!owner_trusted(st))
            return fault(name_, "belongs to another user");
        open_to_others_ = false;
        unmapped_ = false;
        return !others_may_write(st, name_) || fault(name_, "can be written by other users");
    }

    bool owner_trusted(const struct stat& st)
    {
        return (st.st_uid == 0 || st.st_uid == ::geteuid()) && !uids_.may_have(st.st_uid);
    }

    bool end_is_trusted()
    {
        if (unmapped_)
            return fault(".", "belongs to a user that is not mapped");
        return !open_to_others_ || fault(".", "can be written by other users");
    }

    bool follow()
    {
        char target[PATH_MAX];
        const ssize_t len = ::readlinkat(at_.get(), name_, target, sizeof target);
        if (len <= 0 || static_cast<std::size_t>(len) >= sizeof target || ++links_ > kLinksMax) {
            if (len > 0)
                errno = links_ > kLinksMax ? ELOOP : ENAMETOOLONG;
            return false;
        }
        target[len] = '\0';
        char remainder[sizeof rest_];
        std::strcpy(remainder, rest_);
        rest_[0] = '\0';
        return append(target) && append(remainder) && (target[0] != '/' || restart());
    }

    bool others_may_write(const struct stat& st, const char* name)
    {
        if ((st.st_mode & S_IWOTH) != 0)
            return true;
        if ((st.st_mode & S_IWGRP) == 0)
            return false;
        return (st.st_gid != 0 && st.st_gid != ::getegid()) || gids_.may_have(st.st_gid) ||
               has_access_list(at_.get(), name);
    }

    bool fault(const char* name, const char* what)
    {
        char link[64];
        std::snprintf(link, sizeof link, "/proc/self/fd/%d", at_.get());
        char dir[700]; // leaves room for the other parts
        const ssize_t len = ::readlink(link, dir, sizeof dir - 1);
        dir[len > 0 ? len : 0] = '\0';
        const bool self = std::strcmp(name, ".") == 0;
        std::snprintf(trust_.fault, sizeof trust_.fault, "%s%s%s %s", dir,
                      self || std::strcmp(dir, "/") == 0 ? "" : "/", self ? "" : name, what);
        errno = EPERM;
        return false;
    }

    znPathTrust& trust_;
    UniqueFd at_;
    char rest_[2 * PATH_MAX] = ""; // the part of the path not yet resolved
    char name_[NAME_MAX + 1] = "";
    int links_ = 0;
    UnmappedIds uids_{"uid_map", "/proc/sys/kernel/overflowuid"};
    UnmappedIds gids_{"gid_map", "/proc/sys/kernel/overflowgid"};
    bool open_to_others_ = false; // `at_` is sticky and writable by others
    bool unmapped_ = false;       // `at_` may belong to a user that is not mapped
    bool missing_ = false;
    bool good_ = false;
};

} // namespace
} // namespace zn

STATUS znPathTrusted(const char* path, znPathTrust* trust)
{
    znPathTrust own;
    return zn::Walk(path, trust != nullptr ? *trust : own).run() ? OK : ERROR;
}
