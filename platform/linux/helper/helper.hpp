// helper.hpp - the parts of the helper program.
//
// The helper is one small static program without a C library, embedded in the platform and run
// from sealed memory. It is what stands between the host and a container: as "zn-keeper" it is PID
// 1 of a namespace, as "zn-spawn" it carries a program into one. Nothing of the host's memory is in
// it, its own file cannot be written, and it loads nothing from a container's tree.
//
// Left out: every decision about what to mount or run; the platform makes those.
#ifndef ZN_HELPER_HPP
#define ZN_HELPER_HPP

#include <cstddef>
#include <cstdint>

namespace zn {

// File types in a mode; the kernel's header leaves them to the C library.
inline constexpr unsigned kTypeMask = 0170000;
inline constexpr unsigned kDirectory = 0040000;
inline constexpr unsigned kLink = 0120000;
inline constexpr unsigned kCharDevice = 0020000;

inline bool text_equal(const char* a, const char* b)
{
    while (*a != '\0' && *a == *b) {
        a++;
        b++;
    }
    return *a == *b;
}

// The keeper's loop (keeper.cpp) and the spawner (spawner.cpp).
[[noreturn]] void keeper_run();
[[noreturn]] void spawner_run(char** argv, char** envp);

// All of these return 0 or an error number.

// Keep the calling process, and what it runs, from the system calls that no container process may
// make; it must have given up gaining privileges (filter.cpp).
int filter_calls();

// What the calling process has from the client is set to what every program begins with
// (inherited.cpp): scheduling and memory before the program's process is made, the processors that
// it may run on when it is in its namespaces.
int reset_scheduling();
int reset_memory();
int reset_processors();

// In the namespaces: the host's null device as a stream would let the program change its mode and
// owner. Streams that are the null device become that of the container's /dev, or one of their own
// where there is none (inherited.cpp).
int replace_null_streams();

// Leave the tree of the host for one of an empty "/proc", to be copied for other keepers
// (keeper_root.cpp).
int root_leave();

// Make the detached tree the root of this mount namespace and provide /proc, /dev and /sys in it
// (keeper_root.cpp).
int root_enter(int tree, const char* hostName);

// An O_PATH descriptor of `path` as the container sees it, or a negative error number: no ".." and
// no link leads above the root, and magic links are refused (keeper_mount.cpp).
long open_inside(const char* path, std::uint64_t flags);

// An O_PATH descriptor of a mount point inside the root, made if it is missing: a directory or an
// empty file. Or a negative error number (keeper_point.cpp).
long mount_point(const char* destination, bool isDirectory);

// Attach a detached mount at `destination` inside the root, making the mount point if it is
// missing; `mountId` tells it apart later (keeper_mount.cpp).
int mount_attach(int mount, const char* destination, bool isDirectory, std::uint64_t* mountId);

// A new filesystem of the given type; options are "key" or "key=value". A proc or sysfs gets the
// same masks as the one of root_enter.
int mount_filesystem(const char* destination, const char* type, std::uint64_t attributes,
                     const char* options, unsigned optionCount, std::uint64_t* mountId);

// Undo a mount, if it is still what stands at `destination`.
int mount_detach(const char* destination, std::uint64_t mountId);

// Undo the attached mount that `mount` is the root of, with everything mounted in it.
int mount_detach_whole(int mount);

// A new filesystem, not attached anywhere: its mount descriptor, or a negative error number.
long filesystem_create(const char* type, std::uint64_t attributes, const char* options,
                       unsigned optionCount);

} // namespace zn

#endif
