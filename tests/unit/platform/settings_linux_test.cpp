// "linux", except for resources and the seccomp filter.
#include "settings_reading.hpp"

#include <sys/mount.h>

namespace {

using namespace settings_reading;
using From = zn::NsChoice::From;

From from(const zn::Settings& settings, zn::NsKind kind)
{
    return settings.namespaces[static_cast<unsigned>(kind)].from;
}

// ---------------------------------------------------------------- namespaces

TEST(SettingsNamespaces, NamespacesThatTheListOmitsAreTheHosts)
{
    const zn::Settings settings =
        linux_section(R"("namespaces":[{"type":"pid"},{"type":"network","path":"/run/netns/a"}])");
    EXPECT_TRUE(settings.namespacesGiven);
    EXPECT_EQ(from(settings, zn::NsKind::kPid), From::kNew);
    EXPECT_EQ(from(settings, zn::NsKind::kNetwork), From::kPath);
    EXPECT_EQ(text_of(settings.namespaces[static_cast<unsigned>(zn::NsKind::kNetwork)].path),
              "/run/netns/a");
    for (const zn::NsKind kind : {zn::NsKind::kMount, zn::NsKind::kIpc, zn::NsKind::kUts,
                                  zn::NsKind::kCgroup, zn::NsKind::kUser, zn::NsKind::kTime})
        EXPECT_EQ(from(settings, kind), From::kHost);
}

TEST(SettingsNamespaces, AllTypesAreKnown)
{
    const zn::Settings settings = linux_section(
        R"("namespaces":[{"type":"mount"},{"type":"pid"},{"type":"ipc"},{"type":"uts"},
           {"type":"cgroup"},{"type":"network"},{"type":"user"},{"type":"time","path":""}],
           "uidMappings":[{"containerID":0,"hostID":1,"size":1}],
           "gidMappings":[{"containerID":0,"hostID":1,"size":1}])");
    for (const zn::NsChoice& choice : settings.namespaces)
        EXPECT_EQ(choice.from, From::kNew);
}

TEST(SettingsNamespaces, AnEmptyListSharesAll)
{
    const zn::Settings settings = linux_section(R"("namespaces":[])");
    EXPECT_TRUE(settings.namespacesGiven);
    for (const zn::NsChoice& choice : settings.namespaces)
        EXPECT_EQ(choice.from, From::kHost);
}

TEST(SettingsNamespaces, WithoutAListNothingIsGiven)
{
    EXPECT_FALSE(linux_section("").namespacesGiven);
}

constexpr Refusal kNamespaces[] = {
    {"NotAnArray", "linux", R"("namespaces":{"type":"pid"})", EINVAL, "linux.namespaces",
     "not an array"},
    {"UnknownType", "linux", R"("namespaces":[{"type":"net"}])", EINVAL, "linux.namespaces[0].type",
     "unknown type \"net\""},
    {"NoType", "linux", R"("namespaces":[{"path":"/a"}])", EINVAL, "linux.namespaces[0].type",
     "is missing"},
    {"RelativePath", "linux", R"("namespaces":[{"type":"pid"},{"type":"ipc","path":"proc/1"}])",
     EINVAL, "linux.namespaces[1].path", "not an absolute path without \"..\""},
    {"PathWithParent", "linux", R"("namespaces":[{"type":"ipc","path":"/run/../proc/1"}])", EINVAL,
     "linux.namespaces[0].path", "not an absolute path without \"..\""},
    {"Twice", "linux", R"("namespaces":[{"type":"pid"},{"type":"pid"}])", EINVAL,
     "linux.namespaces[1].type", "second namespace of type \"pid\""},
    {"Unknown", "linux", R"("namespaces":[{"type":"pid","name":"a"}])", EINVAL,
     "linux.namespaces[0].name", "is unknown"},
};
REFUSED_SETTINGS(Namespaces, kNamespaces);

#define WITH_USER(MEMBERS) "\"namespaces\":[{\"type\":\"user\"}]," MEMBERS
#define GIDS ",\"gidMappings\":[{\"containerID\":0,\"hostID\":1,\"size\":1}]"

TEST(SettingsIdMappings, AreRead)
{
    const zn::Settings settings = linux_section(WITH_USER(
        R"("uidMappings":[{"containerID":0,"hostID":100000,"size":65536},
                          {"containerID":65536,"hostID":1000,"size":1}])") GIDS);
    ASSERT_EQ(settings.uidMappings.size(), 2U);
    EXPECT_EQ(settings.uidMappings[0].inside, 0U);
    EXPECT_EQ(settings.uidMappings[0].outside, 100000U);
    EXPECT_EQ(settings.uidMappings[0].count, 65536U);
    EXPECT_EQ(settings.gidMappings.size(), 1U);
}

