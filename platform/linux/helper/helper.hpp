// helper.hpp - the parts of the helper program.
//
// The helper is a small static program without a C library, embedded in the platform and executed
// from a sealed memfd. It separates the host from a container: as "zn-keeper" it is PID 1 of a
// namespace, as "zn-spawn" it starts a program in one, as "zn-holder" it keeps a user namespace
// open, as "zn-store" the sockets of keepers, as "zn-starter" it starts keepers ahead ("zn-spare");
// as "zn-init" and "zn-exec" it becomes the programs of engines' containers, and as "zn-make" it
// makes the root of one with a user namespace. It shares no memory with the process that starts it,
// its file cannot be modified, and it loads nothing from a container's tree.
//
// It does not decide what to mount or run; the platform does.
#ifndef ZN_HELPER_HPP
#define ZN_HELPER_HPP

#include "sys.hpp"
#include "wire.hpp"

#include <cstdint>

namespace zn {

// File types in a mode, which the kernel headers do not define.
inline constexpr unsigned kTypeMask = 0170000;
inline constexpr unsigned kDirectory = 0040000;
inline constexpr unsigned kLink = 0120000;
inline constexpr unsigned kRegular = 0100000;
inline constexpr unsigned kCharDevice = 0020000;

inline bool text_equal(const char* a, const char* b)
{
    while (*a != '\0' && *a == *b) {
        a++;
        b++;
    }
    return *a == *b;
}

// The keeper (keeper.cpp), the spawner (spawner.cpp), the holder (holder.cpp), the store
// (store.cpp) and the process that starts spare keepers (starter.cpp).
[[noreturn]] void keeper_run();
[[noreturn]] void keeper_run_spare();
[[noreturn]] void starter_run();
[[noreturn]] void spawner_run(char** argv, char** envp);
[[noreturn]] void holder_run();
[[noreturn]] void store_run();

// The processes of an engine's container (init.cpp): the first one, one that joins it, and one that
// makes its root with the rights of the host.
[[noreturn]] void init_run(char** argv, char** envp);
[[noreturn]] void entrant_run(char** argv, char** envp);
[[noreturn]] void maker_run(char** argv, char** envp);

// Unless stated otherwise, these functions return 0 or an error number.

// Reset what the process inherited from the client to defaults (inherited.cpp): scheduling and
// memory before the process of the program is created, the CPU affinity after joining the
// namespaces.
int reset_scheduling();
int reset_memory();
int reset_processors();

// To be called after joining the namespaces. Through the host's null device as a standard stream,
// the program could change that device's mode and owner. Replaces such streams by the null device
// in the container's /dev, or by one in a detached file system if the container has none
// (inherited.cpp).
int replace_null_streams();

// Replaces the host's tree by one that contains only the empty directories "/proc", "/dev", "/sys"
// and "/covers", to be copied for other keepers (keeper_root.cpp).
int root_leave();

// In such a tree: mounts what root_enter mounts for the usual settings, which it then moves into
// the root (keeper_root.cpp).
int root_prepare();

// A process that joins a mount namespace gets the root of its topmost mount as "/". This process
// has another root if its owner is in a chroot, and then gets that root, too (keeper_root.cpp).
int chroot_leave();

// Makes the detached tree the root of this mount namespace and nothing else (keeper_root.cpp).
int root_pivot(int tree);

// Attaches the detached tree at the host path `place` and makes it the root of this process alone.
// The host's root, which stays that of the mount namespace, is kept in `host` until root_switch
// makes the tree the root of the namespace and detaches the host's (keeper_root.cpp).
int root_place(int tree, const char* place, sys::Fd& host);
int root_switch(sys::Fd& host);

// Makes the detached tree the root of this mount namespace and mounts /proc, /dev and /sys in it,
// `masked` or not (keeper_root.cpp). An empty host name leaves that of the UTS namespace. Terminals
// belong to the group `ttyGroup`. `isSpare`: root_prepare has been called.
int root_enter(int tree, const char* hostName, bool masked, std::uint32_t ttyGroup, bool isSpare);

// Brings up the loopback interface of the network namespace if it is not up (network.cpp).
int loopback_up();

// What a configuration changes in the namespaces (keeper_settings.cpp). A path to be hidden or made
// read-only that does not exist is no error. Devices can be created below /dev only.
int namespace_join(int descriptor, std::uint64_t types);
int owner_set(std::uint32_t uid, std::uint32_t gid);
int device_make(const char* path, const wire::Node& node);
int node_create(int directory, const char* name, const wire::Node& node);
int node_make(int directory, const char* name, const wire::Node& node); // replaces a file
int parameter_set(const char* path, const char* value);
int path_hide(const char* path);
int path_read_only(const char* path);
// Makes the mount at a mount point read-only. 0 or an errno value.
int mount_read_only(const char* path);

// Returns an O_PATH descriptor of `path` as resolved inside the root, or a negative error number.
// ".." and symbolic links do not lead above the root, and magic links are refused
// (keeper_mount.cpp). The root is the working directory, which is "/" unless it was changed, or the
// directory `root`.
long open_inside(const char* path, std::uint64_t flags);
long open_inside_at(int root, const char* path, std::uint64_t flags);

// Returns an O_PATH descriptor of a mount point inside the root, created if it is missing as a
// directory or an empty file, or a negative error number (keeper_point.cpp).
long mount_point(const char* destination, bool isDirectory);

// Attaches a detached mount at `destination` inside the root, creating the mount point if it is
// missing. `mountId` identifies the mount for mount_detach (keeper_mount.cpp).
int mount_attach(int mount, const char* destination, bool isDirectory, std::uint64_t* mountId);

// Mounts a new file system of the given type; options are "key" or "key=value". A proc or sysfs is
// masked as in root_enter.
int mount_filesystem(const char* destination, const char* type, std::uint64_t attributes,
                     const char* options, unsigned optionCount, std::uint64_t* mountId);

// Unmounts `destination` if the mount `mountId` is still there.
int mount_detach(const char* destination, std::uint64_t mountId);

// Unmounts the attached mount whose root is `mount`, with all mounts inside it.
int mount_detach_whole(int mount);

// Creates a detached mount of a new file system. Returns its descriptor, or a negative error
// number.
long filesystem_create(const char* type, std::uint64_t attributes, const char* options,
                       unsigned optionCount);

} // namespace zn

#endif
