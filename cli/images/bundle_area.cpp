#include "bundle_area.hpp"

#include "front/files.hpp"
#include "zarnel/path_trust.h"

#include <array>

#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

namespace fs = std::filesystem;

// A file in the bundle's directory, outside the image's root.
constexpr const char* kCompleteMark = "/.complete-2";
constexpr const char* kInUse = "/.in-use";
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

} // namespace

namespace {

// Why zncBasePathGet failed; it leaves the path of the rejected directory in the buffer.
std::string base_problem(const char* path)
{
    const int error = errno;
    znPathTrust trust = {};
    if (error == EPERM && znPathTrusted(path, &trust) != OK && trust.fault[0] != '\0')
        return fmt::format("the storage base is refused: {}", trust.fault);
    errno = error;
    return fmt::format("the storage base cannot be created: {}: {}", path, error_text());
}

} // namespace

std::string storage_base()
{
    constexpr std::string_view kLayers = "/layers";
    std::array<char, 1024> path{};
    if (zncBasePathGet(path.data(), path.size(), ZNC_LAYER_PATH) == 0)
        throw std::runtime_error(base_problem(path.data()));
    std::string base = path.data();
    base.resize(base.size() - kLayers.size());
    return base;
}

std::string private_area(const char* name)
{
    std::string area = fmt::format("{}/{}", storage_base(), name);
    if (::mkdir(area.c_str(), 0700) != 0 && errno != EEXIST)
        throw_error(area);
    const znc::UniqueFd dir(::open(area.c_str(), kDirFlags));
    struct stat st = {};
    if (!dir || ::fstat(dir.get(), &st) != 0)
        throw_error(area);
    if (st.st_uid != ::geteuid())
        throw std::runtime_error(fmt::format("{}: it belongs to another user", area));
    if ((st.st_mode & 077U) != 0 && ::fchmod(dir.get(), 0700) != 0)
        throw_error(area);
    return area;
}

void sweep_abandoned(const std::string& area, std::string_view prefix)
{
    std::error_code error;
    for (fs::directory_iterator it(area, error), end; it != end && !error; it.increment(error)) {
        if (!it->path().filename().string().starts_with(prefix))
            continue;
        const znc::UniqueFd dir(::open(it->path().c_str(), kDirFlags));
        if (dir && ::flock(dir.get(), LOCK_EX | LOCK_NB) == 0)
            zncImageBundleDelete(it->path().c_str());
    }
}

znc::UniqueFd make_locked_directory(const std::string& area, std::string_view prefix,
                                    std::string& path)
{
    std::string name = fmt::format("{}/{}XXXXXX", area, prefix);
    if (::mkdtemp(name.data()) == nullptr)
        throw_error(area);
    path = name;
    znc::UniqueFd dir(::open(path.c_str(), kDirFlags));
    if (!dir || ::flock(dir.get(), LOCK_EX | LOCK_NB) != 0)
        throw_error(path);
    return dir;
}

std::string bundle_area()
{
    return private_area("bundles");
}

BundlesInUse::BundlesInUse(const std::string& area)
{
    if (!lock_.share(area + kInUse, "unused data is being removed; waiting for it to finish"))
        throw_error(area + kInUse);
}

std::unique_ptr<BundlesInUse> BundlesInUse::try_exclusive(const std::string& area)
{
    std::unique_ptr<BundlesInUse> exclusive(new BundlesInUse);
    if (exclusive->lock_.try_take(area + kInUse))
        return exclusive;
    if (errno != EWOULDBLOCK)
        throw_error(area + kInUse);
    return nullptr;
}

BundleLock::BundleLock(const std::string& area, const std::string& name)
{
    const std::string path = fmt::format("{}/.lock-{}", area, name.substr(0, 200));
    if (!lock_.take(path, "another process is unpacking this image; waiting for it"))
        throw_error(path);
}

bool is_complete(const std::string& bundle)
{
    struct stat st = {};
    return ::lstat((bundle + kCompleteMark).c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
           st.st_uid == ::geteuid();
}

bool mark_complete(const std::string& bundle, bool lasting)
{
    // In a lasting bundle the configuration must be on disk before the mark is created: after a
    // crash of the machine a marked bundle must have it.
    const znc::UniqueFd config = open_regular(bundle + "/config.json");
    if (!config || (lasting && ::fsync(config.get()) != 0))
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
