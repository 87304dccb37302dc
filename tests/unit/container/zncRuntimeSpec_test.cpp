#include "zncRuntimeSpec.hpp"

#include "alloc_fault.hpp"
#include "descriptors.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

// Checks the order of all fields of all records: designated initializers must follow the
// declaration order, and -Wmissing-field-initializers reports missing ones.
[[maybe_unused]] constexpr runtimeSpecConfigAnnotations kAnnotations = {
    .k = nullptr, .v = nullptr, .count = 0, .tree = nullptr};
[[maybe_unused]] constexpr runtimeSpecConfigProcess kProcess = {.args = nullptr,
                                                                .argCount = 0,
                                                                .env = nullptr,
                                                                .envCount = 0,
                                                                .cwd = nullptr,
                                                                .terminal = false,
                                                                .tree = nullptr};
[[maybe_unused]] constexpr runtimeHookNode kNode = {
    .rtpPath = nullptr, .args = nullptr, .argsCnt = 0, .env = nullptr, .envCnt = 0};
[[maybe_unused]] constexpr runtimeSpecConfigHook kHook = {
    .nodeCnt = 0, .hookNode = nullptr, .tree = nullptr};
[[maybe_unused]] constexpr runtimeSpecConfigRoot kRoot = {
    .path = nullptr, .ro = false, .tree = nullptr};
[[maybe_unused]] constexpr runtimeSpecConfigZarnel kZarnel = {
    .option = 0, .priority = 0, .stackSize = 0, .taskOption = 0, .tree = nullptr};
[[maybe_unused]] constexpr runtimeSpecConfigMount kMount = {
    .src = nullptr, .dst = nullptr, .opt = nullptr, .optLen = 0, .type = nullptr};
[[maybe_unused]] constexpr runtimeSpecConfigMounts kMounts = {
    .count = 0, .mount = nullptr, .tree = nullptr};
[[maybe_unused]] constexpr runtimeSpecConfig kConfig = {.version = nullptr,
                                                        .hostName = nullptr,
                                                        .annotations = nullptr,
                                                        .process = nullptr,
                                                        .hooks = {},
                                                        .root = nullptr,
                                                        .zarnel = nullptr,
                                                        .mounts = nullptr,
                                                        .tree = nullptr};
static_assert(sizeof kConfig.hooks / sizeof kConfig.hooks[0] == 6);
static_assert(std::is_same_v<decltype(runtimeSpecConfigZarnel::priority), std::int32_t>);
static_assert(std::is_same_v<decltype(runtimeSpecConfigProcess::argCount), std::int32_t>);
static_assert(std::is_same_v<decltype(runtimeSpecConfigMount::optLen), std::size_t>);
static_assert(std::is_same_v<runtimeHookNode, struct runtimeHookNodeFunc>);

struct SpecDeleter {
    void operator()(runtimeSpecConfig* config) const { zncDestroyRuntimeSpec(config); }
};
using Spec = std::unique_ptr<runtimeSpecConfig, SpecDeleter>;

class RuntimeSpec : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char dir[] = "/tmp/specXXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        top = dir;
        path = top + "/config.json";
    }
    void TearDown() override { std::filesystem::remove_all(top); }

    Spec load(const std::string& text)
    {
        std::ofstream(path, std::ios::trunc) << text;
        return Spec(zncInitializeRuntimeSpec(path.c_str()));
    }

    // Returns a document with the required section and `members`.
    Spec load_with(const std::string& members)
    {
        return load(R"({"process":{"args":["/a"]},)" + members + "}");
    }

    std::string top, path;
};

std::vector<std::string> texts(char** list)
{
    std::vector<std::string> all;
    for (; *list != nullptr; ++list)
        all.emplace_back(*list);
    return all;
}

using Texts = std::vector<std::string>;

// ------------------------------------------------------------------ the whole document

