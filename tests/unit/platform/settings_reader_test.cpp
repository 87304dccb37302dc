// The rules for all documents, "root" and "process".
#include "settings_reading.hpp"

#include <linux/capability.h>
#include <sys/resource.h>

namespace {

using namespace settings_reading;

constexpr std::uint64_t bit(unsigned capability)
{
    return std::uint64_t{1} << capability;
}

// ---------------------------------------------------------------- the document

TEST(SettingsDocument, AnEmptyDocumentHasTheDefaults)
{
    const zn::Settings settings = accepted("{}");
    EXPECT_FALSE(settings.namespacesGiven);
    EXPECT_FALSE(settings.user.given);
    EXPECT_FALSE(settings.capabilities.given);
    EXPECT_FALSE(settings.noNewPrivileges);
    EXPECT_FALSE(settings.oomScoreAdj);
    EXPECT_FALSE(settings.terminal);
    EXPECT_FALSE(settings.rootReadonly);
    EXPECT_FALSE(settings.rootPropagation);
    EXPECT_FALSE(settings.maskedPathsGiven);
    EXPECT_FALSE(settings.readonlyPathsGiven);
    EXPECT_FALSE(settings.seccomp.given);
    EXPECT_EQ(settings.cgroupsPath, nullptr);
    EXPECT_EQ(settings.apparmorProfile, nullptr);
    EXPECT_TRUE(settings.rlimits.empty());
}

TEST(SettingsDocument, NullCountsAsAbsent)
{
    const zn::Settings settings = accepted(
        R"({"process":{"user":null,"capabilities":null,"rlimits":null,"unknown":null},"root":null,
            "linux":{"namespaces":null,"seccomp":null,"maskedPaths":null,
                     "resources":{"pids":null,"memory":{"limit":null}}}})");
    EXPECT_FALSE(settings.user.given);
    EXPECT_FALSE(settings.capabilities.given);
    EXPECT_FALSE(settings.namespacesGiven);
    EXPECT_FALSE(settings.seccomp.given);
    EXPECT_FALSE(settings.maskedPathsGiven);
    EXPECT_FALSE(settings.resources.memoryLimit);
}

TEST(SettingsDocument, AcceptsTheDocumentThatUnpackWritesAndIgnoresUsr)
{
    const zn::Settings settings = accepted(
        R"({"ociVersion":"1.0.0","process":{"env":["A=1"],"cwd":["odd"],"args":["/bin/app"],
            "usr":{"uid":1000,"gid":100}},"root":{"path":"/overlay/abc","readonly":false},
            "hostname":"Zarnel","mounts":[],"annotations":{"a":"1","a":"2","A":"3"},
            "zarnel":{"resources":{},"rtp":{"rtpPriority":"7"}}})");
    EXPECT_FALSE(settings.user.given);
    EXPECT_FALSE(settings.rootReadonly);
}

TEST(SettingsDocument, OtherSectionsAreNotRead)
{
    accepted(R"({"hooks":7,"mounts":"x","annotations":[],"windows":{"a":{"a":1,"a":2}}})");
}

// The library ignores the case of these names.
TEST(SettingsDocument, NamesThatTheLibraryReadsMayBeInAnyCase)
{
    const zn::Settings settings = accepted(
        R"({"Process":{"ARGS":["x"],"Env":[],"Cwd":"/","Terminal":true,"oomScoreAdj":5},
            "ROOT":{"PATH":"r","ReadOnly":true}})");
    EXPECT_TRUE(settings.terminal);
    EXPECT_TRUE(settings.rootReadonly);
    EXPECT_EQ(settings.oomScoreAdj, 5);
}

TEST(SettingsDocument, MembersThatTheSpecificationDoesNotDefineAreIgnored)
{
    accepted(R"({"process":{"sandbox":true},"linux":{"sandbox":{}}})");
}

TEST(SettingsDocument, NamesThatOnlyBeginAlikeAreDifferent)
{
    accepted(R"({"annotations":{},"Apple":1,"Linu":2,"linuxx":3,"Process2":4})");
}

TEST(SettingsDocument, ARefusedDocumentLeavesTheSettingsAsTheyAre)
{
    zn::Settings settings = process(R"("oomScoreAdj":7)");
    zn::SettingsFault fault;
    EXPECT_EQ(zn::settings_read(R"({"process":{"oomScoreAdj":8,"terminal":1}})", settings, fault),
              EINVAL);
    EXPECT_EQ(settings.oomScoreAdj, 7);
    EXPECT_EQ(zn::settings_read("{}", settings, fault), 0);
    EXPECT_FALSE(settings.oomScoreAdj);
}

