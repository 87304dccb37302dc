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

#include "zncContainerKeep.hpp"
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

// Removes the directories that a container left when its daemon died, its create failed or the
// machine was rebooted. Files written by containers are removed by library functions, which do not
// follow symbolic links and have no limit on depth; large trees are moved to the trash and deleted
// later. A directory that contains anything other than "upper" and "work" stays.
void remove_stale_container(const fs::path& dir)
{
    for (const char* own : {"upper", "work"}) {
        const fs::path path = dir / own;
        if (!is_real_directory(path) ||
            (!znc::is_small_tree(path.c_str()) && znc::trash_take(path.c_str()) == OK))
            continue;
        if (zncImageBundleDelete(path.c_str()) != OK)
            log(Level::kError, "cannot remove stale directory %s: error %d", path.c_str(), errno);
    }
    std::error_code error;
    fs::remove(dir, error);
}

bool is_registered(const std::string& id)
{
    std::array<char, 256> buffer{};
    CONTAINER_STATE state = {};
    if (id.size() >= buffer.size())
        return false;
    id.copy(buffer.data(), id.size());
    return zncContainerStateGet(buffer.data(), &state) == OK;
}

// Directories of containers that were taken over stay.
void remove_stale_containers()
{
    std::array<char, 1024> area{};
    if (zncBasePathGet(area.data(), area.size(), ZNC_CONTAINERS_PATH) == 0) {
        log(Level::kError, "cannot create the storage base: error %d", errno);
        return;
    }
    std::error_code error;
    for (fs::directory_iterator it(area.data(), error), end; !error && it != end;
         it.increment(error))
        if (is_real_directory(it->path()) && !is_registered(it->path().filename()))
            remove_stale_container(it->path());
}

void log_refused(const char* id, const char* reason)
{
    log(Level::kError, "container %s of the previous daemon cannot be taken over and is ended: %s",
        id[0] != '\0' ? id : "(unknown)", reason);
}

// Removes what is left of containers that are not registered.
void clean_up()
{
    if (const int left = znnsRecover(); left != 0)
        log(Level::kWarning,
            "%d namespaces of the previous daemon were killed but exist until clients reap their "
            "processes",
            left);
    if (znOvlInit() == FALSE)
        log(Level::kWarning,
            "no overlay file system: each bundle can be used by one container only");
    if (const int left = znOvlRestore(); left != 0)
        log(Level::kWarning, "%d overlay devices could not be restored", left);
    remove_stale_containers();
    znc::trash_empty();
}

void settle_trash()
{
    znc::trash_empty();
    if (!znc::trash_settled(kTrashMilliseconds))
        log(Level::kInfo, "the next daemon will delete the remaining files of deleted containers");
}

} // namespace

bool other_daemon_serves()
{
    // The lock file is not sufficient: it may have been removed while the daemon that holds it is
    // running.
    return znMsgQInUse(ZNC_MSG_Q_NAME) != FALSE;
}

void recover(const znKeepManager& manager)
{
    if (znMsgQUnlink(ZNC_MSG_Q_NAME) == OK)
        log(Level::kWarning, "the previous daemon died; cleaning up after it");
    if (znnsKeptEnd(&manager) != FALSE)
        log(Level::kWarning, "the containers that the previous daemon has kept are ended: this "
                             "daemon was started without --keep");
    clean_up();
}

bool recover_and_adopt(const znKeepManager& manager)
{
    if (znnsKeepOpen(&manager) != OK) {
        log_errno("containers cannot be kept");
        return false;
    }
    if (const int adopted = znc::adopt_containers(log_refused); adopted != 0)
        log(Level::kInfo, "containers taken over from the previous daemon: %d", adopted);
    znc::keep_containers();
    clean_up();
    return true;
}

bool delete_all_containers()
{
    bool all = true;
    znnsKillAll();
    std::array<char, 256> id{};
    while (zncContainerNext(id.data()) != FALSE)
        if (zncContainerDelete(id.data(), ZNC_OPT_WHOLE_NAMESPACE) != OK) {
            log(Level::kError, "cannot delete container %s: error 0x%x", id.data(),
                static_cast<unsigned>(errno));
            all = false;
        }
    // All processes are dead by now, but a namespace ends only when their parents, the clients that
    // started them, have reaped them.
    if (const int left = znnsShutdown(); left != 0)
        log(Level::kWarning,
            "%d namespaces still have processes that their clients have not reaped", left);
    // Devices left by failed creates.
    if (const int left = znOvlSweep(); left != 0)
        log(Level::kWarning, "%d overlay devices could not be detached", left);
    remove_stale_containers();
    settle_trash();
    return all;
}

void leave_containers()
{
    if (const int kept = znnsLeave(); kept != 0)
        log(Level::kInfo, "containers left running for the next daemon: %d", kept);
    settle_trash();
}

} // namespace zncd
