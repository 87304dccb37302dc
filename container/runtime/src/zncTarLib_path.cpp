// zncTarLib_path.cpp - member names: made clean, and their parents proved.
#include "zncTarLib.hpp"

#include <algorithm>

namespace {

// Length of the component that starts at `path` (at its "/", or at the end).
std::size_t component_len(std::string_view path)
{
    return path.empty() ? 0 : std::min(path.find('/', 1), path.size());
}

// How much of `parents` the cache vouches for, in whole components.
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

// Open one more parent, whose text ends at `next`; `comp` is NUL-terminated there.
bool prove_component(MT_TAR_SOFT& ctrl, const char* comp, std::size_t next)
{
    const char* const name = comp + 1;
    // No composed path holds these; the file of directory times might, if someone wrote to it.
    if (std::strcmp(name, "..") == 0 || next >= kTarCacheSize) {
        errno = EPERM;
        return false;
    }
    if (*name != '\0' && !znc::tar_enter(ctrl, name)) // a doubled "/" names the same one again
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

// Copy a member path behind *ppOut, each component introduced by exactly one "/"; a trailing
// separator is kept as "/". ".." anywhere is EPERM. A result that fills the room is cut and has no
// NUL.
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
        if (comp == "..") {
            errno = EPERM;
            return ERROR;
        }
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

// Prove that every parent in `arPath` ("/a/b/member") is a real directory and make the last one the
// parent for what follows. Returns the member's "/", NULL on failure. Parents that the cache
// vouches for and that are still open cost no call.
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
