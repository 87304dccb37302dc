// wire.hpp - the protocol between the platform and its helper program. Both are usually from the
// same build (the helper is embedded in the library), so records are sent as raw memory. Only the
// keepers of namespaces that outlived their owner (zarnel/ns_keep.h) may be from another one.
//
// Used by the namespace service, znSpawn, the containers of engines, and the helper. Only
// freestanding headers may be included: the helper has no C library.
#ifndef ZN_HELPER_WIRE_HPP
#define ZN_HELPER_WIRE_HPP

#include <cstddef>
#include <cstdint>

namespace zn::wire {

// To be increased with every change of what is sent to keepers and the store, and of Confinement:
// namespaces of another number are not adopted.
inline constexpr unsigned kKeeperProtocol = 2;

// The helper's parts, chosen by argv[0].
inline constexpr char kKeeperName[] = "zn-keeper";
inline constexpr char kSpawnerName[] = "zn-spawn";
inline constexpr char kHolderName[] = "zn-holder";
inline constexpr char kStoreName[] = "zn-store";
inline constexpr char kStarterName[] = "zn-starter";
inline constexpr char kSpareName[] = "zn-spare"; // a keeper before its first request
inline constexpr char kInitName[] = "zn-init";
inline constexpr char kEntrantName[] = "zn-exec";
inline constexpr char kMakerName[] = "zn-make";

// ---------------------------------------------------------------- keeper: one request, one answer

// The keeper's only descriptor: its end of the control socket (SOCK_SEQPACKET). End of file means
// that the owner of the namespace is gone; the keeper then exits, which kills all processes in its
// namespaces.
inline constexpr int kKeeperSocket = 0;

enum class Op : std::uint32_t {
    kBareMounts, // replace the host's tree by an empty one
    kJoin,       // descriptor: namespaces to enter, or a pidfd of a process in them; value: their
                 // CLONE_NEW flags
    kOwner,      // node: the owner of all files and file systems that are created from now on
    kRoot,       // descriptor: detached tree; text: host name, "" leaves it; value:
                 // kRootUnmasked or 0; attributes: the group of terminals
    kMountTree,  // descriptor: detached tree; text: destination
    kMountFs,    // text: destination, type, then options "key" or "key=value"
    kUnmount,    // text: destination; value: the mount id from the answer to kMount...
    kDevice,     // text: path in /dev; node: the device; for an engine's container, descriptor, if
                 // any: a detached mount of the node
    kSysctl,     // text: path below /proc/sys, value
    kHide,       // text: path to be covered
    kReadOnly,   // text: path to be made read-only, "/" for the root itself; value, for an engine's
                 // container: kReadOnlyMount or 0
    kKill,       // value: host signal
    kInUse, // answers 1 if another live process exists, else 0; with the pidfd of one if one of
            // the lowest process ids of the namespace is alive
    kEnd,   // if no other process is alive, answers 0 and exits; otherwise, or if that cannot
            // be determined, kills the others and answers 1 or the error

    // Only zn-init and zn-make serve these. They also serve kOwner, kMountTree, kMountFs, kDevice,
    // kSysctl, and kHide and kReadOnly with any number of paths in a request.
    kPivot,     // descriptor: detached tree; text: host name, domain name, place; value: MS_ bits.
                // A place is a host path: the tree is attached there, and becomes the root of the
                // mount namespace by kSwitch only
    kSwitch,    // value: MS_ bits
    kLink,      // text: path, target: a symbolic link to be created unless the path exists
    kOwnMounts, // makes the mount namespace one of the user namespace; value, attributes: inode and
                // device that the root must have
    kTerminal,  // descriptor: socket that gets the terminal; value: rows << 16 | columns
    kFind,      // makes the working directory and looks the program up
    kWait,      // ends the requests: waits for the start

    // Only for the store.
    kStore, // descriptor: to be held open; answers its number
    kDrop,  // value: the number of a descriptor to be closed

