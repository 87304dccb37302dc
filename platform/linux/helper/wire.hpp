// wire.hpp - what the platform and its helper program say to each other. Both are always of the
// same build (the helper is embedded in the library), so records travel as raw memory.
//
// Used by the namespace service and the spawner on one side, the helper on the other. Only
// freestanding headers here: the helper has no C library.
#ifndef ZN_HELPER_WIRE_HPP
#define ZN_HELPER_WIRE_HPP

#include <cstddef>
#include <cstdint>

namespace zn::wire {

// The helper's parts, chosen by argv[0].
inline constexpr char kKeeperName[] = "zn-keeper";
inline constexpr char kSpawnerName[] = "zn-spawn";

// ---------------------------------------------------------------- keeper: one request, one answer

// The keeper's only descriptor: its end of the control socket (SOCK_SEQPACKET). End of file there
// means that the owner of the namespace is gone, and the keeper goes with everything in it.
inline constexpr int kKeeperSocket = 0;

enum class Op : std::uint32_t {
    kBareMounts, // leave the host's tree for one that holds nothing
    kRoot,       // descriptor: detached tree; text: host name
    kMountTree,  // descriptor: detached tree; text: destination
    kMountFs,    // text: destination, type, then options "key" or "key=value"
    kUnmount,    // text: destination; value: the mount id that kMount... answered
    kKill,       // value: host signal
    kInUse,      // answers 1 if a living process is there besides the keeper, else 0
    kEnd,        // like kInUse, but 1 comes after killing them, and after 0 the keeper ends
};

inline constexpr std::size_t kTextMax = 12 * 1024;

struct Request {
    Op op;
    std::uint32_t isDirectory; // kMountTree: what kind of mount point the tree wants
    std::uint64_t value;
    std::uint64_t attributes; // kMountFs: MOUNT_ATTR_ bits
    std::uint32_t textLen;    // strings follow, each with its NUL
    std::uint32_t textCount;
};

struct Answer {
    std::int32_t error; // 0 or an error number
    std::int32_t reserved;
    std::uint64_t value;
};

// ---------------------------------------------------------------- spawner

// Descriptors: 0 to 2 are the program's streams; these two are closed before it runs.
inline constexpr int kSpawnerNamespace = 3; // pidfd of the namespace's keeper
inline constexpr int kSpawnerReport = 4;    // pipe to the caller
inline constexpr int kSpawnerFdEnd = 5;

// argv: name, nice value, stack size, working directory, program, then the program's argv.
inline constexpr int kSpawnerFixedArgs = 5;

// Written to the pipe before the spawner ends, which it does when the program runs or could not be
// started: the program's process id, and the error number.
struct SpawnReport {
    enum class Kind : std::int32_t { kPid, kError } kind;
    std::int32_t value;
};

} // namespace zn::wire

#endif
