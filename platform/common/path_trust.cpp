#include "zarnel/path_trust.h"

#include "base/failure.hpp"
#include "base/owned.hpp"
#include "path_rest.hpp"
#include "path_trust_host.hpp"
#include "zarnel/fs.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

// Inside a user namespace, files of users that are not mapped there show the overflow id. The
// host's root is one of these users if it is not mapped, but so is every other user of the host.
class UnmappedIds {
  public:
    explicit UnmappedIds(std::optional<id_t> (*shown)()) : read_(shown) {}

    // Whether files with this id may belong to a user that is not mapped. Root's is never the
    // overflow id, so that nothing needs to be read for most paths.
    bool may_have(id_t id)
    {
        if (id == 0)
            return false;
        if (!known_)
            shown_ = read_();
        known_ = true;
        return shown_ == id;
    }

  private:
    std::optional<id_t> (*read_)();
    std::optional<id_t> shown_;
    bool known_ = false;
};

// The directory that has been reached, as a text for messages; truncated if it is long.
class Place {
  public:
    void restart() { text_[0] = '\0'; }
    void enter(const char* name)
    {
        if (std::strcmp(name, "..") == 0) {
            char* last = std::strrchr(text_, '/');
            *(last != nullptr ? last : text_) = '\0';
            return;
        }
        const std::size_t len = std::strlen(text_);
        std::snprintf(text_ + len, sizeof text_ - len, "/%s", name);
    }
    // "" for the root directory.
    [[nodiscard]] const char* text() const { return text_; }

  private:
    char text_[700] = ""; // leaves room in znPathTrust.fault for what is wrong
};

// Resolves a path from "/", one component at a time, checking each.
class Walk {
  public:
    Walk(const char* path, znPathTrust& trust) : trust_(trust)
    {
        trust_ = {FALSE, ""};
        good_ = path[0] != '\0';
        if (!good_)
            errno = EINVAL;
        else
            good_ = (path[0] == '/' || append_working_directory()) && rest_.append(path);
    }

    bool run()
    {
        good_ = good_ && restart();
        while (good_ && next_component())
            good_ = step();
        return good_;
    }

  private:
    bool append_working_directory()
    {
        char path[PATH_MAX];
        return ::getcwd(path, sizeof path) != nullptr && rest_.append(path);
    }

    bool restart()
    {
        struct stat st;
        at_.reset(znDirOpenAt(AT_FDCWD, "/"));
        place_.restart();
        return at_ && ::fstat(at_.get(), &st) == 0 && enter(st, ".");
    }

    // Takes the next component from the rest. False at the end of the path, after a missing
    // component, and on errors.
    bool next_component()
    {
        if (missing_)
            return false;
        good_ = rest_.next();
        if (!good_)
            return false;
        if (rest_.name()[0] == '\0') {
            trust_.exists = TRUE;
            good_ = end_is_trusted();
            return false;
        }
        return true;
    }

    bool step()
    {
        const char* name = rest_.name();
        if (std::strcmp(name, ".") == 0)
            return true;
        struct stat st;
        if (::fstatat(at_.get(), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            missing_ = errno == ENOENT;
            return missing_;
        }
        // In a sticky directory, only the owner of an entry and the owner of the directory can
        // replace the entry.
        if (open_to_others_ && !owner_trusted(st))
            return fault(name, "belongs to another user");
        if (S_ISLNK(st.st_mode) && uids_.may_have(st.st_uid))
            return fault(name, "is a symbolic link of a user that is not mapped");
        if (S_ISLNK(st.st_mode))
            return follow();
        if (!S_ISDIR(st.st_mode))
            return check_file(st);
        UniqueFd next(znDirOpenAt(at_.get(), name));
        if (!next || ::fstat(next.get(), &st) != 0)
            return false;
        at_ = std::move(next);
        place_.enter(name);
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
        if (!rest_.is_last())
            return znc::fail(ENOTDIR, false);
        if (!owner_trusted(st))
            return fault(rest_.name(), "belongs to another user");
        open_to_others_ = false;
        unmapped_ = false;
        return !others_may_write(st, rest_.name()) ||
               fault(rest_.name(), "can be written by other users");
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
        bool absolute = false;
        return rest_.follow(at_.get(), absolute) && (!absolute || restart());
    }

    bool others_may_write(const struct stat& st, const char* name)
    {
        if ((st.st_mode & S_IWOTH) != 0)
            return true;
        if ((st.st_mode & S_IWGRP) == 0)
            return false;
        return (st.st_gid != 0 && st.st_gid != ::getegid()) || gids_.may_have(st.st_gid) ||
               may_have_access_list(at_.get(), name);
    }

    bool fault(const char* name, const char* what)
    {
        const bool self = std::strcmp(name, ".") == 0;
        const char* dir = self && place_.text()[0] == '\0' ? "/" : place_.text();
        std::snprintf(trust_.fault, sizeof trust_.fault, "%s%s%s %s", dir, self ? "" : "/",
                      self ? "" : name, what);
        return znc::fail(EPERM, false);
    }

    znPathTrust& trust_;
    UniqueFd at_;
    Place place_;
    PathRest rest_;
    UnmappedIds uids_{[] { return unmapped_uid_shown(); }};
    UnmappedIds gids_{[] { return unmapped_gid_shown(); }};
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
