#include "settings/settings_policy.hpp"

#include "settings_reading.hpp"

#include <sys/mount.h>

namespace {

using namespace settings_reading;

struct Verdict {
    bool within = false;
    zn::SettingsFault fault;
};

Verdict judge(std::string_view document)
{
    Verdict verdict;
    verdict.within = zn::settings_within_defaults(accepted(document), verdict.fault);
    return verdict;
}

struct Case {
    const char* name;
    const char* section;
    const char* members;
    const char* field; // null: within the defaults
    const char* reason;
};

std::ostream& operator<<(std::ostream& out, const Case& one)
{
    return out << one.members;
}

class Policy : public ::testing::TestWithParam<Case> {};

TEST_P(Policy, NamesTheFirstFieldThatExceedsTheDefaults)
{
    const Case& one = GetParam();
    const Verdict verdict = judge(in(one.section, one.members));
    EXPECT_EQ(verdict.within, one.field == nullptr);
    if (one.field != nullptr) {
        EXPECT_STREQ(verdict.fault.field, one.field);
        EXPECT_STREQ(verdict.fault.reason, one.reason);
    }
}

#define OWN R"("namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},{"type":"uts"})"
#define PROC                                                                                       \
    R"("/proc/acpi","/proc/asound","/proc/dynamic_debug","/proc/interrupts","/proc/keys",)"        \
    R"("/proc/kpagecgroup","/proc/kpagecount","/proc/kpageflags","/proc/latency_stats",)"          \
    R"("/proc/sched_debug","/proc/scsi","/proc/timer_list","/proc/timer_stats")"
#define SYS R"("/sys/devices/virtual/powercap","/sys/firmware/","/sys/fs/selinux")"

constexpr char kNotDefault[] = "is not one of the default devices";
constexpr char kAllows[] = "allows more than the default devices";
constexpr char kCapability[] = "contains a capability that containers do not have by default";

constexpr Case kCases[] = {
    {"Nothing", "process", "", nullptr, nullptr},
    {"User", "process", R"("user":{"uid":0,"gid":0,"umask":0})", nullptr, nullptr},

    {"OwnNamespaces", "linux", OWN R"(,{"type":"cgroup"},{"type":"network"}])", nullptr, nullptr},
    {"OwnUserAndTimeNamespaces", "linux",
     OWN R"(,{"type":"cgroup"},{"type":"network"},{"type":"user"},{"type":"time"}],
        "uidMappings":[{"containerID":0,"hostID":0,"size":1}],
        "gidMappings":[{"containerID":0,"hostID":0,"size":1}])",
     nullptr, nullptr},
    {"SharedNetwork", "linux", OWN R"(,{"type":"cgroup"}])", "linux.namespaces",
     "shares the network namespace of the host"},
    {"SharedCgroup", "linux", OWN R"(,{"type":"network"}])", nullptr, nullptr},
    {"AllShared", "linux", R"("namespaces":[])", "linux.namespaces",
     "shares the mount namespace of the host"},
    {"ExistingNetwork", "linux", OWN R"(,{"type":"cgroup"},{"type":"network","path":"/n"}])",
     "linux.namespaces", "joins an existing network namespace"},
    {"ExistingUser", "linux",
     OWN R"(,{"type":"cgroup"},{"type":"network"},{"type":"user","path":"/n"}])",
     "linux.namespaces", "joins an existing user namespace"},

