#include "bundle_area.hpp"

#include "files.hpp"
#include "output.hpp"
#include "store.hpp"

#include <chrono>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

#include "zncontainer.h"

namespace zncctl {
namespace {

using Clock = std::chrono::steady_clock;

// In the bundle's directory, where nothing of the image itself is.
constexpr const char* kCompleteMark = "/.complete";
constexpr const char* kInUse = "/.in-use";
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(const std::string& object)
{
    throw std::runtime_error(fmt::format("{}: {}", object, error_text()));
}

// Whoever removes a lock's file holds the lock, so a file that has its name still is the lock.
bool is_named(int fd, const std::string& path)
{
    struct stat opened = {};
    struct stat named = {};
    return ::fstat(fd, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

void wait_for(int lock, int kind, const std::string& path, const char* why)
{
    const auto begin = Clock::now();
    bool said = false;
    while (::flock(lock, kind | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            fail(path);
        if (!said && Clock::now() - begin >= std::chrono::seconds(1)) {
            print_hint(why);
            said = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

znc::UniqueFd open_lock(const std::string& path)
{
    znc::UniqueFd file(
        ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!file)
        fail(path);
    return file;
}

} // namespace

std::string bundle_area()
{
    std::string area = storage_base() + "/bundles";
    if (::mkdir(area.c_str(), 0700) != 0 && errno != EEXIST)
        fail(area);
    const znc::UniqueFd dir(::open(area.c_str(), kDirFlags));
    struct stat st = {};
    if (!dir || ::fstat(dir.get(), &st) != 0)
        fail(area);
    if (st.st_uid != ::geteuid())
        throw std::runtime_error(fmt::format("{}: it belongs to another user", area));
    if ((st.st_mode & 077U) != 0 && ::fchmod(dir.get(), 0700) != 0)
        fail(area);
    return area;
}

BundlesInUse::BundlesInUse(const std::string& area)
{
    const std::string path = area + kInUse;
    do {
        file_ = open_lock(path);
        wait_for(file_.get(), LOCK_SH, path, "unused bundles are being removed; waiting for it");
    } while (!is_named(file_.get(), path));
}

std::unique_ptr<BundlesInUse> BundlesInUse::by_none(const std::string& area)
{
    std::unique_ptr<BundlesInUse> none(new BundlesInUse);
    const std::string path = area + kInUse;
    do {
        none->file_ = open_lock(path);
        if (::flock(none->file_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK)
                fail(path);
            return nullptr;
        }
    } while (!is_named(none->file_.get(), path));
    none->alone_ = path;
    return none;
}

BundlesInUse::~BundlesInUse()
{
    const znc::ErrnoSaver keep;
    if (!alone_.empty())
        ::unlink(alone_.c_str());
}

BundleLock::BundleLock(const std::string& area, const std::string& name)
    : path_(fmt::format("{}/.lock-{}", area, name.substr(0, 200)))
{
    for (;;) {
        file_ = open_lock(path_);
        wait_for(file_.get(), LOCK_EX, path_,
                 "another process is unpacking this image; waiting for it");
        if (is_named(file_.get(), path_))
            return;
    }
}

BundleLock::~BundleLock()
{
    const znc::ErrnoSaver keep;
    ::unlink(path_.c_str());
}

bool is_complete(const std::string& bundle)
{
    struct stat st = {};
    return ::lstat((bundle + kCompleteMark).c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
           st.st_uid == ::geteuid();
}

bool mark_complete(const std::string& bundle)
{
    // The mark must not outlive a crash of the machine that the configuration does not.
    const znc::UniqueFd config = open_regular(bundle + "/config.json");
    if (!config || ::fsync(config.get()) != 0)
        return false;
    return static_cast<bool>(
        znc::UniqueFd(::open((bundle + kCompleteMark).c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)));
}

bool remove_bundle(const std::string& bundle)
{
    struct stat st = {};
    if (::lstat(bundle.c_str(), &st) != 0)
        return errno == ENOENT;
    if (!S_ISDIR(st.st_mode))
        return ::unlink(bundle.c_str()) == 0;
    return zncImageBundleDelete(bundle.c_str()) == OK;
}

} // namespace zncctl