TEST(SettingsDocument, MayHaveFourMebibytes)
{
    std::string document = R"({"annotations":{"a":")";
    document.append(4 * 1024 * 1024 - document.size() - 3, 'x');
    document += "\"}}";
    accepted(document);
    const Read longer = read(document + " ");
    EXPECT_EQ(longer.error, EINVAL);
    EXPECT_STREQ(longer.fault.reason, "longer than 4194304 bytes");
}

TEST(SettingsDocument, IsRefusedWithANulByte)
{
    const Read result = read(std::string_view("{\"a\0\":1}", 8));
    EXPECT_EQ(result.error, EINVAL);
    EXPECT_STREQ(result.fault.reason, "contains a NUL character");
}

TEST(SettingsDocument, AnEscapedBackslashBeforeU0000IsNoNul)
{
    accepted(R"({"annotations":{"a":"\\u0000"}})");
}

TEST(SettingsDocument, IsRefusedWhenNestedTooDeep)
{
    const Read result = read("{\"a\":" + std::string(5000, '[') + std::string(5000, ']') + "}");
    EXPECT_EQ(result.error, EINVAL);
    EXPECT_STREQ(result.fault.reason, "not JSON");
}

TEST(SettingsDocument, AnObjectWithTooManyMembersIsRefused)
{
    std::string members;
    for (int i = 0; i < 257; i++)
        members += (i > 0 ? ",\"net.a" : "\"net.a") + std::to_string(i) + "\":\"1\"";
    const Read result = read(in("linux", "\"sysctl\":{" + members + "}"));
    EXPECT_EQ(result.error, EINVAL);
    EXPECT_STREQ(result.fault.field, "linux.sysctl");
}

TEST(SettingsDocument, LongNamesAreCutInTheFault)
{
    const Read result = read(in("process", "\"user\":{\"" + std::string(500, 'n') + "\":1}"));
    EXPECT_EQ(result.error, EINVAL);
    EXPECT_EQ(std::string(result.fault.field).size(), sizeof result.fault.field - 1);
}

constexpr Refusal kDocuments[] = {
    {"Nothing", nullptr, "", EINVAL, "config.json", "not JSON"},
    {"Text", nullptr, "hello", EINVAL, "config.json", "not JSON"},
    {"TwoDocuments", nullptr, "{} {}", EINVAL, "config.json", "not JSON"},
    {"Array", nullptr, "[]", EINVAL, "config.json", "not an object"},
    {"EscapedNul", nullptr, R"({"process":{"args":["a\u0000"]}})", EINVAL, "config.json",
     "contains a NUL character"},
    {"SectionTwice", nullptr, R"({"linux":{},"linux":{}})", EINVAL, "linux", "occurs twice"},
    {"SectionTwiceInAnotherCase", nullptr, R"({"process":{},"PROCESS":{}})", EINVAL, "PROCESS",
     "occurs twice"},
    {"OtherSectionTwice", nullptr, R"({"mounts":[],"Mounts":[]})", EINVAL, "Mounts",
     "occurs twice"},
    {"MemberTwice", "process", R"("user":{"uid":1,"gid":1,"uid":0})", EINVAL, "process.user.uid",
     "occurs twice"},
    {"MemberTwiceInAnotherCase", "process", R"("user":{"uid":1,"gid":1,"Uid":0})", EINVAL,
     "process.user.Uid", "occurs twice"},
    {"MemberTwiceAndNull", "process", R"("terminal":true,"terminal":null)", EINVAL,
     "process.terminal", "occurs twice"},
    {"LinuxInAnotherCase", nullptr, R"({"Linux":{}})", EINVAL, "Linux",
     "must be spelled \"linux\""},
    {"ProcessNumber", nullptr, R"({"process":5})", EINVAL, "process", "not an object"},
    {"RootText", nullptr, R"({"root":"x"})", EINVAL, "root", "not an object"},
    {"LinuxNumber", nullptr, R"({"linux":5})", EINVAL, "linux", "not an object"},
    {"LinuxArray", nullptr, R"({"linux":[]})", EINVAL, "linux", "not an object"},
    {"RootReadonly", nullptr, R"({"root":{"readonly":1}})", EINVAL, "root.readonly",
     "not true or false"},
    {"ControlCharactersInName", "process", "\"user\":{\"a\\u001b[\\n\":1}", EINVAL,
     "process.user.a?[?", "is unknown"},
};
REFUSED_SETTINGS(Document, kDocuments);