TEST(SettingsIdMappings, AllIdsCanBeMapped)
{
    const zn::Settings settings = linux_section(
        WITH_USER(R"("uidMappings":[{"containerID":0,"hostID":0,"size":4294967295}])") GIDS);
    EXPECT_EQ(settings.uidMappings[0].count, 4294967295U);
}

TEST(SettingsIdMappings, AnExistingUserNamespaceNeedsNone)
{
    linux_section(R"("namespaces":[{"type":"user","path":"/proc/7/ns/user"}])");
}

TEST(SettingsIdMappings, NoMoreThanTheKernelTakesAreRead)
{
    std::string list;
    for (int i = 0; i < 341; i++)
        list += (i > 0 ? "," : "") + std::string("{\"containerID\":") + std::to_string(i) +
                ",\"hostID\":" + std::to_string(i) + ",\"size\":1}";
    const Read result = read(in("linux", "\"uidMappings\":[" + list + "]"));
    EXPECT_EQ(result.error, EINVAL);
    EXPECT_STREQ(result.fault.field, "linux.uidMappings");
    EXPECT_STREQ(result.fault.reason, "has more than 340 elements");
}

constexpr Refusal kMappings[] = {
    {"WithoutUserNamespace", "linux",
     R"("namespaces":[{"type":"pid"}],"uidMappings":[{"containerID":0,"hostID":0,"size":1}])",
     EINVAL, "linux.uidMappings", "needs a user namespace in \"linux.namespaces\""},
    {"WithoutNamespaces", "linux", R"("gidMappings":[{"containerID":0,"hostID":0,"size":1}])",
     EINVAL, "linux.gidMappings", "needs a user namespace in \"linux.namespaces\""},
    {"UserNamespaceWithout", "linux", R"("namespaces":[{"type":"user"}])", EINVAL,
     "linux.uidMappings", "is missing: a new user namespace needs it"},
    {"UserNamespaceWithoutGids", "linux",
     WITH_USER(R"("uidMappings":[{"containerID":0,"hostID":0,"size":1}])"), EINVAL,
     "linux.gidMappings", "is missing: a new user namespace needs it"},
    {"ZeroSize", "linux", R"("uidMappings":[{"containerID":0,"hostID":0,"size":0}])", EINVAL,
     "linux.uidMappings[0].size", "not a whole number from 1 to 4294967295"},
    {"NoSize", "linux", R"("uidMappings":[{"containerID":0,"hostID":0}])", EINVAL,
     "linux.uidMappings[0].size", "is missing"},
    {"BeyondTheLastInside", "linux",
     R"("uidMappings":[{"containerID":4294967290,"hostID":0,"size":6}])", EINVAL,
     "linux.uidMappings[0].size", "leads beyond the last id"},
    {"BeyondTheLastOutside", "linux",
     R"("gidMappings":[{"containerID":0,"hostID":1,"size":4294967295}])", EINVAL,
     "linux.gidMappings[0].size", "leads beyond the last id"},
    {"OverlapInside", "linux",
     R"("uidMappings":[{"containerID":0,"hostID":0,"size":10},
                       {"containerID":9,"hostID":100,"size":1}])",
     EINVAL, "linux.uidMappings[1].containerID", "overlaps another mapping"},
    {"OverlapOutside", "linux",
     R"("uidMappings":[{"containerID":20,"hostID":5,"size":1},
                       {"containerID":0,"hostID":0,"size":10}])",
     EINVAL, "linux.uidMappings[1].hostID", "overlaps another mapping"},
};
REFUSED_SETTINGS(Mappings, kMappings);

// ---------------------------------------------------------------- paths and propagation

TEST(SettingsPaths, ListsAreRead)
{
    const zn::Settings settings =
        linux_section(R"("maskedPaths":["/proc/kcore","/sys/firmware"],"readonlyPaths":[])");
    EXPECT_TRUE(settings.maskedPathsGiven);
    EXPECT_EQ(texts(settings.maskedPaths),
              (std::vector<std::string>{"/proc/kcore", "/sys/firmware"}));
    EXPECT_TRUE(settings.readonlyPathsGiven);
    EXPECT_TRUE(settings.readonlyPaths.empty());
}