TEST_F(RuntimeSpec, ProcessWithEmptyArgsAloneLoadsWithEveryDefault)
{
    const Spec spec = load(R"({"process":{"args":[]}})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->version, nullptr);
    EXPECT_EQ(spec->hostName, nullptr);
    EXPECT_EQ(spec->root, nullptr);
    EXPECT_EQ(spec->annotations, nullptr);
    EXPECT_EQ(spec->mounts, nullptr);
    for (const runtimeSpecConfigHook* hook : spec->hooks)
        EXPECT_EQ(hook, nullptr);
    ASSERT_NE(spec->zarnel, nullptr);
    EXPECT_EQ(spec->zarnel->option, 0);
    EXPECT_EQ(spec->zarnel->priority, 100);
    EXPECT_EQ(spec->zarnel->stackSize, 8192);
    EXPECT_EQ(spec->zarnel->taskOption, 0);
    EXPECT_EQ(spec->zarnel->tree, nullptr);
    ASSERT_NE(spec->process, nullptr);
    ASSERT_NE(spec->process->args, nullptr);
    EXPECT_EQ(spec->process->args[0], nullptr);
    EXPECT_EQ(spec->process->argCount, 0);
    EXPECT_EQ(spec->process->env, nullptr);
    EXPECT_EQ(spec->process->envCount, 0);
    EXPECT_EQ(spec->process->cwd, nullptr);
    EXPECT_FALSE(spec->process->terminal);
}

TEST_F(RuntimeSpec, FullDocumentIsReadIntoEveryField)
{
    const Spec spec = load(R"({
        "ociVersion": "1.0.2", "hostname": "h", "unknown": 1,
        "process": {"args": ["/bin/app", "-x"], "env": ["A=1", "B=2"], "cwd": "/w", "terminal": true,
                    "usr": {"uid": 1, "gid": 2}},
        "zarnel": {"rtp": {"rtpOptions": "0x40", "rtpPriority": "10", "rtpStackSize": "0200",
                           "rtpTaskOptions": "7"}, "resources": {}},
        "annotations": {"k1": "v1", "k2": 5},
        "mounts": [{"source": "/s", "destination": "/d", "type": "bind", "options": ["ro", "nosuid"]}],
        "root": {"path": "rootfs", "readonly": true}})");
    ASSERT_TRUE(spec);
    EXPECT_STREQ(spec->version, "1.0.2");
    EXPECT_STREQ(spec->hostName, "h");
    EXPECT_EQ(texts(spec->process->args), (Texts{"/bin/app", "-x"}));
    EXPECT_EQ(spec->process->argCount, 2);
    EXPECT_EQ(texts(spec->process->env), (Texts{"A=1", "B=2"}));
    EXPECT_EQ(spec->process->envCount, 2);
    EXPECT_STREQ(spec->process->cwd, "/w");
    EXPECT_TRUE(spec->process->terminal);
    EXPECT_EQ(spec->process->tree, cJSON_GetObjectItem(spec->tree, "process"));
    EXPECT_EQ(spec->zarnel->option, 0x40);
    EXPECT_EQ(spec->zarnel->priority, 10);
    EXPECT_EQ(spec->zarnel->stackSize, 0200);
    EXPECT_EQ(spec->zarnel->taskOption, 7);
    EXPECT_EQ(spec->zarnel->tree, cJSON_GetObjectItem(spec->tree, "zarnel"));
    ASSERT_NE(spec->annotations, nullptr);
    EXPECT_EQ(spec->annotations->count, 2);
    EXPECT_EQ(spec->annotations->tree, cJSON_GetObjectItem(spec->tree, "annotations"));
    EXPECT_STREQ(spec->annotations->k[0], "k1");
    EXPECT_STREQ(spec->annotations->v[0], "v1");
    EXPECT_STREQ(spec->annotations->k[1], "k2");
    EXPECT_EQ(spec->annotations->v[1], nullptr);
    ASSERT_NE(spec->mounts, nullptr);
    ASSERT_EQ(spec->mounts->count, 1);
    EXPECT_STREQ(spec->mounts->mount[0]->src, "/s");
    EXPECT_STREQ(spec->mounts->mount[0]->dst, "/d");
    EXPECT_STREQ(spec->mounts->mount[0]->type, "bind");
    EXPECT_EQ(texts(spec->mounts->mount[0]->opt), (Texts{"ro", "nosuid"}));
    ASSERT_NE(spec->root, nullptr);
    EXPECT_STREQ(spec->root->path, "rootfs");
    EXPECT_TRUE(spec->root->ro);
}