// ---------------------------------------------------------------- root and process

TEST(SettingsRoot, MayBeReadOnly)
{
    EXPECT_TRUE(accepted(R"({"root":{"path":"r","readonly":true}})").rootReadonly);
    EXPECT_FALSE(accepted(R"({"root":{"path":"r","readonly":false}})").rootReadonly);
}

TEST(SettingsUser, IsReadByNumber)
{
    const zn::User user = std::move(
        process(R"("user":{"uid":1000,"gid":4294967294,"umask":18,"additionalGids":[5,0,5]})")
            .user);
    EXPECT_TRUE(user.given);
    EXPECT_EQ(user.uid, 1000U);
    EXPECT_EQ(user.gid, 4294967294U);
    EXPECT_EQ(user.umask, 18U);
    EXPECT_EQ(items(user.groups), (std::vector<std::uint32_t>{5, 0, 5}));
}

TEST(SettingsUser, UmaskAndGroupsMayBeAbsent)
{
    const zn::User user = std::move(process(R"("user":{"uid":0,"gid":0,"username":""})").user);
    EXPECT_TRUE(user.given);
    EXPECT_FALSE(user.umask);
    EXPECT_TRUE(user.groups.empty());
}

constexpr Refusal kUsers[] = {
    {"NotAnObject", "process", R"("user":"root")", EINVAL, "process.user", "not an object"},
    {"NoUid", "process", R"("user":{"gid":1})", EINVAL, "process.user.uid", "is missing"},
    {"NoGid", "process", R"("user":{"uid":1,"gid":null})", EINVAL, "process.user.gid",
     "is missing"},
    {"NegativeUid", "process", R"("user":{"uid":-1,"gid":1})", EINVAL, "process.user.uid",
     "not a whole number from 0 to 4294967294"},
    {"InvalidUid", "process", R"("user":{"uid":4294967295,"gid":1})", EINVAL, "process.user.uid",
     "not a whole number from 0 to 4294967294"},
    {"FractionalGid", "process", R"("user":{"uid":1,"gid":1.5})", EINVAL, "process.user.gid",
     "not a whole number from 0 to 4294967294"},
    {"InfiniteGid", "process", R"("user":{"uid":1,"gid":1e999})", EINVAL, "process.user.gid",
     "not a whole number from 0 to 4294967294"},
    {"TextUid", "process", R"("user":{"uid":"1","gid":1})", EINVAL, "process.user.uid",
     "not a whole number from 0 to 4294967294"},
    {"Umask", "process", R"("user":{"uid":1,"gid":1,"umask":512})", EINVAL, "process.user.umask",
     "not a whole number from 0 to 511"},
    {"Groups", "process", R"("user":{"uid":1,"gid":1,"additionalGids":[0,"x"]})", EINVAL,
     "process.user.additionalGids[1]", "not a whole number from 0 to 4294967294"},
    {"GroupsNoArray", "process", R"("user":{"uid":1,"gid":1,"additionalGids":{"a":1}})", EINVAL,
     "process.user.additionalGids", "not an array"},
    {"Username", "process", R"("user":{"uid":1,"gid":1,"username":"bob"})", ENOTSUP,
     "process.user.username", "is not supported"},
    {"Unknown", "process", R"("user":{"uid":1,"gid":1,"shell":"x"})", EINVAL, "process.user.shell",
     "is unknown"},
};
REFUSED_SETTINGS(User, kUsers);

TEST(SettingsCapabilities, AreReadIntoFiveSets)
{
    const zn::Capabilities sets =
        process(R"("capabilities":{"bounding":["CAP_CHOWN","CAP_CHECKPOINT_RESTORE"],
                    "effective":["CAP_KILL"],"permitted":["CAP_KILL","CAP_CHOWN","CAP_KILL"],
                    "inheritable":["CAP_SYS_ADMIN"],"ambient":["CAP_BPF"]})")
            .capabilities;
    EXPECT_TRUE(sets.given);
    EXPECT_EQ(sets.bounding, bit(CAP_CHOWN) | bit(CAP_CHECKPOINT_RESTORE));
    EXPECT_EQ(sets.effective, bit(CAP_KILL));
    EXPECT_EQ(sets.permitted, bit(CAP_KILL) | bit(CAP_CHOWN));
    EXPECT_EQ(sets.inheritable, bit(CAP_SYS_ADMIN));
    EXPECT_EQ(sets.ambient, bit(CAP_BPF));
}

