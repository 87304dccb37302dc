#include "named_lock.hpp"

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

// Whoever removes a lock's file holds the lock, so a file that has its name still is the lock.
bool is_named(int fd, const std::string& path)
{
    struct stat opened = {};
    struct stat named = {};
    return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// `waiting`: null not to wait.
bool lock(int file, int kind, const std::string_view* waiting, std::chrono::seconds most)
{
    const auto begin = Clock::now();
    bool said = false;
    while (::flock(file, kind | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK || waiting == nullptr) && errno != EINTR)
            return false;
        if (waiting == nullptr)
            continue;
        if (most != NamedLock::kForever && Clock::now() - begin >= most) {
            errno = ETIMEDOUT;
            return false;
        }
        if (!said && Clock::now() - begin >= std::chrono::seconds(1)) {
            print_hint(*waiting);
            said = true;
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

// The last one out takes the file along: of those who share it, whoever finds nobody else.
void NamedLock::release()
{
    const znc::ErrnoSaver keep;
    if (file_ && ::flock(file_.get(), LOCK_EX | LOCK_NB) == 0 && is_named(file_.get(), path_))
        ::unlink(path_.c_str());
    file_.reset();
}

} // namespace zncctl