TEST(SettingsPaths, TheControlGroupMayBeWrittenInEachForm)
{
    for (const char* path : {"/a/b", "a", "system.slice:prefix:name"})
        EXPECT_EQ(
            text_of(linux_section(std::string("\"cgroupsPath\":\"") + path + "\"").cgroupsPath),
            path);
    EXPECT_EQ(linux_section(R"("cgroupsPath":"")").cgroupsPath, nullptr);
}

TEST(SettingsPropagation, EachWordIsKnown)
{
    const std::pair<const char*, std::uint64_t> words[] = {
        {"private", MS_PRIVATE},       {"rprivate", MS_PRIVATE | MS_REC},
        {"slave", MS_SLAVE},           {"rslave", MS_SLAVE | MS_REC},
        {"shared", MS_SHARED},         {"rshared", MS_SHARED | MS_REC},
        {"unbindable", MS_UNBINDABLE}, {"runbindable", MS_UNBINDABLE | MS_REC}};
    for (const auto& [word, bits] : words)
        EXPECT_EQ(
            linux_section(std::string("\"rootfsPropagation\":\"") + word + "\"").rootPropagation,
            bits);
    EXPECT_FALSE(linux_section(R"("rootfsPropagation":"")").rootPropagation);
}

constexpr char kNoPath[] = "not an absolute path without \"..\"";
constexpr Refusal kPaths[] = {
    {"RelativeMaskedPath", "linux", R"("maskedPaths":["/a","b"])", EINVAL, "linux.maskedPaths[1]",
     kNoPath},
    {"EmptyMaskedPath", "linux", R"("maskedPaths":[""])", EINVAL, "linux.maskedPaths[0]",
     "is empty"},
    {"ReadonlyPathWithParent", "linux", R"("readonlyPaths":["/a/.."])", EINVAL,
     "linux.readonlyPaths[0]", kNoPath},
    {"ReadonlyPathNumber", "linux", R"("readonlyPaths":[1])", EINVAL, "linux.readonlyPaths[0]",
     "not a string"},
    {"MaskedPathsText", "linux", R"("maskedPaths":"/a")", EINVAL, "linux.maskedPaths",
     "not an array"},
    {"GroupWithParent", "linux", R"("cgroupsPath":"/a/../b")", EINVAL, "linux.cgroupsPath",
     "contains a component \".\" or \"..\""},
    {"GroupWithDot", "linux", R"("cgroupsPath":"./a")", EINVAL, "linux.cgroupsPath",
     "contains a component \".\" or \"..\""},
    {"GroupNumber", "linux", R"("cgroupsPath":1)", EINVAL, "linux.cgroupsPath", "not a string"},
    {"Propagation", "linux", R"("rootfsPropagation":"public")", EINVAL, "linux.rootfsPropagation",
     "unknown propagation \"public\""},
    {"PropagationArray", "linux", R"("rootfsPropagation":[])", EINVAL, "linux.rootfsPropagation",
     "not a string"},
};
REFUSED_SETTINGS(Paths, kPaths);

TEST(SettingsPaths, LongerOnesThanTheKernelTakesAreRefused)
{
    const std::string path = "/" + std::string(4095, 'a');
    const Read result = read(in("linux", "\"maskedPaths\":[\"" + path + "\"]"));
    EXPECT_EQ(result.error, EINVAL);
    EXPECT_STREQ(result.fault.reason, "longer than 4095 bytes");
}

// ---------------------------------------------------------------- devices

TEST(SettingsDevices, AreRead)
{
    const zn::Settings settings = linux_section(
        R"("devices":[{"type":"b","path":"/dev/a/b","major":4095,"minor":1048575,"fileMode":384,
                       "uid":1,"gid":2},
                      {"type":"u","path":"/x","major":1,"minor":3},{"type":"p","path":"/dev/p"}])");
    ASSERT_EQ(settings.devices.size(), 3U);
    const zn::Device& block = settings.devices[0];
    EXPECT_EQ(block.type, 'b');
    EXPECT_EQ(text_of(block.path), "/dev/a/b");
    EXPECT_EQ(block.major, 4095U);
    EXPECT_EQ(block.minor, 1048575U);
    EXPECT_EQ(block.mode, 0600U);
    EXPECT_EQ(block.uid, 1U);
    EXPECT_EQ(block.gid, 2U);
    EXPECT_EQ(settings.devices[1].type, 'c');
    EXPECT_EQ(settings.devices[1].mode, 0666U);
    EXPECT_EQ(settings.devices[2].type, 'p');
}

