// wire.hpp - the protocol between the platform and its helper program. Both are always from the
// same build (the helper is embedded in the library), so records are sent as raw memory.
//
// Used by the namespace service, by znSpawn and by the helper. Only freestanding headers may be
// included: the helper has no C library.
#ifndef ZN_HELPER_WIRE_HPP
#define ZN_HELPER_WIRE_HPP

#include <cstddef>
#include <cstdint>

namespace zn::wire {

// The helper's parts, chosen by argv[0].
inline constexpr char kKeeperName[] = "zn-keeper";
inline constexpr char kSpawnerName[] = "zn-spawn";

// ---------------------------------------------------------------- keeper: one request, one answer

// The keeper's only descriptor: its end of the control socket (SOCK_SEQPACKET). End of file means
// that the owner of the namespace is gone; the keeper then exits, which kills all processes in its
// namespaces.
inline constexpr int kKeeperSocket = 0;

enum class Op : std::uint32_t {
    kBareMounts, // replace the host's tree by an empty one
    kRoot,       // descriptor: detached tree; text: host name
    kMountTree,  // descriptor: detached tree; text: destination
    kMountFs,    // text: destination, type, then options "key" or "key=value"
    kUnmount,    // text: destination; value: the mount id from the answer to kMount...
    kKill,       // value: host signal
    kInUse,      // answers 1 if another live process exists, else 0
    kEnd,        // like kInUse; kills the other processes if 1, exits after the answer if 0
};

inline constexpr std::size_t kTextMax = 12 * 1024;

struct Request {
    Op op;
    std::uint32_t isDirectory; // kMountTree: the mount point is to be a directory
    std::uint64_t value;
    std::uint64_t attributes; // kMountFs: MOUNT_ATTR_ bits
    std::uint32_t textLen;    // length of the NUL-terminated strings that follow
    std::uint32_t textCount;
};

struct Answer {
    std::int32_t error; // 0 or an error number
    std::int32_t reserved;
    std::uint64_t value;
};

// ---------------------------------------------------------------- spawner

// Descriptors: 0 to 2 are the program's standard streams; these two are closed before it runs.
inline constexpr int kSpawnerNamespace = 3; // pidfd of the namespace's keeper
inline constexpr int kSpawnerReport = 4;    // pipe to the caller
inline constexpr int kSpawnerFdEnd = 5;

// argv: name, nice value, stack size, working directory, program, then the program's argv.
inline constexpr int kSpawnerFixedArgs = 5;

// Written to the pipe before the spawner exits, which it does when the program runs or could not be
// started: the program's process id, and the error number if it failed.
struct SpawnReport {
    enum class Kind : std::int32_t { kPid, kError } kind;
    std::int32_t value;
};

} // namespace zn::wire

#endif