    // Only for zn-init and zn-make. New ones are added at the end, so that the numbers of those for
    // keepers and the store, which other versions of the daemon use, do not change.
    kSettle, // answers the error of the first posted request that failed; value: its number
};
static_assert(static_cast<std::uint32_t>(Op::kEnd) == 13 &&
              static_cast<std::uint32_t>(Op::kDrop) == 22);

inline constexpr std::size_t kTextMax = 12 * 1024;

// kRoot: whether the parts of procfs and sysfs that are hidden by default stay visible.
inline constexpr std::uint64_t kRootUnmasked = 1;

// kReadOnly: the path is a mount point, and the mounts below it stay as they are.
inline constexpr std::uint64_t kReadOnlyMount = 1;

// A device node or FIFO to be created.
struct Node {
    std::uint32_t mode; // with the type
    std::uint32_t major;
    std::uint32_t minor;
    std::uint32_t uid;
    std::uint32_t gid;
};

struct Request {
    Op op;
    std::uint32_t isDirectory; // kMountTree: the mount point is to be a directory
    std::uint64_t value;
    std::uint64_t attributes; // kMountFs: MOUNT_ATTR_ bits; kRoot, kOwnMounts: see there
    std::uint32_t textLen;    // length of the NUL-terminated strings that follow
    std::uint32_t textCount;
    Node node;
    std::uint32_t serial; // a new one for each request
    // Not 0: it is not answered, kSettle is answered for all of these. It is not carried out after
    // one of them has failed. Only for an engine's container.
    std::uint32_t posted;
};

struct Answer {
    std::int32_t error;   // 0 or an error number
    std::uint32_t serial; // of the request
    std::uint64_t value;
};

// ---------------------------------------------------------------- holder

// The holder's only descriptor: a socket. A byte says that the mappings of its user namespace were
// written, and is answered by a byte. It exits at the end of file.
inline constexpr int kHolderSocket = 0;

// ---------------------------------------------------------------- store

// Holds descriptors open. kStoreSocket is its end of the control socket. The first descriptor that
// it is given is the other end of that socket, which becomes kStoreOwner; from then on it does not
// end when its owner does, and the next owner copies that end (pidfd_getfd).
inline constexpr int kStoreSocket = 0;
inline constexpr int kStoreOwner = 1;

// ---------------------------------------------------------------- starter

// The starter's only descriptor: a socket (SOCK_SEQPACKET). Each byte asks for a spare keeper, and
// is answered by a SpareAnswer with the other end of the keeper's socket. The keeper sends one
// Answer when it is ready for requests, and exits if it cannot be. The starter exits at the end of
// file.
inline constexpr int kStarterSocket = 0;

struct SpareAnswer {
    std::int32_t error; // 0, or an error number: there is no descriptor
    std::int32_t pid;
};

// Those of containers with the usual settings: CLONE_NEWNS, CLONE_NEWCGROUP, CLONE_NEWUTS,
// CLONE_NEWIPC, CLONE_NEWPID, CLONE_NEWNET.
inline constexpr unsigned long kSpareNamespaces =
    0x00020000 | 0x02000000 | 0x04000000 | 0x08000000 | 0x20000000 | 0x40000000;
inline constexpr std::uint32_t kSpareTerminalGroup = 5; // of the terminals that a spare provides

// ---------------------------------------------------------------- spawner

// Descriptors: 0 to 2 are the program's standard streams; these are closed before it runs.
inline constexpr int kSpawnerNamespace = 3; // pidfd of the namespace's keeper
inline constexpr int kSpawnerReport = 4;    // pipe to the caller
inline constexpr int kSpawnerRecord = 5;    // the namespace's record, which holds a Confinement
inline constexpr int kSpawnerUser = 6;      // pidfd of a process in the user namespace to be joined
inline constexpr int kSpawnerFdEnd = 7;

// argv: name, nice value, stack size, working directory, user ("" or "UID:GID[:GROUP]..."),
// program, then the program's argv.
inline constexpr int kSpawnerFixedArgs = 6;

// What programs in a namespace may do, at kConfinementOffset in the namespace's record. The arrays
// follow the structure: limits, ranges, filter, groups, then the texts: entries, labels.
struct Confinement {
    std::uint64_t size;       // with the arrays
    std::uint64_t namespaces; // CLONE_NEW flags of the namespaces to join
    std::uint64_t bounding;   // capability sets
    std::uint64_t permitted;
    std::uint64_t effective;
    std::uint64_t inheritable;
    std::uint64_t ambient;
    std::uint32_t uid;
    std::uint32_t gid;
    std::uint32_t umask;
    std::uint32_t filterFlags;
    std::int32_t oomScore; // kNoOomScore: that of the caller
    std::uint32_t noNewPrivileges;
    std::uint32_t ownControlGroup; // a cgroup namespace rooted at the program's group
    std::uint32_t limits;
    std::uint32_t filter;
    std::uint32_t groups;
    std::uint32_t entries;    // texts: files through which the control group is entered
    std::uint32_t ownNetwork; // a network namespace whose loopback interface is to be up
    std::uint32_t ranges;     // users of the user namespace; 0: that of the host
    std::uint32_t labels;     // texts in pairs: file below /proc/self/attr, security label
    std::uint32_t offsets;    // 1: a text for /proc/self/timens_offsets is the last one
    std::uint32_t user;       // 1: the user namespace kInitUser is to be entered
    std::uint32_t keepGroups; // 1: the kernel denies setgroups: none are added, none are dropped
    std::uint32_t keepScore;  // 1: an oomScore that the kernel refuses is not an error
    std::uint32_t placed;     // zn-init: 1: another program moves it into its control group, and
                              // one byte on kInitSocket says that it has done so
    std::uint32_t reserved;
    std::uint64_t created; // zn-init: CLONE_NEW flags of the namespaces that are created after
                           // that; 0: they exist
};
inline constexpr std::int32_t kNoOomScore = 0x7fffffff;
inline constexpr std::size_t kConfinementOffset = 4096;

struct Limit {
    std::uint64_t resource;
    std::uint64_t soft;
    std::uint64_t hard;
};

struct IdRange { // users of a user namespace
    std::uint32_t inside;
    std::uint32_t outside;
    std::uint32_t count;
    std::uint32_t reserved;
};

struct FilterCode { // as the kernel's sock_filter
    std::uint16_t code;
    std::uint8_t jt;
    std::uint8_t jf;
    std::uint32_t k;
};

// Written to kSpawnerReport before the spawner exits, which it does when the program runs or could
// not be started: the program's process id, and the error number if it failed.
struct SpawnReport {
    enum class Kind : std::int32_t {
        kPid,
        kError,
        // Of an engine's container: what an error is about. With the value 0: what a later
        // kError is about.
        kLimits,
        kRights,
        kDirectory,
        kProgram,
        // The value is the number of the listener of the filter that this process has installed. It
        // waits for a byte, by which the reader of the report says that it has the listener.
        kListener,
    } kind;
    std::int32_t value;
};

// ---------------------------------------------------------------- containers of engines

// The first process of a container ("zn-init"), a further one ("zn-exec"), and one that makes the
// root of a container with a user namespace ("zn-make"). Descriptors: 0 to 2 are the standard
// streams; then as listed, and from kInitFdEnd up those that the program gets. kSpawnerReport and
// kSpawnerRecord are used as by the spawner.
inline constexpr int kInitSocket = 3; // zn-init, zn-make: requests; zn-exec: none
inline constexpr int kInitStart = 6;  // zn-init: listens for the start; zn-exec: console socket
inline constexpr int kInitUser = 7;   // zn-init: user namespace; zn-exec, zn-make: pidfd of the
                                      // first process
inline constexpr int kInitPid = 8;    // zn-init: PID namespace to be joined, if `namespaces` has it
inline constexpr int kInitFdEnd = 9;

// argv: name, working directory, number of descriptors that the program gets, flags (kInitTerminal:
// it gets a terminal; kInitKeyring: it keeps the session keyring; kInitUnconfined: it keeps the
// rights of the caller), path of the program ("": argv[0] is looked up), size of its terminal (rows
// << 16 | columns; 0: not set), then the program's argv.
inline constexpr long kInitTerminal = 1;
inline constexpr long kInitKeyring = 2;
inline constexpr long kInitUnconfined = 4;
inline constexpr int kInitFixedArgs = 6;

} // namespace zn::wire

#endif
