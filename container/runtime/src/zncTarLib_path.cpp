// zncTarLib_path.cpp - normalizes member names and opens the parent directories of members.
#include "zncTarLib.hpp"

#include "base/failure.hpp"

#include <algorithm>

namespace {

// Length of the component that starts at `path`, which points to a "/" or to the final NUL.
std::size_t component_len(std::string_view path)
{
    return path.empty() ? 0 : std::min(path.find('/', 1), path.size());
}

// The length of the common prefix of `parents` and the cache, in whole components.
std::size_t cached_len(std::string_view parents, std::string_view cache)
{
    std::size_t at = 0;
    while (at < parents.size()) {
        const std::string_view comp = parents.substr(at, component_len(parents.substr(at)));
        const std::size_t next = at + comp.size();
        if (cache.substr(at, comp.size()) != comp || (next < cache.size() && cache[next] != '/'))
            break;
        at = next;
    }
    return at;
}

// Opens the next parent, `comp`, which ends at `next`; it is NUL-terminated there.
bool prove_component(MT_TAR_SOFT& ctrl, const char* comp, std::size_t next)
{
    const char* const name = comp + 1;
    // Composed paths never contain these, but the file of directory times could, if another process
    // wrote to it.
    if (std::strcmp(name, "..") == 0 || next >= kTarCacheSize)
        return znc::fail(EPERM, false);
    if (*name != '\0' &&
        !znc::tar_enter(ctrl, name)) // an empty component ("//") is the same directory
        return false;
    char* const cache = ctrl.goodPathCache.get();
    if (std::strncmp(cache + ctrl.parentLen, comp, next - ctrl.parentLen) != 0 ||
        (cache[next] != '\0' && cache[next] != '/')) {
        std::memcpy(cache + ctrl.parentLen, comp, next - ctrl.parentLen);
        cache[next] = '\0';
    }
    ctrl.parentLen = next;
    return true;
}

} // namespace

// Appends a member path at *ppOut, with exactly one "/" before each component; a trailing separator
// is kept as "/". A ".." component fails with EPERM. A result that does not fit is truncated and
// has no NUL.
STATUS tarCopyCondense(char** ppOut, std::size_t room, const char* in, std::size_t inLen)
{
    char* out = *ppOut;
    char* const outEnd = out + room;
    const char* const inEnd = in + inLen;
    const bool endsWithSep = inLen != 0 && pathIsSep(inEnd[-1]);
    while (out < outEnd) {
        while (in < inEnd && pathIsSep(*in))
            ++in;
        if (in == inEnd)
            break;
        const char* const compEnd = std::find_if(in, inEnd, pathIsSep);
        const std::string_view comp(in, static_cast<std::size_t>(compEnd - in));
        if (comp == "..")
            return znc::fail(EPERM);
        if (comp == ".") {
            in = compEnd;
            continue;
        }
        *out++ = '/';
        const std::size_t n = std::min(comp.size(), static_cast<std::size_t>(outEnd - out));
        out = std::copy_n(in, n, out);
        in = compEnd;
    }
    if (endsWithSep && out < outEnd)
        *out++ = '/';
    if (out < outEnd)
        *out = '\0';
    *ppOut = out;
    return OK;
}

// Verifies that every parent in `arPath` ("/a/b/member") is a directory and not a link, and makes
// the last one the current parent. Returns the "/" before the member's name, NULL on failure.
// Parents in the cache whose descriptor is still open need no system call.
char* mtAccess(MT_TAR_SOFT* pCtrl, char* arPath)
{
    char* const last = std::strrchr(arPath, '/');
    const std::string_view parents(arPath, static_cast<std::size_t>(last - arPath));
    const std::size_t cached = cached_len(parents, pCtrl->goodPathCache.get());
    if (pCtrl->parentLen > cached) {
        znc::tar_leave(*pCtrl);
    }
    while (pCtrl->parentLen < parents.size()) {
        const std::size_t at = pCtrl->parentLen;
        const std::size_t next = at + component_len(parents.substr(at));
        char* const compEnd = arPath + next;
        *compEnd = '\0';
        const bool proved = prove_component(*pCtrl, arPath + at, next);
        *compEnd = '/';
        if (!proved)
            return nullptr;
    }
    return last;
}

int znc::tar_parent(const MT_TAR_SOFT& ctrl) noexcept
{
    return ctrl.parentFd ? ctrl.parentFd.get() : ctrl.targetFd.get();
}

const char* znc::tar_member_name(const char* last) noexcept
{
    return last[1] != '\0' ? last + 1 : ".";
}