TEST(SettingsCapabilities, AbsentListsAreEmpty)
{
    const zn::Capabilities sets =
        process(R"("capabilities":{"bounding":["CAP_CHOWN"]})").capabilities;
    EXPECT_EQ(sets.bounding, bit(CAP_CHOWN));
    EXPECT_EQ(sets.effective | sets.permitted | sets.inheritable | sets.ambient, 0U);
    const zn::Capabilities none = process(R"("capabilities":{})").capabilities;
    EXPECT_TRUE(none.given);
    EXPECT_EQ(none.bounding, 0U);
}

constexpr Refusal kCapabilities[] = {
    {"UnknownName", "process", R"("capabilities":{"bounding":["CAP_KILL","CAP_NO"]})", EINVAL,
     "process.capabilities.bounding[1]", "unknown capability \"CAP_NO\""},
    {"NameInLowerCase", "process", R"("capabilities":{"ambient":["cap_kill"]})", EINVAL,
     "process.capabilities.ambient[0]", "unknown capability \"cap_kill\""},
    {"NameWithoutPrefix", "process", R"("capabilities":{"permitted":["KILL"]})", EINVAL,
     "process.capabilities.permitted[0]", "unknown capability \"KILL\""},
    {"Number", "process", R"("capabilities":{"inheritable":[5]})", EINVAL,
     "process.capabilities.inheritable[0]", "not a string"},
    {"Text", "process", R"("capabilities":{"effective":"CAP_KILL"})", EINVAL,
     "process.capabilities.effective", "not an array"},
    {"List", "process", R"("capabilities":["CAP_KILL"])", EINVAL, "process.capabilities",
     "not an object"},
    {"EffectiveButNotPermitted", "process", R"("capabilities":{"effective":["CAP_KILL"]})", EINVAL,
     "process.capabilities.effective", "contains a capability that \"permitted\" does not contain"},
    {"UnknownSet", "process", R"("capabilities":{"all":["CAP_KILL"]})", EINVAL,
     "process.capabilities.all", "is unknown"},
};
REFUSED_SETTINGS(Capabilities, kCapabilities);

TEST(SettingsRlimits, AreReadByName)
{
    const zn::Settings settings =
        process(R"("rlimits":[{"type":"RLIMIT_NOFILE","soft":1024,"hard":9007199254740991},
                              {"type":"RLIMIT_CORE","soft":0,"hard":0}])");
    ASSERT_EQ(settings.rlimits.size(), 2U);
    EXPECT_EQ(settings.rlimits[0].resource, RLIMIT_NOFILE);
    EXPECT_EQ(settings.rlimits[0].soft, 1024U);
    EXPECT_EQ(settings.rlimits[0].hard, 9007199254740991U);
    EXPECT_EQ(settings.rlimits[1].resource, RLIMIT_CORE);
}

TEST(SettingsRlimits, HugeNumbersMeanUnlimited)
{
    const zn::Settings settings = process(
        R"("rlimits":[{"type":"RLIMIT_AS","soft":9223372036854775807,"hard":18446744073709551615}])");
    ASSERT_EQ(settings.rlimits.size(), 1U);
    EXPECT_EQ(settings.rlimits[0].soft, RLIM_INFINITY);
    EXPECT_EQ(settings.rlimits[0].hard, RLIM_INFINITY);
}

constexpr const char* kRlimitNames[] = {
    "AS",   "CORE",   "CPU",   "DATA", "FSIZE",  "LOCKS",  "MEMLOCK",    "MSGQUEUE",
    "NICE", "NOFILE", "NPROC", "RSS",  "RTPRIO", "RTTIME", "SIGPENDING", "STACK"};

TEST(SettingsRlimits, AllOfTheKernelAreKnown)
{
    std::uint32_t known = 0;
    for (const std::string name : kRlimitNames) {
        const zn::Settings settings =
            process(R"("rlimits":[{"type":"RLIMIT_)" + name + R"(","soft":1,"hard":2}])");
        ASSERT_EQ(settings.rlimits.size(), 1U) << name;
        known |= 1U << settings.rlimits[0].resource;
    }
    EXPECT_EQ(known, (1U << RLIM_NLIMITS) - 1);
}