TEST_F(RuntimeSpec, KeysMatchWithoutRegardToCase)
{
    const Spec spec =
        load(R"({"OCIVERSION":"1","Process":{"ARGS":["/a"],"Cwd":"/c"},"ROOT":{"Path":"r"}})");
    ASSERT_TRUE(spec);
    EXPECT_STREQ(spec->version, "1");
    EXPECT_STREQ(spec->process->cwd, "/c");
    EXPECT_STREQ(spec->root->path, "r");
}

TEST_F(RuntimeSpec, FirstOfTwoEqualKeysWins)
{
    const Spec spec = load_with(R"("hostname":"first","HOSTNAME":"second")");
    ASSERT_TRUE(spec);
    EXPECT_STREQ(spec->hostName, "first");
}

TEST_F(RuntimeSpec, WrongTypesReadAsAbsent)
{
    const Spec spec = load(R"({"ociVersion":1,"hostname":["h"],"annotations":"x","hooks":"y",
        "root":[],"zarnel":"z","process":{"args":["/a"],"cwd":{},"terminal":"true"}})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->version, nullptr);
    EXPECT_EQ(spec->hostName, nullptr);
    EXPECT_EQ(spec->annotations, nullptr);
    EXPECT_EQ(spec->hooks[0], nullptr);
    EXPECT_EQ(spec->root, nullptr);
    EXPECT_EQ(spec->zarnel->priority, 100);
    EXPECT_EQ(spec->process->cwd, nullptr);
    EXPECT_FALSE(spec->process->terminal);
}

TEST_F(RuntimeSpec, DestroyingNullDoesNothing)
{
    errno = 5;
    zncDestroyRuntimeSpec(nullptr);
    destroyRuntimeSpecProcess(nullptr);
    destroyRuntimeSpecZarnel(nullptr);
    destroyRuntimeSpecAnnotations(nullptr);
    destroyRuntimeSpecMounts(nullptr);
    destroyRuntimeSpecRoot(nullptr);
    destroyRuntimeSpecHook(nullptr);
    destroyRuntimeHookNode(nullptr);
    EXPECT_EQ(errno, 5);
}