    {"DefaultCapabilities", "process",
     R"("capabilities":{"bounding":["CAP_CHOWN","CAP_DAC_OVERRIDE","CAP_FOWNER","CAP_FSETID",
        "CAP_KILL","CAP_SETGID","CAP_SETUID","CAP_SETPCAP","CAP_NET_BIND_SERVICE",
        "CAP_SYS_CHROOT","CAP_SETFCAP"],"ambient":["CAP_KILL"]})",
     nullptr, nullptr},
    {"BoundingCapability", "process", R"("capabilities":{"bounding":["CAP_MKNOD"]})",
     "process.capabilities.bounding", kCapability},
    {"PermittedAndEffectiveCapability", "process",
     R"("capabilities":{"permitted":["CAP_BPF"],"effective":["CAP_BPF"]})",
     "process.capabilities.effective", kCapability},
    {"PermittedCapability", "process", R"("capabilities":{"permitted":["CAP_SYS_ADMIN"]})",
     "process.capabilities.permitted", kCapability},
    {"InheritableCapability", "process",
     R"("capabilities":{"inheritable":["CAP_CHECKPOINT_RESTORE"]})",
     "process.capabilities.inheritable", kCapability},
    {"AmbientCapability", "process", R"("capabilities":{"ambient":["CAP_NET_RAW"]})",
     "process.capabilities.ambient", kCapability},
    {"NoNewPrivileges", "process", R"("noNewPrivileges":true)", nullptr, nullptr},
    {"NewPrivileges", "process", R"("noNewPrivileges":false)", "process.noNewPrivileges",
     "lets programs gain privileges from set-user-ID files"},

    {"PositiveOomScore", "process", R"("oomScoreAdj":1000)", nullptr, nullptr},
    {"NegativeOomScore", "process", R"("oomScoreAdj":-1)", "process.oomScoreAdj", "is negative"},
    {"HarmlessLimits", "process",
     R"("rlimits":[{"type":"RLIMIT_NOFILE","soft":1,"hard":18446744073709551615},
                   {"type":"RLIMIT_NICE","soft":0,"hard":20},
                   {"type":"RLIMIT_RTPRIO","soft":0,"hard":0}])",
     nullptr, nullptr},
    {"RealTimeLimit", "process",
     R"("rlimits":[{"type":"RLIMIT_CPU","soft":1,"hard":1},
                   {"type":"RLIMIT_RTPRIO","soft":0,"hard":1}])",
     "process.rlimits[1]", "permits real-time scheduling"},
    {"SomeQueueMemory", "process",
     R"("rlimits":[{"type":"RLIMIT_MSGQUEUE","soft":0,"hard":409600}])", nullptr, nullptr},
    {"MostQueueMemory", "process",
     R"("rlimits":[{"type":"RLIMIT_MSGQUEUE","soft":0,"hard":409601}])", "process.rlimits[0]",
     "permits more than half of the POSIX message queue memory"},
    {"NiceLimit", "process", R"("rlimits":[{"type":"RLIMIT_NICE","soft":0,"hard":21}])",
     "process.rlimits[0]", "permits negative nice values"},

    {"DefaultDevices", "linux",
     R"("devices":[{"type":"c","path":"/d/n","major":1,"minor":3},{"type":"p","path":"/p"}],
        "resources":{"devices":[{"allow":false},{"allow":true,"type":"c","major":1,"minor":9},
          {"allow":true,"type":"c","major":136},{"allow":false,"type":"b"}]})",
     nullptr, nullptr},
    {"OtherDevice", "linux",
     R"("devices":[{"type":"p","path":"/p"},{"type":"c","path":"/m","major":1,"minor":1}])",
     "linux.devices[1]", kNotDefault},
    {"BlockDevice", "linux", R"("devices":[{"type":"b","path":"/m","major":1,"minor":3}])",
     "linux.devices[0]", kNotDefault},
    {"AllDevicesAllowed", "linux", R"("resources":{"devices":[{"allow":true}]})",
     "linux.resources.devices[0]", kAllows},
    {"OtherDeviceAllowed", "linux",
     R"("resources":{"devices":[{"allow":false},{"allow":true,"type":"c","major":10,"minor":200}]})",
     "linux.resources.devices[1]", kAllows},
    {"AnyMinorAllowed", "linux",
     R"("resources":{"devices":[{"allow":true,"type":"c","major":1,"access":"r"}]})",
     "linux.resources.devices[0]", kAllows},
    {"BlockDeviceAllowed", "linux",
     R"("resources":{"devices":[{"allow":true,"type":"b","major":1,"minor":3}]})",
     "linux.resources.devices[0]", kAllows},

    {"NoMasks", "linux", R"("maskedPaths":[],"readonlyPaths":[])", nullptr, nullptr},

    {"RefusingFilter", "linux", R"("seccomp":{"defaultAction":"SCMP_ACT_KILL"})", nullptr, nullptr},
    {"AllowingFilter", "linux", R"("seccomp":{"defaultAction":"SCMP_ACT_ALLOW"})",
     "linux.seccomp.defaultAction", "allows all system calls that no rule refuses"},
    {"LoggingFilter", "linux", R"("seccomp":{"defaultAction":"SCMP_ACT_LOG"})",
     "linux.seccomp.defaultAction", "allows all system calls that no rule refuses"},
    {"TracedFilter", "linux", R"("seccomp":{"defaultAction":"SCMP_ACT_TRACE"})",
     "linux.seccomp.defaultAction", "lets a tracer allow all system calls"},

    {"GroupOfTheDaemon", "linux", R"("cgroupsPath":"/zarnel/web")", nullptr, nullptr},
    {"RelativeGroup", "linux", R"("cgroupsPath":"web")", nullptr, nullptr},
    {"OtherGroup", "linux", R"("cgroupsPath":"/system.slice/a")", "linux.cgroupsPath",
     "is not below /zarnel/"},
    {"GroupWithTheSamePrefix", "linux", R"("cgroupsPath":"/zarnel2/a")", "linux.cgroupsPath",
     "is not below /zarnel/"},
    {"GroupOfSystemd", "linux", R"("cgroupsPath":"system.slice:a:b")", "linux.cgroupsPath",
     "is not below /zarnel/"},
    {"FewerProcesses", "linux", R"("resources":{"pids":{"limit":4096}})", nullptr, nullptr},
    {"ControlFiles", "linux", R"("resources":{"unified":{"pids.max":"1"}})",
     "linux.resources.unified", "may raise any limit of the group"},
    {"MoreProcesses", "linux", R"("resources":{"pids":{"limit":4097}})",
     "linux.resources.pids.limit", "is higher than 4096"},
    {"UnlimitedProcesses", "linux", R"("resources":{"pids":{"limit":-1}})",
     "linux.resources.pids.limit", "is higher than 4096"},
    {"UnlimitedMemory", "linux", R"("resources":{"memory":{"limit":-1}})", nullptr, nullptr},

    {"PrivateRoot", "linux", R"("rootfsPropagation":"rprivate")", nullptr, nullptr},
    {"UnbindableRoot", "linux", R"("rootfsPropagation":"unbindable")", nullptr, nullptr},
    {"SharedRoot", "linux", R"("rootfsPropagation":"shared")", "linux.rootfsPropagation",
     "propagates mounts between container and host"},
    {"SlaveRoot", "linux", R"("rootfsPropagation":"rslave")", "linux.rootfsPropagation",
     "propagates mounts between container and host"},
};
std::string name_of_case(const ::testing::TestParamInfo<Case>& info)
{
    return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(, Policy, ::testing::ValuesIn(kCases), name_of_case);

TEST(PolicyOfCapabilities, HasTheElevenOfContainers)
{
    EXPECT_EQ(__builtin_popcountll(zn::kDefaultCapabilities), 11);
}

} // namespace
