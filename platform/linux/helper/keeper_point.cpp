// keeper_point.cpp - creates missing mount points inside the root, including the missing target of
// a symbolic link in the tree (/etc/resolv.conf -> ../run/resolv.conf).
//
// The kernel resolves a path inside a root but does not create components. So the path is resolved
// here, one component at a time, by descriptor: each component is looked up in the directory found
// before it, without following it, and what was created is looked up again before it is used. The
// text of symbolic links is resolved here, too: an absolute one starts at the root, and ".." in the
// root is the root.

#include "helper.hpp"
#include "sys.hpp"

#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <linux/stat.h>

namespace zn {
namespace {

constexpr std::size_t kPathMax = 4096;
constexpr int kLinksMax = 40;
constexpr std::size_t kNameMax = 255;

// A path that is extended and shortened at its end.
class Text {
  public:
    [[nodiscard]] const char* get() const { return text_; }
    bool append(const char* from, std::size_t len)
    {
        if (len >= kPathMax - len_)
            return false;
        memcpy(text_ + len_, from, len);
        cut(len_ + len);
        return true;
    }
    // Appends "/" and a name.
    bool enter(const char* name) { return append("/", 1) && append(name, strlen(name)); }
    void leave()
    {
        while (len_ > 0 && text_[len_ - 1] != '/')
            len_--;
        cut(len_ > 0 ? len_ - 1 : 0);
    }
    void clear() { cut(0); }

  private:
    void cut(std::size_t len)
    {
        len_ = len;
        text_[len] = '\0';
    }

    char text_[kPathMax] = {};
    std::size_t len_ = 0;
};

// The file type; 0 if it cannot be determined.
std::uint64_t type_of(int fd)
{
    struct statx st = {};
    if (sys::call(__NR_statx, fd, sys::arg(""), AT_EMPTY_PATH, STATX_TYPE, sys::arg(&st)) < 0)
        return 0;
    return st.stx_mode & kTypeMask;
}

// Opens an entry of the directory without following it.
sys::Fd look_up(int directory, const char* name)
{
    open_how how = {};
    how.flags = O_PATH | O_CLOEXEC | O_NOFOLLOW;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    return sys::Fd(sys::call(__NR_openat2, directory, sys::arg(name), sys::arg(&how), sizeof how));
}

bool is_on_proc(int fd)
{
    struct { // statfs
        long type;
        long rest[31];
    } fs = {};
    return sys::call(__NR_fstatfs, fd, sys::arg(&fs)) < 0 || fs.type == PROC_SUPER_MAGIC;
}

class Walk {
  public:
    Walk(const char* path, bool isDirectory)
        : here_(open_inside("/", O_DIRECTORY)), isDirectory_(isDirectory),
          error_(left_.append(path, strlen(path)) ? here_.error() : ENAMETOOLONG)
    {
    }

    // The last component of the path, or a negative error number.
    sys::Fd run()
    {
        char name[kNameMax + 1];
        while (error_ == 0 && !end_.valid() && next(name))
            error_ = step(name);
        if (error_ != 0)
            return sys::Fd(-error_);
        return static_cast<sys::Fd&&>(end_.valid() ? end_ : here_);
    }

  private:
    // Takes the next component; false at the end.
    bool next(char (&name)[kNameMax + 1])
    {
        while (left_.get()[at_] == '/')
            at_++;
        std::size_t len = 0;
        for (; left_.get()[at_] != '\0' && left_.get()[at_] != '/'; at_++, len++) {
            if (len == kNameMax) {
                error_ = ENAMETOOLONG;
                return false;
            }
            name[len] = left_.get()[at_];
        }
        name[len] = '\0';
        return len > 0;
    }
    [[nodiscard]] bool at_last() const
    {
        std::size_t at = at_;
        while (left_.get()[at] == '/')
            at++;
        return left_.get()[at] == '\0';
    }

    int step(const char* name)
    {
        if (text_equal(name, "."))
            return 0;
        if (text_equal(name, ".."))
            return go_up();
        sys::Fd found = look_up(here_.get(), name);
        if (found.error() == ENOENT) {
            const int error = make(name);
            if (error != 0)
                return error;
            found = look_up(here_.get(), name);
        }
        if (!found.valid())
            return found.error();
        const std::uint64_t type = type_of(found.get());
        if (type == 0)
            return EINVAL;
        if (type == kLink)
            return follow(found.get());
        if (type != kDirectory && !at_last())
            return ENOTDIR;
        if (type != kDirectory) {
            end_ = static_cast<sys::Fd&&>(found);
            return 0;
        }
        here_ = static_cast<sys::Fd&&>(found);
        return done_.enter(name) ? 0 : ENAMETOOLONG;
    }

    // EEXIST is fine: another process created it in the meantime, and the lookup that follows
    // checks what it is.
    int make(const char* name)
    {
        long made;
        if (isDirectory_ || !at_last()) {
            made = sys::call(__NR_mkdirat, here_.get(), sys::arg(name), 0755);
        } else {
            const sys::Fd file(sys::call(__NR_openat, here_.get(), sys::arg(name),
                                         O_RDONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                         0644));
            made = -file.error();
        }
        return made < 0 && made != -EEXIST ? static_cast<int>(-made) : 0;
    }

    int go_up()
    {
        done_.leave();
        here_ = sys::Fd(open_inside(done_.get()[0] != '\0' ? done_.get() : "/", O_DIRECTORY));
        return here_.error();
    }

    // Magic links in procfs do not lead to the path that their text shows.
    int follow(int link)
    {
        if (++links_ > kLinksMax || is_on_proc(link))
            return ELOOP;
        char target[kPathMax];
        const long len =
            sys::call(__NR_readlinkat, link, sys::arg(""), sys::arg(target), sizeof target);
        if (len <= 0)
            return len < 0 ? static_cast<int>(-len) : ENOENT;
        const Text rest = left_;
        left_.clear();
        const char* const remainder = rest.get() + at_;
        at_ = 0;
        if (!left_.append(target, static_cast<std::size_t>(len)) ||
            !left_.append(remainder, strlen(remainder)))
            return ENAMETOOLONG;
        if (target[0] != '/')
            return 0;
        done_.clear();
        here_ = sys::Fd(open_inside("/", O_DIRECTORY));
        return here_.error();
    }

    Text left_; // the rest of the path, from at_ on
    std::size_t at_ = 0;
    Text done_; // the path of here_, without symbolic links
    sys::Fd here_;
    sys::Fd end_; // the result if it is not a directory
    bool isDirectory_;
    int links_ = 0;
    int error_;
};

} // namespace

long mount_point(const char* destination, bool isDirectory)
{
    const long found = open_inside(destination, 0);
    return found != -ENOENT ? found : Walk(destination, isDirectory).run().release();
}

} // namespace zn
