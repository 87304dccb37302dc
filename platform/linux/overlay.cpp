// overlay.cpp - overlay devices: overlayfs mounts on the directories in /overlay. The layers of a
// read-only device are recorded (overlay_stack.hpp), so that it can be mounted again after a
// reboot.

#include "zarnel/overlay.h"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "base/file.hpp"
#include "base/not_copied.hpp"
#include "ns_keep.hpp"
#include "ns_record.hpp"
#include "overlay_device.hpp"
#include "overlay_layers.hpp"
#include "overlay_mapped.hpp"
#include "overlay_mount.hpp"
#include "overlay_stack.hpp"
#include "platform/common/clock.hpp"

#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/stat.h>
#include <optional>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr std::int64_t kLockTimeoutNs = 3 * kNsPerSec;
constexpr std::int64_t kShortLockTimeoutNs = kNsPerSec / 20; // used if the work can be done later

// The name below /overlay, or null with errno EINVAL if the path is not that of a device.
const char* device_name(const char* devName)
{
    constexpr std::size_t prefix = sizeof ZN_OVERLAY_DIR - 1;
    const bool below =
        devName != nullptr && std::strncmp(devName, ZN_OVERLAY_DIR "/", prefix + 1) == 0;
    const char* name = below ? devName + prefix + 1 : "";
    if (*name != '\0' && std::strchr(name, '/') == nullptr && std::strcmp(name, ".") != 0 &&
        std::strcmp(name, "..") != 0)
        return name;
    return znc::fail(EINVAL, nullptr);
}

// The directory of all devices, locked so that only one process at a time creates or removes
// devices. The wait for the lock is limited (EBUSY), because the process that holds it may be
// stopped.
class Devices : znc::NotCopied {
  public:
    explicit Devices(std::int64_t wait = kLockTimeoutNs)
        : dir_(::open(ZN_OVERLAY_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        const std::int64_t deadline = now_ns() + wait;
        while (dir_ && ::flock(dir_.get(), LOCK_EX | LOCK_NB) != 0) {
            if ((errno != EWOULDBLOCK && errno != EINTR) || now_ns() >= deadline) {
                if (errno == EWOULDBLOCK)
                    errno = EBUSY;
                dir_.reset();
                return;
            }
            const timespec pause = {0, 1000000};
            ::nanosleep(&pause, nullptr);
        }
    }
    // Unlock explicitly: a child that the process has forked in the meantime shares the open file
    // description, so closing alone would not release the lock.
    ~Devices()
    {
        const znc::ErrnoSaver keep;
        if (dir_)
            ::flock(dir_.get(), LOCK_UN);
    }

    explicit operator bool() const { return static_cast<bool>(dir_); }
    [[nodiscard]] int get() const { return dir_.get(); }

  private:
    UniqueFd dir_;
};

// A device by its path, while no other process changes devices.
class LockedDevice {
  public:
    explicit LockedDevice(const char* path) : name_(device_name(path))
    {
        if (name_ != nullptr)
            devices_.emplace();
    }
    // False with errno set: not the path of a device, or /overlay could not be locked.
    explicit operator bool() const { return devices_ && *devices_; }
    [[nodiscard]] const char* name() const { return name_; }
    [[nodiscard]] int directory() const { return devices_->get(); }

