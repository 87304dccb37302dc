// settings.hpp - what a configuration document says about a container beyond its root, mounts and
// program: users, rights, namespaces, limits, filters. Written by the reader (settings_reader.hpp);
// used where namespaces, control groups and the seccomp filter are made. What is permitted is
// decided in settings_policy.hpp.
//
// A member that the document does not mention has the value given here, or `given` is false.
#ifndef ZN_SETTINGS_HPP
#define ZN_SETTINGS_HPP

#include "base/list.hpp"

#include <cstdint>
#include <optional>
#include <string_view>

namespace zn {

using znc::List;
using znc::Text;

// ---------------------------------------------------------------- namespaces and users

enum class NsKind : unsigned { kMount, kPid, kIpc, kUts, kCgroup, kNetwork, kUser, kTime };
inline constexpr unsigned kNsKinds = 8;

struct NsChoice {
    enum class From : unsigned { kHost, kNew, kPath } from = From::kHost;
    Text path; // of an existing namespace, for kPath; absolute
};

struct IdMapping {
    std::uint32_t inside = 0;
    std::uint32_t outside = 0;
    std::uint32_t count = 0;
};

// How far a clock of a new time namespace is ahead of the host's.
struct TimeOffset {
    bool given = false;
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;
};

// ---------------------------------------------------------------- process

struct User {
    bool given = false;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::optional<std::uint32_t> umask;
    List<std::uint32_t> groups; // additionalGids
};

// Bit sets by capability number. `effective` is part of `permitted`. The kernel grants only those
// ambient capabilities that are both permitted and inheritable.
struct Capabilities {
    bool given = false;
    std::uint64_t bounding = 0;
    std::uint64_t effective = 0;
    std::uint64_t permitted = 0;
    std::uint64_t inheritable = 0;
    std::uint64_t ambient = 0;
};

struct Rlimit {
    int resource = 0;       // RLIMIT_ number
    std::uint64_t soft = 0; // RLIM_INFINITY: unlimited
    std::uint64_t hard = 0;
};

// ---------------------------------------------------------------- devices and resources

struct Device {
    char type = 'c'; // 'c', 'b' or 'p'; "u" is read as 'c'
    Text path;       // absolute, without "..", in the container
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t mode = 0666;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
};

inline constexpr std::int64_t kAnyDevice = -1;

struct DeviceRule {
    bool allow = false;
    char type = 'a'; // 'a': all devices and all access
    std::int64_t major = kAnyDevice;
    std::int64_t minor = kAnyDevice;
    bool read = false;
    bool write = false;
    bool make = false; // mknod
};

struct HugepageLimit {
    Text size;               // "2MB"
    std::uint64_t limit = 0; // UINT64_MAX: unlimited
};

// Whether it is a size as the kernel writes it in the names of files: "64KB", "2MB", "1GB".
inline bool is_page_size(std::string_view text)
{
    constexpr std::size_t kDigitsMax = 6;
    const std::size_t digits = text.find_first_not_of("0123456789");
    return digits >= 1 && digits <= kDigitsMax && text[0] != '0' && text.size() == digits + 2 &&
           std::string_view("KMG").find(text[digits]) != std::string_view::npos &&
           text[digits + 1] == 'B';
}

struct DeviceRate {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint64_t rate = 0;
};

struct DeviceWeight {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t weight = 0; // 10 to 1000
};

// A control file of a group in v2 and what is written into it.
struct ControlFile {
    Text name; // without "/"
    Text value;
};

// Limits of a control group. A limit of -1 means unlimited.
struct Resources {
    std::optional<std::int64_t> memoryLimit;
    std::optional<std::int64_t> memoryReservation;
    std::optional<std::int64_t> memorySwap; // of memory and swap together
    std::optional<std::uint64_t> memorySwappiness;
    std::optional<bool> disableOomKiller;
    std::optional<std::uint64_t> cpuShares; // 2 to 262144
    std::optional<std::int64_t> cpuQuota;   // microseconds in each period
    std::optional<std::uint64_t> cpuPeriod;
    Text cpus; // cpuset lists; null: not given
    Text mems;
    std::optional<std::int64_t> pidsLimit;
    bool pidsLimitIsDefault = false;       // not applied where the machine cannot enforce it
    std::optional<std::uint32_t> ioWeight; // 10 to 1000
    List<DeviceWeight> deviceWeights;
    List<DeviceRate> readBps;
    List<DeviceRate> writeBps;
    List<DeviceRate> readIops;
    List<DeviceRate> writeIops;
    List<HugepageLimit> hugepages;
    List<DeviceRule> devices;
    List<ControlFile> unified;
};

// ---------------------------------------------------------------- seccomp filter

enum class SeccompAction : unsigned {
    kKillProcess,
    kKillThread,
    kTrap,
    kErrno,
    kTrace,
    kAllow,
    kLog,
    kNotify, // another program decides (seccomp_listener.hpp)
};

inline constexpr std::uint32_t kSeccompErrnoMax = 4094; // libseccomp refuses larger ones

struct SeccompAnswer {
    SeccompAction action = SeccompAction::kErrno;
    std::uint32_t number = 1; // of kErrno and kTrace
};

enum class SeccompCompare : unsigned { kNe, kLt, kLe, kEq, kGe, kGt, kMaskedEq };

struct SeccompArg {
    unsigned index = 0; // 0 to 5
    SeccompCompare compare = SeccompCompare::kEq;
    std::uint64_t value = 0;
    std::uint64_t valueTwo = 0; // for kMaskedEq: value is the mask, this is compared
};

struct SeccompRule {
    List<Text> names;
    SeccompAnswer answer;
    List<SeccompArg> args; // all must match
};

struct SeccompProfile {
    bool given = false;       // false: the default filter
    SeccompAnswer fallback;   // defaultAction
    List<Text> architectures; // "SCMP_ARCH_X86_64" and so on
    List<Text> flags;         // "SECCOMP_FILTER_FLAG_LOG" and so on
    Text listenerPath;        // null or "": none
    bool hasMetadata = false; // listenerMetadata is not empty
    List<SeccompRule> rules;
    // Not from the document, set for engines: calls with a higher number than all that the rules
    // name fail with ENOSYS, not with EPERM.
    bool newerAreAbsent = false;
};

// ---------------------------------------------------------------- everything

struct Sysctl {
    Text key; // with dots; a slash stands for a dot in a name: "net.ipv4.conf.eth0/1.forwarding"
    Text value;
};

struct Settings {
    Text hostname;                // null or "": that of the namespace service
    bool namespacesGiven = false; // false: the defaults of the namespace service
    NsChoice namespaces[kNsKinds];
    List<IdMapping> uidMappings;
    List<IdMapping> gidMappings;
    TimeOffset monotonic;
    TimeOffset boottime;

    User user;
    Capabilities capabilities;
    std::optional<bool> noNewPrivileges;
    List<Rlimit> rlimits;
    std::optional<int> oomScoreAdj; // -1000 to 1000
    Text apparmorProfile;
    Text selinuxLabel;
    Text mountLabel;
    bool terminal = false;

    bool rootReadonly = false;
    std::optional<std::uint64_t> rootPropagation; // MS_ bits
    bool maskedPathsGiven = false;
    List<Text> maskedPaths;
    bool readonlyPathsGiven = false;
    List<Text> readonlyPaths;
    List<Device> devices;
    List<Sysctl> sysctl;

    Text cgroupsPath; // null: chosen by the namespace service
    Resources resources;
    SeccompProfile seccomp;
};

} // namespace zn

#endif
