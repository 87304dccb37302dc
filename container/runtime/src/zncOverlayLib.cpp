// zncOverlayLib.cpp - the storage base and its directories, and overlay devices.
#include "zncPath.hpp"

#include "base/failure.hpp"
#include "zarnel/fs.h"
#include "zarnel/overlay.h"
#include "zarnel/path_trust.h"
#include "zncOwned.hpp"
#include "zncontainer.h"

#include <array>
#include <fcntl.h>

namespace {

constexpr const char* kBaseVariable = "ZNC_BASE";
constexpr mode_t kAreaMode = 0700;

// Indexed by zncBasePathType. Callers append a name to the path: only the layers' entry has no
// final "/", because layer names are appended together with their "/".
constexpr std::array<const char*, 3> kAreas = {"/layers", "/flattened/", "/containers/"};

// Reads the base from the environment, without trailing separators. Returns its length, 0 if the
// variable is not set or not an absolute path.
std::size_t base_from_environment(char* path, std::size_t bufLen)
{
    ssize_t len = znEnvGet(kBaseVariable, path, bufLen);
    if (len <= 0 || !pathIsSep(path[0]))
        return 0;
    while (len > 0 && pathIsSep(path[len - 1]))
        --len;
    return static_cast<std::size_t>(len);
}

// Programs in the layers are executed and container directories are deleted as root. No other user
// may therefore be able to modify the directory or any directory above it. A directory created here
// is checked after the mkdir: below a world-writable directory another user may have created it
// first.
bool make_trusted(const char* path)
{
    znPathTrust trust;
    if (znPathTrusted(path, &trust) != OK)
        return false;
    if (trust.exists != FALSE)
        return true;
    return znMkdirParents(path, kAreaMode) == OK && znPathTrusted(path, nullptr) == OK;
}

} // namespace

std::size_t znc::base_path_text(char* path, std::size_t bufLen, std::uint32_t type)
{
    char* const end = path + bufLen;
    char* out = path + base_from_environment(path, bufLen);
    if (out == path)
        out = znc::copy_end(path, end, ZNC_STORE_BASE);
    if (type >= kAreas.size())
        return znc::fail(ENOTSUP, std::size_t{0});
    out = znc::copy_end(out, end, kAreas[type]);
    if (out == end)
        return znc::fail(ENAMETOOLONG, std::size_t{0});
    return static_cast<std::size_t>(out - path);
}

size_t zncBasePathGet(char* path, size_t bufLen, uint32_t type)
{
    const std::size_t len = znc::base_path_text(path, bufLen, type);
    return len != 0 && make_trusted(path) ? len : 0;
}

BOOL zncOvlFsAvailable(void)
{
    const znc::UniqueFd fd(open(ZN_OVERLAY_DIR, O_RDONLY | O_CLOEXEC));
    return fd ? TRUE : FALSE;
}

STATUS zncCreateOvlRootfsDev(const char* pDevName, const char** pDirsPath, uint32_t dirNum,
                             BOOL hasUpper)
{
    return znOvlDevCreate(pDevName, pDirsPath, dirNum, hasUpper);
}

STATUS zncRemoveOvlRootfsDev(const char* pDevName)
{
    return znOvlDevRemove(pDevName);
}
