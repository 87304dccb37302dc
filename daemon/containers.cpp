#include "containers.hpp"

#include "log.hpp"

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>

#include "base/owned.hpp"
#include "zarnel/msgq.h"
#include "zarnel/ns.h"
#include "zarnel/overlay.h"

#include "zncTrash.hpp"
#include "zncprotocol.h"

namespace zncd {
namespace {

namespace fs = std::filesystem;

constexpr int kTrashMilliseconds = 500;

bool is_real_directory(const fs::path& path)
{
    std::error_code error;
    return fs::symlink_status(path, error).type() == fs::file_type::directory;
}

// The directories of one container that a dead daemon, a failed create or a reboot left. What a
// container wrote is deleted the library's way, which follows no link and minds no depth, and later
// if it takes long. Anything that is not the daemon's own stays, and then so does the container's
// directory.
void remove_stale_container(const fs::path& dir)
{
    for (const char* own : {"upper", "work"}) {
        const fs::path path = dir / own;
        if (!is_real_directory(path) ||
            (!znc::is_small_tree(path.c_str()) && znc::trash_take(path.c_str()) == OK))
            continue;
        if (zncImageBundleDelete(path.c_str()) != OK)
            log(Level::kError, "stale directory %s cannot be removed: error %d", path.c_str(),
                errno);
    }
    std::error_code error;
    fs::remove(dir, error);
}

void remove_stale_containers()
{
    std::array<char, 1024> area{};
    if (zncBasePathGet(area.data(), area.size(), ZNC_CONTAINERS_PATH) == 0) {
        log(Level::kError, "the storage base cannot be made: error %d", errno);
        return;
    }
    std::error_code error;
    for (fs::directory_iterator it(area.data(), error), end; !error && it != end;
         it.increment(error))
        if (is_real_directory(it->path()))
            remove_stale_container(it->path());
}

} // namespace

bool served_elsewhere()
{
    // The lock file is not enough: it may have been deleted while its daemon is still running.
    return znMsgQInUse(ZNC_MSG_Q_NAME) != FALSE;
}

void recover()
{
    if (znMsgQUnlink(ZNC_MSG_Q_NAME) == OK)
        log(Level::kWarning, "the daemon before this one died; clearing what it left");
    if (const int left = znnsRecover(); left != 0)
        log(Level::kWarning,
            "%d namespaces of a dead daemon were killed and wait for clients to reap their "
            "programs",
            left);
    if (znOvlInit() == FALSE)
        log(Level::kWarning, "no overlay filesystem; a bundle serves one container");
    if (const int left = znOvlRestore(); left != 0)
        log(Level::kWarning, "%d overlay devices cannot be restored", left);
    remove_stale_containers();
    znc::trash_empty();
}

bool end_all()
{
    bool all = true;
    znnsKillAll();
    std::array<char, 256> id{};
    while (zncContainerNext(id.data()) != FALSE)
        if (zncContainerDelete(id.data(), ZNC_OPT_WHOLE_NAMESPACE) != OK) {
            log(Level::kError, "container %s cannot be deleted: error 0x%x", id.data(),
                static_cast<unsigned>(errno));
            all = false;
        }
    // Everything in them is killed by now, but a namespace goes only when the parents of its
    // processes, the clients that started them, have waited for them.
    if (const int left = znnsShutdown(); left != 0)
        log(Level::kWarning, "%d namespaces hold processes nobody has waited for", left);
    // What creates that failed left.
    if (const int left = znOvlSweep(); left != 0)
        log(Level::kWarning, "%d overlay devices cannot be detached", left);
    remove_stale_containers();
    znc::trash_empty();
    if (!znc::trash_settled(kTrashMilliseconds))
        log(Level::kInfo, "the next daemon deletes the rest of what containers wrote");
    return all;
}

} // namespace zncd
