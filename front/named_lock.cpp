#include "named_lock.hpp"

#include "base/failure.hpp"
#include "output.hpp"

#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

namespace zncctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// Whether the file is still the one that `path` names. A lock file is only removed by a process
// that holds its lock exclusively: once locked, a file that still has its name keeps it.
bool is_named(int fd, const std::string& path)
{
    struct stat opened = {};
    struct stat named = {};
    return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// `waiting` is the hint to print while waiting; null: do not wait. Fails with ETIMEDOUT after
// `most`.
bool lock(int file, int kind, const std::string_view* waiting, std::chrono::seconds most)
{
    const auto begin = Clock::now();
    bool hint_printed = false;
    while (::flock(file, kind | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK || waiting == nullptr) && errno != EINTR)
            return false;
        if (waiting == nullptr)
            continue;
        if (most != NamedLock::kForever && Clock::now() - begin >= most)
            return znc::fail(ETIMEDOUT, false);
        if (!hint_printed && Clock::now() - begin >= std::chrono::seconds(1)) {
            print_hint(*waiting);
            hint_printed = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

} // namespace

bool NamedLock::take(const std::string& path, std::string_view waiting, std::chrono::seconds most)
{
    return hold(path, LOCK_EX, &waiting, most);
}

bool NamedLock::share(const std::string& path, std::string_view waiting)
{
    return hold(path, LOCK_SH, &waiting, kForever);
}

bool NamedLock::try_take(const std::string& path)
{
    return hold(path, LOCK_EX, nullptr, kForever);
}

bool NamedLock::hold(const std::string& path, int kind, const std::string_view* waiting,
                     std::chrono::seconds most)
{
    release();
    for (;;) {
        znc::UniqueFd file(::open(path.c_str(), kFlags, 0600));
        if (!file || !lock(file.get(), kind, waiting, most))
            return false;
        if (!is_named(file.get(), path))
            continue;
        path_ = path;
        file_ = std::move(file);
        return true;
    }
}

// The last holder removes the file. A shared holder is the last one if it can convert its lock into
// an exclusive one.
void NamedLock::release()
{
    const znc::ErrnoSaver keep;
    if (file_ && ::flock(file_.get(), LOCK_EX | LOCK_NB) == 0 && is_named(file_.get(), path_))
        ::unlink(path_.c_str());
    file_.reset();
}

} // namespace zncctl