TEST_F(RuntimeSpec, ProcessThatIsRefusedDoesNotLeaveAnOldENOENT)
{
    const znc::CJsonPtr tree(cJSON_Parse(R"({"cwd":"/"})"));
    errno = ENOENT;
    EXPECT_EQ(initializeRuntimeSpecProcess(tree.get()), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(RuntimeSpec, ReadersOfAnAbsentSectionGiveNullExceptZarnel)
{
    EXPECT_EQ(initializeRuntimeSpecProcess(nullptr), nullptr);
    EXPECT_EQ(initializeRuntimeSpecAnnotations(nullptr), nullptr);
    EXPECT_EQ(initializeRuntimeSpecMounts(nullptr), nullptr);
    EXPECT_EQ(initializeRuntimeSpecRoot(nullptr), nullptr);
    EXPECT_EQ(initializeRuntimeSpecHook(nullptr, 0), nullptr);
    EXPECT_EQ(initializeRuntimeHookNode(nullptr), nullptr);
    EXPECT_EQ(getMountsOption(nullptr), nullptr);
    runtimeSpecConfigHook unset = {};
    runtimeSpecConfigHook* hooks[RUNTIME_HOOK_KINDS];
    std::fill(std::begin(hooks), std::end(hooks), &unset);
    initializeRuntimeSpecHooks(nullptr, hooks);
    for (const runtimeSpecConfigHook* hook : hooks)
        EXPECT_EQ(hook, nullptr);
}

TEST_F(RuntimeSpec, OnlyTheBooleanTrueIsTrue)
{
    const znc::CJsonPtr tree(cJSON_Parse(R"({"yes":true,"no":false,"one":1,"text":"true"})"));
    EXPECT_TRUE(runtimeSpecGetBoolean(tree.get(), "yes"));
    for (const char* name : {"no", "one", "text", "absent"})
        EXPECT_FALSE(runtimeSpecGetBoolean(tree.get(), name)) << name;
}

// ------------------------------------------------------------------ refused documents

TEST_F(RuntimeSpec, MissingFileIsNullWithENOENT)
{
    errno = 0;
    EXPECT_EQ(zncInitializeRuntimeSpec((top + "/absent").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(RuntimeSpec, DirectoryInPlaceOfTheFileIsNullAndNotENOENT)
{
    errno = ENOENT;
    EXPECT_EQ(zncInitializeRuntimeSpec(top.c_str()), nullptr);
    EXPECT_NE(errno, ENOENT);
}

TEST_F(RuntimeSpec, TextThatIsNoJsonIsNull)
{
    EXPECT_FALSE(load("{\"process\": "));
    EXPECT_FALSE(load(""));
    errno = ENOENT;
    EXPECT_FALSE(load("no json"));
    EXPECT_NE(errno, ENOENT);
}

TEST_F(RuntimeSpec, DocumentWithoutProcessIsNullAndNotENOENT)
{
    errno = ENOENT;
    EXPECT_FALSE(load(R"({"ociVersion":"1","root":{"path":"r"}})"));
    EXPECT_NE(errno, ENOENT);
    EXPECT_FALSE(load("[]"));
    EXPECT_FALSE(load("5"));
}

TEST_F(RuntimeSpec, ProcessWithCwdButWithoutArgsIsNull)
{
    errno = ENOENT;
    EXPECT_FALSE(load(R"({"process":{"cwd":"/"}})"));
    EXPECT_NE(errno, ENOENT);
}

// Makes each allocation of a load fail once: the result is NULL or has all required parts, and
// nothing leaks (checked by the sanitizer build).
TEST_F(RuntimeSpec, EveryFailingAllocationGivesNullOrWholeSections)
{
    load(R"({"process":{"args":["/a","b"],"env":["A=1"]},"zarnel":{"rtp":{"rtpPriority":"1"}},
        "annotations":{"a":"b","c":"d"},"root":{"path":"r"},
        "mounts":[{"source":"/s","options":["ro"]},{"destination":"/d","options":["rw","x"]}],
        "hooks":{"prestart":{"path":"/x","args":["1"],"env":["2"]},"poststop":[{"path":"/y"}]}})");
    unsigned refused = 0;
    const auto descriptors = open_descriptors();
    for (unsigned n = 1;; n++) {
        alloc_fault::arm(n);
        Spec spec(zncInitializeRuntimeSpec(path.c_str()));
        const unsigned asked = alloc_fault::disarm();
        if (!spec)
            refused++;
        if (spec && spec->mounts != nullptr) {
            ASSERT_EQ(spec->mounts->count, 2) << n;
            EXPECT_EQ(texts(spec->mounts->mount[0]->opt), (Texts{"ro"})) << n;
            EXPECT_EQ(texts(spec->mounts->mount[1]->opt), (Texts{"rw", "x"})) << n;
        }
        if (spec) {
            EXPECT_EQ(texts(spec->process->args), (Texts{"/a", "b"})) << n;
            EXPECT_EQ(texts(spec->process->env), (Texts{"A=1"})) << n;
            EXPECT_EQ(spec->zarnel->priority, 1) << n;
        }
        if (asked < n) {
            EXPECT_TRUE(spec);
            break;
        }
    }
    EXPECT_GE(refused, 6u); // record, file, document, process, its lists, zarnel
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(RuntimeSpec, MemoryShortForProcessOrZarnelRecordIsNullWithENOMEM)
{
    const znc::CJsonPtr tree(cJSON_Parse(R"({"args":["/a"],"env":["A=1"]})"));
    for (unsigned n = 1; n <= 3; n++) { // record, args, env
        errno = 0;
        alloc_fault::arm(n);
        EXPECT_EQ(initializeRuntimeSpecProcess(tree.get()), nullptr) << n;
        EXPECT_EQ(alloc_fault::disarm(), n);
        EXPECT_EQ(errno, ENOMEM);
    }
    errno = 0;
    alloc_fault::arm(1);
    EXPECT_EQ(initializeRuntimeSpecZarnel(nullptr), nullptr);
    EXPECT_EQ(alloc_fault::disarm(), 1u);
    EXPECT_EQ(errno, ENOMEM);
}

TEST_F(RuntimeSpec, MountThatCannotBeAllocatedFailsTheSection)
{
    const znc::CJsonPtr tree(cJSON_Parse(R"([{"options":["ro"]},{"options":["ro"]}])"));
    for (unsigned n = 1; n <= 6; n++) { // record, list, then entry and options twice
        alloc_fault::arm(n);
        EXPECT_EQ(initializeRuntimeSpecMounts(tree.get()), nullptr) << n;
        EXPECT_EQ(alloc_fault::disarm(), n);
    }
}

// ------------------------------------------------------------------ sections

TEST_F(RuntimeSpec, ElementThatIsNoTextIsANullArgument)
{
    const Spec spec = load(R"({"process":{"args":["/bin/app",5,"x"]}})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->process->argCount, 3);
    EXPECT_STREQ(spec->process->args[0], "/bin/app");
    EXPECT_EQ(spec->process->args[1], nullptr);
    EXPECT_STREQ(spec->process->args[2], "x");
    EXPECT_EQ(spec->process->args[3], nullptr);
}

TEST_F(RuntimeSpec, ArgsOfAnyTypeIsPresent)
{
    const Spec spec = load(R"({"process":{"args":"/bin/app"}})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->process->argCount, 0);
    EXPECT_EQ(spec->process->args[0], nullptr);
}

TEST_F(RuntimeSpec, EmptyEnvIsAnEmptyListNotAnAbsentOne)
{
    const Spec spec = load(R"({"process":{"args":["/a"],"env":[]}})");
    ASSERT_TRUE(spec);
    ASSERT_NE(spec->process->env, nullptr);
    EXPECT_EQ(spec->process->env[0], nullptr);
    EXPECT_EQ(spec->process->envCount, 0);
}

TEST_F(RuntimeSpec, RtpNumbersAreTextInAnyBase)
{
    const Spec hex = load_with(R"("zarnel":{"rtp":{"rtpPriority":"0x64","rtpStackSize":"64k",
        "rtpOptions":"x","rtpTaskOptions":"010"}})");
    ASSERT_TRUE(hex);
    EXPECT_EQ(hex->zarnel->priority, 100);
    EXPECT_EQ(hex->zarnel->stackSize, 64);
    EXPECT_EQ(hex->zarnel->option, 0);
    EXPECT_EQ(hex->zarnel->taskOption, 8);
}

TEST_F(RuntimeSpec, RtpJsonNumberLeavesTheDefault)
{
    const Spec spec = load_with(R"("zarnel":{"rtp":{"rtpPriority":50,"rtpStackSize":1}})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->zarnel->priority, 100);
    EXPECT_EQ(spec->zarnel->stackSize, 8192);
}

TEST_F(RuntimeSpec, RtpNumbersAreNotCheckedForRange)
{
    const Spec spec = load_with(R"("zarnel":{"rtp":{"rtpPriority":"999","rtpStackSize":"0",
        "rtpOptions":"0XFFFFFFFF","rtpTaskOptions":""}})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->zarnel->priority, 999);
    EXPECT_EQ(spec->zarnel->stackSize, 0);
    EXPECT_EQ(spec->zarnel->option, -1);
    EXPECT_EQ(spec->zarnel->taskOption, 0);
}

TEST_F(RuntimeSpec, EmptyAnnotationsAreNull)
{
    const Spec spec = load_with(R"("annotations":{})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->annotations, nullptr);
}

TEST_F(RuntimeSpec, RootPathMustBeText)
{
    const Spec number = load_with(R"("root":{"path":5,"readonly":true})");
    ASSERT_TRUE(number);
    EXPECT_EQ(number->root, nullptr);
    const Spec empty = load_with(R"("root":{"path":""})");
    ASSERT_TRUE(empty);
    ASSERT_NE(empty->root, nullptr);
    EXPECT_STREQ(empty->root->path, "");
    EXPECT_FALSE(empty->root->ro);
    EXPECT_EQ(empty->root->tree, cJSON_GetObjectItem(empty->tree, "root"));
}

TEST_F(RuntimeSpec, EmptyMountsAreAnEmptyList)
{
    const Spec spec = load_with(R"("mounts":[])");
    ASSERT_TRUE(spec);
    ASSERT_NE(spec->mounts, nullptr);
    EXPECT_EQ(spec->mounts->count, 0);
    EXPECT_EQ(spec->mounts->tree, cJSON_GetObjectItem(spec->tree, "mounts"));
}

TEST_F(RuntimeSpec, MountNeedsNoField)
{
    const Spec spec = load_with(R"("mounts":[{},{"options":[]},{"options":["a",1,"b"]}])");
    ASSERT_TRUE(spec);
    ASSERT_EQ(spec->mounts->count, 3);
    const runtimeSpecConfigMount& bare = *spec->mounts->mount[0];
    EXPECT_EQ(bare.src, nullptr);
    EXPECT_EQ(bare.dst, nullptr);
    EXPECT_EQ(bare.type, nullptr);
    EXPECT_EQ(bare.opt, nullptr);
    EXPECT_EQ(spec->mounts->mount[1]->opt, nullptr);
    char** const opt = spec->mounts->mount[2]->opt;
    EXPECT_STREQ(opt[0], "a");
    EXPECT_EQ(opt[1], nullptr);
    EXPECT_STREQ(opt[2], "b");
    EXPECT_EQ(opt[3], nullptr);
}

// ------------------------------------------------------------------ hooks

TEST_F(RuntimeSpec, OnePrestartHookGivesOneNullNodeAndNoOtherKind)
{
    const Spec spec = load_with(R"("hooks":{"prestart":[{"path":"/bin/hook"}]})");
    ASSERT_TRUE(spec);
    ASSERT_NE(spec->hooks[0], nullptr);
    EXPECT_EQ(spec->hooks[0]->nodeCnt, 1);
    EXPECT_EQ(spec->hooks[0]->hookNode[0], nullptr);
    EXPECT_EQ(spec->hooks[0]->tree, cJSON_GetObjectItem(spec->tree, "hooks"));
    for (int kind = 1; kind < RUNTIME_HOOK_KINDS; kind++)
        EXPECT_EQ(spec->hooks[kind], nullptr);
}

TEST_F(RuntimeSpec, HookKindsHaveTheirSlots)
{
    const Texts names = {"prestart",       "createRuntime", "createContainer",
                         "startContainer", "poststart",     "poststop"};
    for (std::size_t kind = 0; kind < names.size(); kind++) {
        EXPECT_EQ(runtimeHookName[kind], names[kind]);
        const Spec spec = load_with("\"hooks\":{\"" + names[kind] + "\":[{},{}]}");
        ASSERT_TRUE(spec);
        for (std::size_t slot = 0; slot < names.size(); slot++)
            EXPECT_EQ(spec->hooks[slot] != nullptr, slot == kind);
        EXPECT_EQ(spec->hooks[kind]->nodeCnt, 2);
    }
}

TEST_F(RuntimeSpec, HookNodesMirrorTheMembersOfHooks)
{
    const Spec spec = load_with(R"("hooks":{"poststop":[{},{},{}],
        "extra":{"path":"/p","args":["x",1],"env":[]},"bad":{"path":7}})");
    ASSERT_TRUE(spec);
    const runtimeSpecConfigHook* const hook = spec->hooks[5];
    ASSERT_NE(hook, nullptr);
    ASSERT_EQ(hook->nodeCnt, 3);
    EXPECT_EQ(hook->hookNode[0], nullptr); // "poststop" itself has no path
    ASSERT_NE(hook->hookNode[1], nullptr);
    EXPECT_STREQ(hook->hookNode[1]->rtpPath, "/p");
    EXPECT_EQ(hook->hookNode[1]->argsCnt, 2);
    EXPECT_STREQ(hook->hookNode[1]->args[0], "x");
    EXPECT_EQ(hook->hookNode[1]->args[1], nullptr);
    ASSERT_NE(hook->hookNode[1]->env, nullptr);
    EXPECT_EQ(hook->hookNode[1]->envCnt, 0);
    EXPECT_EQ(hook->hookNode[2], nullptr);
}

TEST_F(RuntimeSpec, HookNodesAreAsManyAsTheKindHasEvenIfHooksHasMoreOrFewerMembers)
{
    const Spec fewer = load_with(R"("hooks":{"prestart":[{},{},{}]})");
    ASSERT_TRUE(fewer);
    ASSERT_EQ(fewer->hooks[0]->nodeCnt, 3);
    EXPECT_EQ(fewer->hooks[0]->hookNode[2], nullptr);
    const Spec more = load_with(R"("hooks":{"a":{"path":"/a"},"b":{"path":"/b"},"prestart":[{}]})");
    ASSERT_TRUE(more);
    ASSERT_EQ(more->hooks[0]->nodeCnt, 1);
    EXPECT_STREQ(more->hooks[0]->hookNode[0]->rtpPath, "/a");
    EXPECT_EQ(more->hooks[0]->hookNode[0]->args, nullptr);
    EXPECT_EQ(more->hooks[0]->hookNode[0]->argsCnt, 0);
    EXPECT_EQ(more->hooks[0]->hookNode[0]->env, nullptr);
}

TEST_F(RuntimeSpec, EmptyHookKindAndKindOutOfRangeAreNull)
{
    const Spec spec = load_with(R"("hooks":{"prestart":[]})");
    ASSERT_TRUE(spec);
    EXPECT_EQ(spec->hooks[0], nullptr);
    cJSON* const hooks = cJSON_GetObjectItem(spec->tree, "hooks");
    EXPECT_EQ(initializeRuntimeSpecHook(hooks, -1), nullptr);
    EXPECT_EQ(initializeRuntimeSpecHook(hooks, RUNTIME_HOOK_KINDS), nullptr);
}

TEST_F(RuntimeSpec, HookNodeThatCannotBeAllocatedIsNull)
{
    const znc::CJsonPtr tree(cJSON_Parse(R"({"path":"/x","args":["1"],"env":["2"]})"));
    for (unsigned n = 1; n <= 3; n++) { // record, args, env
        alloc_fault::arm(n);
        EXPECT_EQ(initializeRuntimeHookNode(tree.get()), nullptr) << n;
        EXPECT_EQ(alloc_fault::disarm(), n);
    }
}

} // namespace