constexpr char kRange[] = "not a whole number from 0 to 9007199254740991";
constexpr Refusal kRlimits[] = {
    {"UnknownType", "process", R"("rlimits":[{"type":"RLIMIT_X","soft":1,"hard":1}])", EINVAL,
     "process.rlimits[0].type", "unknown limit \"RLIMIT_X\""},
    {"NoType", "process", R"("rlimits":[{"soft":1,"hard":1}])", EINVAL, "process.rlimits[0].type",
     "is missing"},
    {"NoHard", "process", R"("rlimits":[{"type":"RLIMIT_CPU","soft":1}])", EINVAL,
     "process.rlimits[0].hard", "is missing"},
    {"Negative", "process", R"("rlimits":[{"type":"RLIMIT_CPU","soft":-1,"hard":1}])", EINVAL,
     "process.rlimits[0].soft", kRange},
    {"NotExact", "process", R"("rlimits":[{"type":"RLIMIT_CPU","soft":1,"hard":9007199254740993}])",
     EINVAL, "process.rlimits[0].hard", kRange},
    {"BeyondAllNumbers", "process", R"("rlimits":[{"type":"RLIMIT_CPU","soft":1,"hard":1e30}])",
     EINVAL, "process.rlimits[0].hard", kRange},
    {"SoftAboveHard", "process", R"("rlimits":[{"type":"RLIMIT_CPU","soft":2,"hard":1}])", EINVAL,
     "process.rlimits[0].soft", "higher than \"hard\""},
    {"Twice", "process",
     R"("rlimits":[{"type":"RLIMIT_CPU","soft":1,"hard":1},{"type":"RLIMIT_CPU","soft":2,"hard":2}])",
     EINVAL, "process.rlimits[1].type", "second limit of type \"RLIMIT_CPU\""},
    {"NotAnObject", "process", R"("rlimits":[7])", EINVAL, "process.rlimits[0]", "not an object"},
};
REFUSED_SETTINGS(Rlimits, kRlimits);

TEST(SettingsProcess, SingleMembersAreRead)
{
    const zn::Settings settings =
        process(R"("noNewPrivileges":false,"oomScoreAdj":-1000,"terminal":true,
                   "consoleSize":{"height":24,"width":80},
                   "apparmorProfile":"profile","selinuxLabel":"u:r:t:s0:c1,c2")");
    EXPECT_EQ(settings.noNewPrivileges, false);
    EXPECT_EQ(settings.oomScoreAdj, -1000);
    EXPECT_TRUE(settings.terminal);
    EXPECT_EQ(text_of(settings.apparmorProfile), "profile");
    EXPECT_EQ(text_of(settings.selinuxLabel), "u:r:t:s0:c1,c2");
    EXPECT_EQ(process(R"("noNewPrivileges":true)").noNewPrivileges, true);
}

TEST(SettingsProcess, EmptyValuesAskForNothing)
{
    const zn::Settings settings = process(
        R"("apparmorProfile":"","selinuxLabel":"","ioPriority":{},"scheduler":{},"commandLine":"")");
    EXPECT_EQ(settings.apparmorProfile, nullptr);
    EXPECT_EQ(settings.selinuxLabel, nullptr);
}

constexpr Refusal kProcesses[] = {
    {"NoNewPrivileges", "process", R"("noNewPrivileges":"no")", EINVAL, "process.noNewPrivileges",
     "not true or false"},
    {"Terminal", "process", R"("terminal":1)", EINVAL, "process.terminal", "not true or false"},
    {"OomScoreTooLow", "process", R"("oomScoreAdj":-1001)", EINVAL, "process.oomScoreAdj",
     "not a whole number from -1000 to 1000"},
    {"OomScoreTooHigh", "process", R"("oomScoreAdj":1001)", EINVAL, "process.oomScoreAdj",
     "not a whole number from -1000 to 1000"},
    {"ApparmorProfile", "process", R"("apparmorProfile":[])", EINVAL, "process.apparmorProfile",
     "not a string"},
    {"SelinuxLabel", "process", "\"selinuxLabel\":\"a\\nb\"", EINVAL, "process.selinuxLabel",
     "contains a control character"},
    {"IoPriority", "process", R"("ioPriority":{"class":"IOPRIO_CLASS_RT"})", ENOTSUP,
     "process.ioPriority", "is not supported"},
    {"Scheduler", "process", R"("scheduler":{"policy":"SCHED_FIFO"})", ENOTSUP, "process.scheduler",
     "is not supported"},
    {"ExecCpuAffinity", "process", R"("execCPUAffinity":{"initial":"0"})", ENOTSUP,
     "process.execCPUAffinity", "is not supported"},
    {"CommandLine", "process", R"("commandLine":"x")", ENOTSUP, "process.commandLine",
     "is not supported"},
    {"KnownNameInAnotherCase", "process", R"("User":{"uid":1,"gid":1})", EINVAL, "process.User",
     "is unknown"},
};
REFUSED_SETTINGS(Process, kProcesses);

} // namespace