constexpr Refusal kDevices[] = {
    {"UnknownType", "linux", R"("devices":[{"type":"x","path":"/d","major":1,"minor":1}])", EINVAL,
     "linux.devices[0].type", "unknown type \"x\""},
    {"NoType", "linux", R"("devices":[{"path":"/d","major":1,"minor":1}])", EINVAL,
     "linux.devices[0].type", "is missing"},
    {"NoPath", "linux", R"("devices":[{"type":"c","major":1,"minor":1}])", EINVAL,
     "linux.devices[0].path", "is missing"},
    {"RelativePath", "linux", R"("devices":[{"type":"p","path":"d"}])", EINVAL,
     "linux.devices[0].path", kNoPath},
    {"PathWithParent", "linux", R"("devices":[{"type":"p","path":"/dev/../../d"}])", EINVAL,
     "linux.devices[0].path", kNoPath},
    {"PathOfADirectory", "linux", R"("devices":[{"type":"p","path":"/dev/"}])", EINVAL,
     "linux.devices[0].path", "does not end with a name"},
    {"NoMinor", "linux", R"("devices":[{"type":"c","path":"/d","major":1}])", EINVAL,
     "linux.devices[0].minor", "is missing"},
    {"MajorTooLarge", "linux", R"("devices":[{"type":"c","path":"/d","major":4096,"minor":1}])",
     EINVAL, "linux.devices[0].major", "not a whole number from 0 to 4095"},
    {"NegativeMinor", "linux", R"("devices":[{"type":"c","path":"/d","major":1,"minor":-1}])",
     EINVAL, "linux.devices[0].minor", "not a whole number from 0 to 1048575"},
    {"FileMode", "linux", R"("devices":[{"type":"p","path":"/d","fileMode":65536}])", EINVAL,
     "linux.devices[0].fileMode", "not a whole number from 0 to 65535"},
    {"Uid", "linux", R"("devices":[{"type":"p","path":"/d","uid":4294967295}])", EINVAL,
     "linux.devices[0].uid", "not a whole number from 0 to 4294967294"},
};
REFUSED_SETTINGS(Devices, kDevices);

// ---------------------------------------------------------------- kernel parameters

std::string sysctl_key(std::string_view key)
{
    const zn::Settings settings = linux_section("\"sysctl\":{\"" + std::string(key) + "\":\"1\"}");
    return settings.sysctl.size() == 1 ? settings.sysctl[0].key.get() : "";
}

TEST(SettingsSysctl, KeysOfTheContainersNamespacesAreRead)
{
    for (const char* key :
         {"kernel.shmall", "kernel.shmmax", "kernel.shmmni", "kernel.shm_rmid_forced",
          "kernel.msgmax", "kernel.msgmnb", "kernel.msgmni", "kernel.sem", "fs.mqueue.msg_max",
          "net.ipv4.ip_forward"})
        EXPECT_EQ(sysctl_key(key), key);
    const zn::Settings settings = linux_section(R"("sysctl":{"kernel.sem":"250\t32000 32 128"})");
    EXPECT_EQ(text_of(settings.sysctl[0].value), "250\t32000 32 128");
}

TEST(SettingsSysctl, KeysAreKeptWithDots)
{
    EXPECT_EQ(sysctl_key("net/ipv4/ip_forward"), "net.ipv4.ip_forward");
    EXPECT_EQ(sysctl_key("kernel/sem"), "kernel.sem");
    EXPECT_EQ(sysctl_key("net/ipv4/conf/eth0.1/forwarding"), "net.ipv4.conf.eth0/1.forwarding");
    EXPECT_EQ(sysctl_key("net.ipv4.conf.eth0/1.forwarding"), "net.ipv4.conf.eth0/1.forwarding");
}

TEST(SettingsSysctl, ListedNamespacesAreTheContainers)
{
    linux_section(R"("sysctl":{"net.a":"1","kernel.sem":"1"},
                     "namespaces":[{"type":"network","path":"/run/netns/a"},{"type":"ipc"}])");
}