  private:
    const char* name_;
    std::optional<Devices> devices_;
};

enum class Node { kAbsent, kBare, kReadOnly, kWritable, kForeign };

// What exists at `name`. A device is a directory that is a mount point.
Node look(int devices, const char* name)
{
    struct statx st = {};
    if (::syscall(SYS_statx, devices, name, AT_SYMLINK_NOFOLLOW, STATX_TYPE, &st) != 0)
        return Node::kAbsent;
    if ((st.stx_mode & S_IFMT) != S_IFDIR)
        return Node::kForeign;
    if ((st.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0)
        return Node::kBare;
    const UniqueFd device(::openat(devices, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct statfs fs;
    if (!device || ::fstatfs(device.get(), &fs) != 0)
        return Node::kForeign;
    if ((fs.f_flags & ST_RDONLY) != 0)
        return Node::kReadOnly;
    return fs.f_type == OVERLAYFS_SUPER_MAGIC ? Node::kWritable : Node::kForeign;
}

// Removes the unmounted directory of a device with its record.
void remove_node(int devices, const char* name)
{
    const znc::ErrnoSaver keep;
    const UniqueFd node(::openat(devices, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (node)
        stack_remove(node.get());
    ::unlinkat(devices, name, AT_REMOVEDIR);
    layers_forget(name);
}

int detach(int devices, const char* name)
{
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "%s/%s", ZN_OVERLAY_DIR, name);
    if (::umount2(path, MNT_DETACH | UMOUNT_NOFOLLOW) != 0)
        return -1;
    remove_node(devices, name);
    return 0;
}

// If the kernel cannot prepare the work directory, for lack of space for example, it mounts an
// overlay read-only. The device would then be mistaken for a read-only one; it is detached.
int check_writable(int devices, const char* name)
{
    if (look(devices, name) == Node::kWritable)
        return 0;
    detach(devices, name);
    return znc::fail(EROFS);
}

UniqueFd open_node(int devices, const char* name)
{
    return UniqueFd(::openat(devices, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

int create_on(int devices, const char* name, const char* const* dirs, uint32_t count, bool hasUpper)
{
    if (::mkdirat(devices, name, 0755) != 0 && errno != EEXIST)
        return -1;
    const UniqueFd node = open_node(devices, name);
    const bool attached = node && (hasUpper || stack_write(node.get(), dirs, count)) &&
                          overlay_mount(node.get(), dirs, count, hasUpper) == 0;
    if (!attached)
        remove_node(devices, name);
    if (!attached)
        return -1;
    if (hasUpper && check_writable(devices, name) != 0)
        return -1;
    if (hasUpper)
        layers_note(name, dirs, count);
    return 0;
}

// A directory that occurs again is hidden by its first occurrence.
bool append_path(List<znc::MallocPtr<char[]>>& list, const char* path)
{
    for (const auto& other : list)
        if (std::strcmp(other.get(), path) == 0)
            return true;
    auto copy = znc::copy_text(path);
    return copy != nullptr && list.append(std::move(copy)) != nullptr;
}

// Appends a lower layer; of a device, whose overlay cannot be id-mapped, the layers.
bool append_lower(int devices, const char* dir, OverlayLayers& layers)
{
    const char* name = device_name(dir);
    if (name == nullptr || look(devices, name) != Node::kReadOnly)
        return append_path(layers.lower, dir);
    const UniqueFd node = stack_node(devices, name);
    const StackText stack = node ? stack_read(node.get()) : StackText();
    if (!stack.text)
        return false;
    for (const char* layer = stack.first(); layer != nullptr; layer = stack.next(layer))
        if (!append_path(layers.lower, layer))
            return false;
    return true;
}

int map_device(int devices, const char* name, const UserNamespace& user)
{
    OverlayLayers layers;
    const char* dir = layers_noted(name, nullptr);
    if (dir == nullptr)
        return znc::fail(ENOENT);
    layers.upper = znc::copy_text(dir);
    while ((dir = layers_noted(name, dir)) != nullptr)
        if (!append_lower(devices, dir, layers))
            return -1;
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "%s/%s", ZN_OVERLAY_DIR, name);
    // An upper directory can be used by one mount only.
    if (!layers.upper || ::umount2(path, MNT_DETACH | UMOUNT_NOFOLLOW) != 0)
        return -1;
    const UniqueFd node = open_node(devices, name);
    const int error = node ? overlay_mount_mapped(node.get(), layers, user) : errno;
    if (error != 0) {
        remove_node(devices, name);
        return znc::fail(error);
    }
    return check_writable(devices, name);
}

bool all_exist(const char* const* dirs, uint32_t count)
{
    struct stat st;
    for (uint32_t i = 0; i < count; i++)
        if (::stat(dirs[i], &st) != 0 || !S_ISDIR(st.st_mode))
            return false;
    return true;
}

// Mounts a recorded device again. On failure its directory stays for the next attempt. The
// directory is removed if it has no record (a container's device from before a reboot) or if layers
// are missing.
int restore_stack(int devices, const char* name)
{
    const UniqueFd node = open_node(devices, name);
    const StackText stack = node ? stack_read(node.get()) : StackText();
    if (!stack.text && errno != ENOENT)
        return -1;
    uint32_t count = 0;
    for (const char* dir = stack.first(); dir != nullptr; dir = stack.next(dir))
        count++;
    const auto dirs = znc::malloc_array<const char*>(count);
    if (!dirs)
        return -1;
    uint32_t filled = 0;
    for (const char* dir = stack.first(); dir != nullptr; dir = stack.next(dir))
        dirs[filled++] = dir;
    if (count > 0 && all_exist(dirs.get(), count))
        return overlay_mount(node.get(), dirs.get(), count, false);
    remove_node(devices, name);
    return 0;
}

// Whether it is the root of a namespace that this process has taken over.
bool is_adopted(const char* name)
{
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "%s/%s", ZN_OVERLAY_DIR, name);
    return namespace_rooted_on(path);
}

int restore_one(int devices, const char* name)
{
    switch (look(devices, name)) {
    case Node::kWritable:
        return is_adopted(name) ? 0 : detach(devices, name);
    case Node::kBare:
        return restore_stack(devices, name);
    case Node::kAbsent:
    case Node::kReadOnly:
    case Node::kForeign:
        break;
    }
    return 0;
}

// Makes sure that a device can be created at `name`; detaches an abandoned writable device there.
// Fails with EEXIST.
int make_room(int devices, const char* devName, const char* name)
{
    const Node node = look(devices, name);
    if (node == Node::kAbsent || node == Node::kBare)
        return 0;
    if (node == Node::kWritable && !ns_record_rooted_on(devName))
        return detach(devices, name);
    return znc::fail(EEXIST);
}

bool is_abandoned(int devices, const char* devName, const char* name)
{
    return look(devices, name) == Node::kWritable && !ns_record_rooted_on(devName);
}

// Calls `visit(devices, name)` for every entry of the directory of all devices, if there is one.
// Returns the number of failures; not being able to list the directory counts as one.
int each_device(int (*visit)(int devices, const char* name))
{
    const Devices devices;
    if (!devices)
        return errno == ENOENT ? 0 : 1;
    const znc::UniqueDir dir = znc::directory_listing(devices.get());
    int failed = 0;
    while (const dirent* entry = dir ? znc::next_entry(dir.get()) : nullptr)
        failed += visit(devices.get(), entry->d_name) != 0 ? 1 : 0;
    return errno == 0 ? failed : failed + 1;
}

int sweep_one(int devices, const char* name)
{
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "%s/%s", ZN_OVERLAY_DIR, name);
    return is_abandoned(devices, path, name) ? detach(devices, name) : 0;
}

} // namespace

int overlay_device_detach(const char* devName, Detach which)
{
    const char* name = device_name(devName);
    if (name == nullptr)
        return 0;
    const Devices devices(which == Detach::kOwn ? kShortLockTimeoutNs : 0);
    if (!devices)
        return errno == ENOENT ? 0 : -1;
    errno = 0;
    const Node node = look(devices.get(), name);
    if (node == Node::kForeign && (errno == EMFILE || errno == ENFILE))
        return -1; // it could not be examined
    const bool shouldDetach =
        node == Node::kWritable && (which == Detach::kOwn || !ns_record_rooted_on(devName));
    return shouldDetach ? detach(devices.get(), name) : 0;
}

int overlay_device_map(const char* devName, const UserNamespace& user)
{
    const LockedDevice device(devName);
    return device ? map_device(device.directory(), device.name(), user) : -1;
}

} // namespace zn

using namespace zn;

STATUS znOvlDevCreate(const char* devName, const char* const* dirs, uint32_t dirNum, BOOL hasUpper)
{
    const char* name = device_name(devName);
    if (name == nullptr || dirs == nullptr || dirNum < (hasUpper ? 2U : 1U))
        return znc::fail(EINVAL);
    const Devices devices;
    if (!devices || make_room(devices.get(), devName, name) != 0)
        return ERROR;
    return create_on(devices.get(), name, dirs, dirNum, hasUpper != FALSE) == 0 ? OK : ERROR;
}

STATUS znOvlDevRemove(const char* devName)
{
    const LockedDevice device(devName);
    if (!device)
        return ERROR;
    const Node node = look(device.directory(), device.name());
    if (node != Node::kReadOnly && node != Node::kWritable)
        return znc::fail(node == Node::kAbsent ? ENOENT : EINVAL);
    return detach(device.directory(), device.name()) == 0 ? OK : ERROR;
}

uint32_t znOvlDirsMax(void)
{
    return 500; // OVL_MAX_STACK in the kernel, which user space cannot query
}

STATUS znOvlDevDirs(const char* devName, BOOL (*visit)(void* context, const char* dir),
                    void* context)
{
    const LockedDevice device(devName);
    if (!device)
        return ERROR;
    if (look(device.directory(), device.name()) != Node::kReadOnly)
        return znc::fail(ENOENT);
    const UniqueFd node = stack_node(device.directory(), device.name());
    const StackText stack = node ? stack_read(node.get()) : StackText();
    if (!stack.text)
        return ERROR;
    for (const char* dir = stack.first(); dir != nullptr; dir = stack.next(dir))
        if (visit(context, dir) == FALSE)
            break;
    return OK;
}

BOOL znOvlInit(void)
{
    const znc::ErrnoSaver keep;
    struct stat st;
    // The files of containers must be accessible to root only. An existing directory may have had
    // another mode.
    if (overlay_supported() && ::mkdir(ZN_OVERLAY_DIR, 0700) != 0 && errno == EEXIST) {
        const UniqueFd devices(
            ::open(ZN_OVERLAY_DIR, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (devices && ::fstat(devices.get(), &st) == 0 && st.st_uid == ::geteuid())
            ::fchmod(devices.get(), 0700);
    }
    return ::stat(ZN_OVERLAY_DIR, &st) == 0 && S_ISDIR(st.st_mode) ? TRUE : FALSE;
}

int znOvlRestore(void)
{
    return each_device(restore_one);
}

int znOvlSweep(void)
{
    return each_device(sweep_one);
}

BOOL znOvlDevInUse(const char* devName)
{
    const znc::ErrnoSaver keep;
    return device_name(devName) != nullptr && ns_record_rooted_on(devName) ? TRUE : FALSE;
}
