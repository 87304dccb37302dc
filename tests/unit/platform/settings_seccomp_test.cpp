// "linux.seccomp", and reading without memory.
#include "settings_reading.hpp"

#include "alloc_fault.hpp"

#include <cstdlib>

#include <cjson/cJSON.h>

namespace {

using namespace settings_reading;
using Action = zn::SeccompAction;
using Compare = zn::SeccompCompare;

zn::SeccompProfile profile(std::string_view members)
{
    return std::move(linux_section("\"seccomp\":{" + std::string(members) + "}").seccomp);
}

TEST(SettingsSeccomp, AProfileIsRead)
{
    const zn::SeccompProfile read = profile(
        R"("defaultAction":"SCMP_ACT_ERRNO","defaultErrnoRet":38,
           "architectures":["SCMP_ARCH_X86_64","SCMP_ARCH_X86"],
           "flags":["SECCOMP_FILTER_FLAG_LOG"],"listenerPath":"","syscalls":[
             {"names":["read","write"],"action":"SCMP_ACT_ALLOW"},
             {"names":["personality"],"action":"SCMP_ACT_TRACE","errnoRet":65535,"args":[
               {"index":5,"value":4294967295,"valueTwo":7,"op":"SCMP_CMP_MASKED_EQ"},
               {"index":0,"value":9007199254740991,"op":"SCMP_CMP_EQ"}]}])");
    EXPECT_TRUE(read.given);
    EXPECT_EQ(read.fallback.action, Action::kErrno);
    EXPECT_EQ(read.fallback.number, 38U);
    EXPECT_EQ(texts(read.architectures),
              (std::vector<std::string>{"SCMP_ARCH_X86_64", "SCMP_ARCH_X86"}));
    EXPECT_EQ(texts(read.flags), (std::vector<std::string>{"SECCOMP_FILTER_FLAG_LOG"}));
    ASSERT_EQ(read.rules.size(), 2U);
    EXPECT_EQ(texts(read.rules[0].names), (std::vector<std::string>{"read", "write"}));
    EXPECT_EQ(read.rules[0].answer.action, Action::kAllow);
    EXPECT_TRUE(read.rules[0].args.empty());
    EXPECT_EQ(read.rules[1].answer.number, 65535U);
    ASSERT_EQ(read.rules[1].args.size(), 2U);
    const zn::SeccompArg& masked = read.rules[1].args[0];
    EXPECT_EQ(masked.index, 5U);
    EXPECT_EQ(masked.compare, Compare::kMaskedEq);
    EXPECT_EQ(masked.value, 4294967295U);
    EXPECT_EQ(masked.valueTwo, 7U);
    EXPECT_EQ(read.rules[1].args[1].value, 9007199254740991U);
}

TEST(SettingsSeccomp, WithoutANumberCallsFailWithEperm)
{
    EXPECT_EQ(profile(R"("defaultAction":"SCMP_ACT_ERRNO")").fallback.number, 1U);
}

TEST(SettingsSeccomp, EachActionIsKnown)
{
    const std::pair<const char*, Action> actions[] = {{"KILL", Action::kKillThread},
                                                      {"KILL_THREAD", Action::kKillThread},
                                                      {"KILL_PROCESS", Action::kKillProcess},
                                                      {"TRAP", Action::kTrap},
                                                      {"ERRNO", Action::kErrno},
                                                      {"TRACE", Action::kTrace},
                                                      {"ALLOW", Action::kAllow},
                                                      {"LOG", Action::kLog},
                                                      {"NOTIFY", Action::kNotify}};
    for (const auto& [name, action] : actions)
        EXPECT_EQ(
            profile(std::string(R"("defaultAction":"SCMP_ACT_)") + name + '"').fallback.action,
            action);
}

TEST(SettingsSeccomp, EachComparisonIsKnown)
{
    const std::pair<const char*, Compare> words[] = {{"NE", Compare::kNe},
                                                     {"LT", Compare::kLt},
                                                     {"LE", Compare::kLe},
                                                     {"EQ", Compare::kEq},
                                                     {"GE", Compare::kGe},
                                                     {"GT", Compare::kGt},
                                                     {"MASKED_EQ", Compare::kMaskedEq}};
    for (const auto& [name, compare] : words)
        EXPECT_EQ(profile(std::string(
                              R"("defaultAction":"SCMP_ACT_LOG","syscalls":[{"names":["a"],
                                 "action":"SCMP_ACT_ALLOW","args":[{"index":0,"value":1,
                                 "op":"SCMP_CMP_)") +
                          name + "\"}]}]")
                      .rules[0]
                      .args[0]
                      .compare,
                  compare);
}

TEST(SettingsSeccomp, AListenerIsRead)
{
    const zn::SeccompProfile read = profile(
        R"("defaultAction":"SCMP_ACT_ALLOW","listenerPath":"/s","listenerMetadata":"a\nb")");
    EXPECT_STREQ(read.listenerPath.get(), "/s");
    EXPECT_TRUE(read.hasMetadata);
    const zn::SeccompProfile none =
        profile(R"("defaultAction":"SCMP_ACT_ALLOW","listenerPath":"","listenerMetadata":"")");
    EXPECT_EQ(none.listenerPath, nullptr);
    EXPECT_FALSE(none.hasMetadata);
}

#define PROFILE(MEMBERS) "\"seccomp\":{\"defaultAction\":\"SCMP_ACT_ERRNO\"," MEMBERS "}"
#define RULE(MEMBERS) PROFILE("\"syscalls\":[{\"names\":[\"a\"]," MEMBERS "}]")
#define ARG(MEMBERS) RULE("\"action\":\"SCMP_ACT_ALLOW\",\"args\":[{" MEMBERS "}]")

constexpr Refusal kProfiles[] = {
    {"NoDefaultAction", "linux", R"("seccomp":{})", EINVAL, "linux.seccomp.defaultAction",
     "is missing"},
    {"NotAnObject", "linux", R"("seccomp":"unconfined")", EINVAL, "linux.seccomp", "not an object"},
    {"UnknownAction", "linux", R"("seccomp":{"defaultAction":"ALLOW"})", EINVAL,
     "linux.seccomp.defaultAction", "unknown action \"ALLOW\""},
    {"DefaultNumberTooLarge", "linux", PROFILE(R"("defaultErrnoRet":4095)"), EINVAL,
     "linux.seccomp.defaultErrnoRet", "not a whole number from 0 to 4094"},
    {"DefaultNumberBeforeAction", "linux",
     R"("seccomp":{"defaultErrnoRet":1,"defaultAction":"SCMP_ACT_KILL"})", EINVAL,
     "linux.seccomp.defaultErrnoRet", "the action has no error number"},
    {"Architecture", "linux", PROFILE(R"("architectures":["x86_64"])"), EINVAL,
     "linux.seccomp.architectures[0]", "unknown architecture \"x86_64\""},
    {"Flag", "linux", PROFILE(R"("flags":["LOG"])"), EINVAL, "linux.seccomp.flags[0]",
     "unknown flag \"LOG\""},
    {"ListenerPath", "linux", PROFILE(R"("listenerPath":7)"), EINVAL, "linux.seccomp.listenerPath",
     "not a string"},
    {"ListenerMetadata", "linux", PROFILE(R"("listenerMetadata":["s"])"), EINVAL,
     "linux.seccomp.listenerMetadata", "not a string"},
    {"Unknown", "linux", PROFILE(R"("archMap":[])"), EINVAL, "linux.seccomp.archMap", "is unknown"},
    {"NoNames", "linux", PROFILE(R"("syscalls":[{"action":"SCMP_ACT_ALLOW"}])"), EINVAL,
     "linux.seccomp.syscalls[0].names", "is missing"},
    {"EmptyNames", "linux", PROFILE(R"("syscalls":[{"names":[],"action":"SCMP_ACT_ALLOW"}])"),
     EINVAL, "linux.seccomp.syscalls[0].names", "is empty"},
    {"EmptyName", "linux", PROFILE(R"("syscalls":[{"names":["a",""],"action":"SCMP_ACT_ALLOW"}])"),
     EINVAL, "linux.seccomp.syscalls[0].names[1]", "is empty"},
    {"NoAction", "linux", RULE(R"("args":[])"), EINVAL, "linux.seccomp.syscalls[0].action",
     "is missing"},
    {"NumberOfNotify", "linux", RULE(R"("action":"SCMP_ACT_NOTIFY","errnoRet":1)"), EINVAL,
     "linux.seccomp.syscalls[0].errnoRet", "the action has no error number"},
    {"NumberWithoutUse", "linux", RULE(R"("action":"SCMP_ACT_ALLOW","errnoRet":1)"), EINVAL,
     "linux.seccomp.syscalls[0].errnoRet", "the action has no error number"},
    {"NumberTooLarge", "linux", RULE(R"("action":"SCMP_ACT_TRACE","errnoRet":65536)"), EINVAL,
     "linux.seccomp.syscalls[0].errnoRet", "not a whole number from 0 to 65535"},
    {"UnknownInRule", "linux", RULE(R"("action":"SCMP_ACT_ALLOW","includes":{})"), EINVAL,
     "linux.seccomp.syscalls[0].includes", "is unknown"},
    {"ArgIndex", "linux", ARG(R"("index":6,"value":1,"op":"SCMP_CMP_EQ")"), EINVAL,
     "linux.seccomp.syscalls[0].args[0].index", "not a whole number from 0 to 5"},
    {"ArgValueNotExact", "linux",
     ARG(R"("index":0,"value":18446744073709551615,"op":"SCMP_CMP_EQ")"), EINVAL,
     "linux.seccomp.syscalls[0].args[0].value", "not a whole number from 0 to 9007199254740991"},
    {"ArgNoValue", "linux", ARG(R"("index":0,"op":"SCMP_CMP_EQ")"), EINVAL,
     "linux.seccomp.syscalls[0].args[0].value", "is missing"},
    {"ArgComparison", "linux", ARG(R"("index":0,"value":1,"op":"==")"), EINVAL,
     "linux.seccomp.syscalls[0].args[0].op", "unknown comparison \"==\""},
    {"ArgNoComparison", "linux", ARG(R"("index":0,"value":1)"), EINVAL,
     "linux.seccomp.syscalls[0].args[0].op", "is missing"},
};
REFUSED_SETTINGS(Seccomp, kProfiles);

// ---------------------------------------------------------------- memory

constexpr char kEverything[] =
    R"({"process":{"user":{"uid":1,"gid":1,"additionalGids":[1]},"apparmorProfile":"a",
         "selinuxLabel":"b","capabilities":{"bounding":["CAP_KILL"]},
         "rlimits":[{"type":"RLIMIT_CPU","soft":1,"hard":1}]},
        "linux":{"namespaces":[{"type":"user"},{"type":"ipc","path":"/i"}],
         "uidMappings":[{"containerID":0,"hostID":0,"size":1}],
         "gidMappings":[{"containerID":0,"hostID":0,"size":1}],
         "devices":[{"type":"p","path":"/p"}],"cgroupsPath":"/g","sysctl":{"kernel.sem":"1"},
         "maskedPaths":["/m"],"readonlyPaths":["/r"],"rootfsPropagation":"slave",
         "resources":{"cpu":{"cpus":"0","mems":"0"},"hugepageLimits":[{"pageSize":"2MB","limit":1}],
          "devices":[{"allow":false}],
          "blockIO":{"throttleReadBpsDevice":[{"major":1,"minor":1,"rate":1}]}},
         "seccomp":{"defaultAction":"SCMP_ACT_LOG","architectures":["SCMP_ARCH_X86"],
          "syscalls":[{"names":["a"],"action":"SCMP_ACT_LOG",
                       "args":[{"index":0,"value":1,"op":"SCMP_CMP_EQ"}]}]}}})";

void* counted_malloc(std::size_t size)
{
    return std::malloc(size);
}
void counted_free(void* memory)
{
    std::free(memory);
}

TEST(SettingsMemoryShortage, EachFailedAllocationIsReported)
{
    // cJSON's own allocations count, too.
    cJSON_Hooks hooks = {counted_malloc, counted_free};
    cJSON_InitHooks(&hooks);
    alloc_fault::arm(0);
    int whole = read(kEverything).error;
    const unsigned count = alloc_fault::disarm();
    EXPECT_EQ(whole, 0);
    EXPECT_GT(count, 200U);
    for (unsigned nth = 1; nth <= count; nth++) {
        alloc_fault::arm(nth);
        whole = read(kEverything).error;
        (void)alloc_fault::disarm();
        EXPECT_EQ(whole, ENOMEM) << nth;
    }
    cJSON_InitHooks(nullptr);
}

} // namespace