constexpr char kHosts[] = "belongs to the host";
constexpr char kNoKey[] = "not the name of a kernel parameter";
constexpr Refusal kSysctls[] = {
    {"OfTheHost", "linux", R"("sysctl":{"kernel.core_pattern":"|/x"})", EINVAL,
     "linux.sysctl.kernel.core_pattern", kHosts},
    {"OfTheHostWithSlashes", "linux", R"("sysctl":{"vm/overcommit_memory":"1"})", EINVAL,
     "linux.sysctl.vm/overcommit_memory", kHosts},
    {"OnlyBeginsLikeOne", "linux", R"("sysctl":{"kernel.semx":"1"})", EINVAL,
     "linux.sysctl.kernel.semx", kHosts},
    {"OnlyThePrefix", "linux", R"("sysctl":{"net":"1"})", EINVAL, "linux.sysctl.net", kHosts},
    {"Directory", "linux", R"("sysctl":{"net.":"1"})", EINVAL, "linux.sysctl.net.", kNoKey},
    {"HostName", "linux", R"("sysctl":{"kernel.hostname":"x"})", ENOTSUP,
     "linux.sysctl.kernel.hostname", "is not supported: use \"hostname\""},
    {"DomainName", "linux", R"("sysctl":{"kernel/domainname":"x"})", ENOTSUP,
     "linux.sysctl.kernel/domainname", "is not supported"},
    {"ParentWithSlashes", "linux", R"("sysctl":{"net/../kernel/core_pattern":"x"})", EINVAL,
     "linux.sysctl.net/../kernel/core_pattern", kNoKey},
    {"ParentWithDots", "linux", R"("sysctl":{"net.//.kernel.core_pattern":"x"})", EINVAL,
     "linux.sysctl.net.//.kernel.core_pattern", kNoKey},
    {"EmptyPart", "linux", R"("sysctl":{"net..a":"x"})", EINVAL, "linux.sysctl.net..a", kNoKey},
    {"Absolute", "linux", R"("sysctl":{"/net/a":"x"})", EINVAL, "linux.sysctl./net/a", kNoKey},
    {"Space", "linux", R"("sysctl":{"net.a b":"x"})", EINVAL, "linux.sysctl.net.a b", kNoKey},
    {"EmptyValue", "linux", R"("sysctl":{"net.a":""})", EINVAL, "linux.sysctl.net.a", "is empty"},
    {"NumberValue", "linux", R"("sysctl":{"net.a":1})", EINVAL, "linux.sysctl.net.a",
     "not a string"},
    {"ValueOfTwoLines", "linux", "\"sysctl\":{\"net.a\":\"1\\n2\"}", EINVAL, "linux.sysctl.net.a",
     "contains a control character"},
    {"TwiceInBothForms", "linux", R"("sysctl":{"net.a":"1","net/a":"2"})", EINVAL,
     "linux.sysctl.net/a", "occurs twice"},
    {"SharedNetwork", "linux", R"("sysctl":{"net.a":"1"},"namespaces":[{"type":"ipc"}])", EINVAL,
     "linux.sysctl.net.a", "belongs to the host: the container shares its network namespace"},
    {"SharedIpc", "linux", R"("namespaces":[],"sysctl":{"fs.mqueue.msg_max":"1"})", EINVAL,
     "linux.sysctl.fs.mqueue.msg_max",
     "belongs to the host: the container shares its ipc namespace"},
};
REFUSED_SETTINGS(Sysctls, kSysctls);

// ---------------------------------------------------------------- what is not supported

TEST(SettingsLinux, EmptyValuesAskForNothing)
{
    linux_section(R"("mountLabel":"","intelRdt":{},"personality":{},"timeOffsets":{},
                     "netDevices":{},"memoryPolicy":null)");
}

constexpr Refusal kOthers[] = {
    {"MountLabel", "linux", R"("mountLabel":[])", EINVAL, "linux.mountLabel", "not a string"},
    {"IntelRdt", "linux", R"("intelRdt":{"closID":"a"})", ENOTSUP, "linux.intelRdt",
     "is not supported"},
    {"Personality", "linux", R"("personality":{"domain":"LINUX32"})", ENOTSUP, "linux.personality",
     "is not supported"},
    {"TimeOffsets", "linux", R"("timeOffsets":{"boottime":{"secs":1}})", EINVAL,
     "linux.timeOffsets", "needs a new time namespace in \"linux.namespaces\""},
    {"TimeOffsetOfAnUnknownClock", "linux", R"("timeOffsets":{"realtime":{"secs":1}})", EINVAL,
     "linux.timeOffsets.realtime", "is unknown"},
    {"MemoryPolicy", "linux", R"("memoryPolicy":{"mode":"MPOL_BIND"})", ENOTSUP,
     "linux.memoryPolicy", "is not supported"},
    {"NetDevices", "linux", R"("netDevices":{"eth0":{}})", ENOTSUP, "linux.netDevices",
     "is not supported"},
    {"KnownNameInAnotherCase", "linux", R"("Seccomp":{})", EINVAL, "linux.Seccomp", "is unknown"},
};
REFUSED_SETTINGS(OtherMembers, kOthers);

} // namespace
