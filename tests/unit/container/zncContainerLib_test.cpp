#include "container_world.hpp"

#include "alloc_fault.hpp"
#include "descriptors.hpp"
#include "zarnel/overlay.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <future>
#include <type_traits>

namespace {

using Strings = std::vector<std::string>;

// Checks the order of all fields of all records: designated initializers must follow the
// declaration order, and -Wmissing-field-initializers reports missing ones.
[[maybe_unused]] constexpr CONTAINER_STATE kState = {.owner = nullptr,
                                                     .status = 0,
                                                     .pCtx = nullptr,
                                                     .createdTime = 0,
                                                     .ver = {},
                                                     .containerId = {},
                                                     .bundlePath = {}};
static_assert(sizeof kState.ver == 64 && sizeof kState.containerId == 255 &&
              sizeof kState.bundlePath == 1024);
[[maybe_unused]] constexpr CONTAINER_CTX kContext = {.containerNode = {nullptr},
                                                     .appPath = {},
                                                     .sem = nullptr,
                                                     .pidHandle = 0,
                                                     .mounted = FALSE,
                                                     .mountCount = 0,
                                                     .nsId = -1,
                                                     .state = kState,
                                                     .pConfig = nullptr};
static_assert(sizeof kContext.appPath == 1024);
[[maybe_unused]] constexpr CONTAINER_START_PARM kStart = {.appPath = nullptr,
                                                          .option = 0,
                                                          .priority = 0,
                                                          .stackSize = 0,
                                                          .taskOption = 0,
                                                          .nsId = -1,
                                                          .cwd = nullptr,
                                                          .posixFlags = 0,
                                                          .arg = nullptr,
                                                          .argNum = 0,
                                                          .env = nullptr,
                                                          .envNum = 0};
static_assert(std::is_same_v<decltype(kStart.posixFlags), std::int16_t>);
static_assert(STATE_CREATING == 0 && STATE_CREATED == 1 && STATE_RUNNING == 2 &&
              STATE_STOPPED == 3 && STATE_UNKNOWN == 4 && sizeof(CONTAINER_STATUS) == 4);
static_assert(znc::kMutexOptions == 0x0d);

class Registry : public ContainerWorld {
  protected:
    // Expects a create to fail with `code` and `texts`, and to change nothing.
    void expect_refused(const std::string& id, const std::string& bundle_path, int code,
                        const Strings& texts = {})
    {
        const Strings before = ids();
        const std::size_t namespaces = fake::namespaces().size();
        errno = 0;
        EXPECT_EQ(create(id, bundle_path), ERROR);
        EXPECT_EQ(errno, code);
        EXPECT_EQ(messages(), texts);
        EXPECT_EQ(ids(), before);
        EXPECT_EQ(fake::namespaces().size(), namespaces);
    }

    void start(const std::string& id)
    {
        CONTAINER_START_PARM param;
        ASSERT_EQ(zncContainerStart(id.c_str(), &param), OK);
    }

    // A container in the given state.
    void make(const std::string& id, CONTAINER_STATUS status)
    {
        ASSERT_EQ(create(id, bundle("bundle-" + id)), OK);
        if (status == STATE_CREATED)
            return;
        start(id);
        fake::set_in_use(status == STATE_RUNNING);
        ASSERT_EQ(status_of(id), status);
    }
};

// ------------------------------------------------------------------ validation

TEST_F(Registry, IdOf1To255CharactersIsValid)
{
    for (const std::string& id : {std::string("a"), std::string("..."), std::string("a b"),
                                  std::string("\x01\xff\n"), std::string(255, 'x')})
        EXPECT_TRUE(zncContainerIdValid(id.c_str())) << id;
}

TEST_F(Registry, BadIdsAreRefusedWithEINVALByEveryOperation)
{
    const std::string path = bundle("b");
    CONTAINER_START_PARM param;
    for (const std::string& id :
         {std::string(256, 'x'), std::string(), std::string("."), std::string(".."),
          std::string("a/b"), std::string("a\\b"), std::string("/"), std::string(254, 'x') + "/"}) {
        expect_refused(id, path, EINVAL);
        errno = 0;
        EXPECT_EQ(zncContainerStart(id.c_str(), &param), ERROR);
        EXPECT_EQ(errno, EINVAL) << id;
        errno = 0;
        EXPECT_EQ(zncContainerKill(id.c_str(), 9, 0), ERROR);
        EXPECT_EQ(errno, EINVAL) << id;
        errno = 0;
        EXPECT_EQ(zncContainerDelete(id.c_str(), 0), ERROR);
        EXPECT_EQ(errno, EINVAL) << id;
        errno = 0;
        EXPECT_EQ(zncContainerStorePidHandle(id.c_str(), 1), ERROR);
        EXPECT_EQ(errno, EINVAL) << id;
    }
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Registry, NullArgumentsAreRefusedWithEINVAL)
{
    CONTAINER_STATE state;
    CONTAINER_START_PARM param;
    char id[256] = "a";
    const auto expect_einval = [](STATUS result) {
        EXPECT_EQ(result, ERROR);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
    };
    expect_einval(zncContainerCreate(nullptr, "/b", 0, nullptr));
    expect_einval(zncContainerCreate("a", nullptr, 0, nullptr));
    expect_einval(zncContainerStart(nullptr, &param));
    expect_einval(zncContainerStart("a", nullptr));
    expect_einval(zncContainerKill(nullptr, 1, 0));
    expect_einval(zncContainerDelete(nullptr, 0));
    expect_einval(zncContainerStorePidHandle(nullptr, 1));
    expect_einval(zncContainerStateGet(nullptr, &state));
    expect_einval(zncContainerStateGet(id, nullptr));
}

TEST_F(Registry, AcceptedOddIdsCanBeCreatedAndFound)
{
    const Strings odd = {"\x01\x7f\xfe", "...", "a b c"};
    for (const std::string& id : odd)
        EXPECT_EQ(create(id, bundle("bundle-" + std::to_string(ids().size()))), OK) << errno;
    EXPECT_EQ(ids(), odd);
    for (const std::string& id : odd)
        EXPECT_EQ(status_of(id), STATE_CREATED);
}

TEST_F(Registry, PathSeparatorsAreBothSlashes)
{
    EXPECT_TRUE(pathIsSep('/'));
    EXPECT_TRUE(pathIsSep('\\'));
    EXPECT_FALSE(pathIsSep('.'));
    EXPECT_FALSE(pathIsSep('\0'));
}

TEST_F(Registry, BundlePathMustBeAbsolute)
{
    EXPECT_TRUE(zncBundlePathValid("/"));
    EXPECT_TRUE(zncBundlePathValid("\\b"));
    EXPECT_FALSE(zncBundlePathValid(""));
    expect_refused("a", "bundles/web", EINVAL);
    expect_refused("a", "", EINVAL);
}

TEST_F(Registry, CreateBeforeInitIsRefusedWithEINVAL)
{
    isInitialized = FALSE;
    EXPECT_EQ(create("a", bundle("b")), ERROR);
    EXPECT_EQ(errno, EINVAL);
    isInitialized = TRUE;
}

TEST_F(Registry, InitAgainKeepsTheRegistry)
{
    ASSERT_EQ(create("a", bundle("b")), OK);
    EXPECT_EQ(zncContainerInit(), OK);
    EXPECT_EQ(ids(), Strings{"a"});
}

TEST_F(Registry, InitWithoutMemoryFailsAndLeavesTheRegistryUninitialised)
{
    const SEM_ID sem = zncContainerSem;
    isInitialized = FALSE;
    alloc_fault::arm(1);
    EXPECT_EQ(zncContainerInit(), ERROR);
    alloc_fault::disarm();
    EXPECT_FALSE(isInitialized);
    zncContainerSem = sem;
    isInitialized = TRUE;
}

// ------------------------------------------------------------------ create

TEST_F(Registry, CreateFromABundleWhoseRootIsMadeOfOtherLayersIsROOTFS_CREATE_FAILED)
{
    set_overlay(true);
    const std::string root = "/overlay/chain";
    const std::string path = bundle("b", R"({"ociVersion":"1.0.2","root":{"path":"/overlay/chain"},
                        "process":{"args":["/bin/app"],"cwd":"/"}})");
    std::filesystem::create_directory(root); // the fake devices are in memory
    const char* const other[] = {"/store/layers/top", "/store/layers/other"};
    ASSERT_EQ(znOvlDevCreate(root.c_str(), other, 2, FALSE), OK);
    EXPECT_EQ(create("before", path), OK) << "a bundle without a record";
    std::ofstream(path + "/.zn-layers")
        << root << '\0' << "bottom" << '\0' << "top" << '\0' << '\0';
    expect_refused("web", path, S_zncLib_ROOTFS_CREATE_FAILED,
                   {"The root is made of other layers than the bundle was unpacked from; unpack "
                    "the image again: /overlay/chain"});
    std::ofstream(path + "/.zn-layers") << "cut off";
    expect_refused("web", path, S_zncLib_ROOTFS_CREATE_FAILED,
                   {"The layers of the root cannot be compared with those that the bundle was "
                    "unpacked from: /overlay/chain"});
    std::ofstream(path + "/.zn-layers") << root << '\0' << "other" << '\0' << "top" << '\0' << '\0';
    EXPECT_EQ(create("web", path), OK);
    remove_all_containers();
    std::filesystem::remove(root);
}

TEST_F(Registry, CreatedContainerHasItsStateFilled)
{
    const time_t before = std::time(nullptr);
    const std::string path = bundle("b");
    ASSERT_EQ(create("web", path), OK);
    CONTAINER_STATE state;
    char id[] = "web";
    ASSERT_EQ(zncContainerStateGet(id, &state), OK);
    EXPECT_EQ(state.owner, nullptr);
    EXPECT_EQ(state.status, STATE_CREATED);
    EXPECT_GE(state.createdTime, before);
    EXPECT_LE(state.createdTime, std::time(nullptr));
    EXPECT_STREQ(state.ver, "1.0.2");
    EXPECT_STREQ(state.containerId, "web");
    EXPECT_EQ(state.bundlePath, path);
    ASSERT_NE(state.pCtx, nullptr);
    EXPECT_STREQ(state.pCtx->pConfig->process->cwd, "/work");
    EXPECT_EQ(state.pCtx->pidHandle, 0);
    EXPECT_TRUE(state.pCtx->mounted);
    EXPECT_EQ(&state.pCtx->state, &reinterpret_cast<CONTAINER_CTX*>(zncContainersList.head)->state);
}

TEST_F(Registry, CreatedContainerIsNotHeld)
{
    make("web", STATE_CREATED);
    int seen = -1;
    std::thread([&] { seen = status_of("web"); }).join();
    EXPECT_EQ(seen, STATE_CREATED);
}

TEST_F(Registry, OptionAndAttributesOfCreateAreIgnored)
{
    ZNC_ATTR attr = {"x"};
    EXPECT_EQ(zncContainerCreate("web", bundle("b").c_str(), 0xffffffff, &attr), OK);
}

TEST_F(Registry, BundlePathWithTrailingSlashesIsKeptAsTheDirectory)
{
    const std::string path = bundle("b") + "//";
    ASSERT_EQ(create("web", path), OK);
    CONTAINER_STATE state;
    char id[] = "web";
    ASSERT_EQ(zncContainerStateGet(id, &state), OK);
    EXPECT_EQ(state.bundlePath, path);
    EXPECT_EQ(fake::calls_of("znnsRootfsCreate").at(0).root, top + "/b/rootfs");
}

TEST_F(Registry, RegisteredIdIsRefusedWithCONTAINER_EXISTS)
{
    make("web", STATE_CREATED);
    fake::reset();
    errno = 0;
    EXPECT_EQ(create("web", bundle("other")), ERROR);
    EXPECT_EQ(errno, S_zncLib_CONTAINER_EXISTS);
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_EQ(ids(), Strings{"web"});
    remove_all_containers();
}

TEST_F(Registry, SecondContainerOnABundleIsRefusedWithoutOverlay)
{
    const std::string path = bundle("b");
    ASSERT_EQ(create("one", path), OK);
    expect_refused("two", path, S_zncLib_BUNDLE_IN_USE,
                   {"The bundle '" + path + "' is already in use."});
    ASSERT_EQ(zncContainerDelete("one", 0), OK);
    EXPECT_EQ(create("two", path), OK);
}

TEST_F(Registry, SecondContainerOnABundleIsAcceptedWithOverlay)
{
    set_overlay(true);
    const std::string path = bundle("b");
    EXPECT_EQ(create("one", path), OK);
    EXPECT_EQ(create("two", path), OK);
    EXPECT_EQ(ids(), (Strings{"one", "two"}));
    EXPECT_EQ(fake::devices(), (std::set<std::string>{"/overlay/one", "/overlay/two"}));
}

TEST_F(Registry, RegisteredIdIsReportedBeforeABundleInUseAndThatBeforeAMissingConfig)
{
    const std::string path = bundle("b");
    ASSERT_EQ(create("one", path), OK);
    std::filesystem::remove(path + "/config.json");
    expect_refused("one", path, S_zncLib_CONTAINER_EXISTS);
    expect_refused("two", path, S_zncLib_BUNDLE_IN_USE,
                   {"The bundle '" + path + "' is already in use."});
}

TEST_F(Registry, BundleOfABusyContainerLooksUnused)
{
    const std::string path = bundle("b");
    ASSERT_EQ(create("one", path), OK);
    while_held_elsewhere("one", [&] { EXPECT_EQ(create("two", path), OK); });
    EXPECT_EQ(ids(), (Strings{"one", "two"}));
}

TEST_F(Registry, MissingConfigIsBUNDLE_CONFIG_NOT_EXIST)
{
    const std::string path = top + "/none";
    expect_refused("web", path, S_zncLib_BUNDLE_CONFIG_NOT_EXIST,
                   {"OCI bundle config.json not exists in " + path});
}

TEST_F(Registry, UnreadableOrInvalidConfigIsRUNTIME_CONFIG_LOAD_FAILED)
{
    expect_refused("web", bundle("text", "no json"), S_zncLib_RUNTIME_CONFIG_LOAD_FAILED);
    expect_refused("web", bundle("noprocess", R"({"ociVersion":"1"})"),
                   S_zncLib_RUNTIME_CONFIG_LOAD_FAILED);
    expect_refused("web", bundle("noargs", R"({"process":{"cwd":"/"}})"),
                   S_zncLib_RUNTIME_CONFIG_LOAD_FAILED);
    std::filesystem::create_directories(top + "/dir/config.json");
    expect_refused("web", top + "/dir", S_zncLib_RUNTIME_CONFIG_LOAD_FAILED);
    std::ofstream(top + "/file") << "x";
    expect_refused("web", top + "/file", S_zncLib_RUNTIME_CONFIG_LOAD_FAILED);
}

TEST_F(Registry, MissingOrEmptyVersionIsOCI_VERSION_INVALID)
{
    expect_refused("web", bundle("none", R"({"process":{"args":[]}})"),
                   S_zncLib_OCI_VERSION_INVALID);
    expect_refused("web", bundle("empty", R"({"ociVersion":"","process":{"args":[]}})"),
                   S_zncLib_OCI_VERSION_INVALID);
    expect_refused("web", bundle("number", R"({"ociVersion":1,"process":{"args":[]}})"),
                   S_zncLib_OCI_VERSION_INVALID);
}

TEST_F(Registry, VersionOf63CharactersIsKeptAnd64AreRefusedWithoutALibraryCode)
{
    const auto config = [](std::size_t n) {
        return R"({"ociVersion":")" + std::string(n, '1') +
               R"(","root":{"path":"r"},"process":{"args":["/a"],"cwd":"/"}})";
    };
    expect_refused("web", bundle("b64", config(64)), EINVAL);
    ASSERT_EQ(create("web", bundle("b63", config(63))), OK);
    CONTAINER_STATE state;
    char id[] = "web";
    ASSERT_EQ(zncContainerStateGet(id, &state), OK);
    EXPECT_EQ(state.ver, std::string(63, '1'));
}

TEST_F(Registry, MissingOrEmptyRootPathIsOCI_ROOT_INVALID)
{
    int n = 0;
    for (const char* root :
         {"", R"("root":{},)", R"("root":{"path":""},)", R"("root":{"path":5},)", R"("root":"r",)"})
        expect_refused(
            "web",
            bundle("b" + std::to_string(n++), std::string(R"({"ociVersion":"1",)") + root +
                                                  R"("process":{"args":["/a"],"cwd":"/"}})"),
            S_zncLib_OCI_ROOT_INVALID);
}

TEST_F(Registry, MissingEmptyOrRelativeCwdIsOCI_CWD_INVALID)
{
    int n = 0;
    for (const char* cwd : {"", R"("cwd":"",)", R"("cwd":"work",)", R"("cwd":5,)"})
        expect_refused("web",
                       bundle("b" + std::to_string(n++),
                              std::string(R"({"ociVersion":"1","root":{"path":"r"},"process":{)") +
                                  cwd + R"("args":["/a"]}})"),
                       S_zncLib_OCI_CWD_INVALID);
}

TEST_F(Registry, MissingOrEmptyFirstArgumentIsOCI_ARG_INVALID)
{
    int n = 0;
    for (const char* args : {"[]", R"([""])", "[5]", R"([null,"/a"])"})
        expect_refused("web",
                       bundle("b" + std::to_string(n++),
                              std::string(R"({"ociVersion":"1","root":{"path":"r"},"process":)") +
                                  R"({"cwd":"/","args":)" + args + "}}"),
                       S_zncLib_OCI_ARG_INVALID);
}

TEST_F(Registry, ChecksAreMadeInOrder)
{
    // Every check would fail: the version is reported first, then the root, the directory and the
    // argument.
    expect_refused("web", bundle("b1", R"({"process":{"args":[]}})"), S_zncLib_OCI_VERSION_INVALID);
    expect_refused("web", bundle("b2", R"({"ociVersion":"1","process":{"args":[]}})"),
                   S_zncLib_OCI_ROOT_INVALID);
    expect_refused("web",
                   bundle("b3", R"({"ociVersion":"1","root":{"path":"r"},"process":{"args":[]}})"),
                   S_zncLib_OCI_CWD_INVALID);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Registry, BundlePathTooLongForItsConfigIsRefusedWithoutALibraryCode)
{
    // "/config.json" uses 12 of 1023 characters.
    expect_refused("web", "/" + std::string(1011, 'b'), ENAMETOOLONG);
    expect_refused("web", "/" + std::string(2000, 'b'), ENAMETOOLONG);
    errno = 0;
    // the path fits, so the file is looked up
    EXPECT_EQ(create("web", "/" + std::string(1010, 'b')), ERROR);
    EXPECT_EQ(errno, S_zncLib_RUNTIME_CONFIG_LOAD_FAILED);
}

TEST_F(Registry, MountFailureKeepsItsOwnCode)
{
    fake::fail("znnsCreate", 1, EPERM);
    expect_refused("web", bundle("b"), S_zncLib_NAMESPACE_CREATE_FAILED);
    fake::fail("znnsRootfsCreate", 1, EPERM);
    expect_refused("web", bundle("b"), S_zncLib_ROOTFS_CREATE_FAILED);
    EXPECT_EQ(create("web", bundle("b")), OK);
}

TEST_F(Registry, IdOf255CharactersIsStoredCutAndNotFoundAgain)
{
    const std::string id(255, 'x');
    ASSERT_EQ(create(id, bundle("b")), OK);
    EXPECT_EQ(ids(), Strings{std::string(254, 'x')});
    EXPECT_EQ(status_of(id), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(status_of(std::string(254, 'x')), STATE_CREATED);
    // The lookup does not find the container, because it is locked. Only inserting into the list
    // detects the duplicate, after everything has been mounted.
    const std::size_t before = fake::namespaces().size();
    EXPECT_EQ(create(id, bundle("c")), ERROR);
    EXPECT_EQ(errno, S_zncLib_CONTAINER_EXISTS);
    EXPECT_EQ(fake::namespaces().size(), before);
}

TEST_F(Registry, BusyIdIsRefusedOnlyAfterMountingAndUnmounting)
{
    make("web", STATE_CREATED);
    const std::string other = bundle("other");
    while_held_elsewhere("web", [&] {
        errno = 0;
        EXPECT_EQ(create("web", other), ERROR);
        EXPECT_EQ(errno, S_zncLib_CONTAINER_EXISTS);
    });
    EXPECT_EQ(fake::ops(), (Strings{"znnsCreate", "znnsRootfsCreate", "znnsCreate",
                                    "znnsRootfsCreate", "znnsRootfsDestroy", "znnsDelete"}));
    EXPECT_TRUE(messages().empty());
    EXPECT_EQ(ids(), Strings{"web"});
}

TEST_F(Registry, CreateThatCannotLockTheListFailsAndUndoesItsMounts)
{
    const std::string path = bundle("b");
    const SEM_ID sem = zncContainerSem;
    zncContainerSem = nullptr; // every attempt to lock fails immediately
    EXPECT_EQ(create("web", path), ERROR);
    zncContainerSem = sem;
    EXPECT_TRUE(fake::namespaces().empty());
    EXPECT_TRUE(ids().empty());
}

// Every allocation of a create fails once, with and without the overlay filesystem.
TEST_F(Registry, EveryFailingAllocationOfCreateLeavesTheRegistryUnchanged)
{
    const std::string path = bundle("b", R"({"ociVersion":"1.0.2","root":{"path":"rootfs"},
        "process":{"args":["/bin/app"],"env":["A=1"],"cwd":"/"},"annotations":{"a":"b"},
        "hooks":{"prestart":[{}]},"mounts":[{"source":"/s","options":["ro"]}]})");
    for (const bool overlay : {false, true}) {
        set_overlay(overlay);
        unsigned refused = 0;
        const auto descriptors = open_descriptors();
        for (unsigned n = 1;; n++) {
            alloc_fault::arm(n);
            const STATUS result = create("web", path);
            const int error = errno;
            const unsigned asked = alloc_fault::disarm();
            if (result == OK) {
                EXPECT_EQ(ids(), Strings{"web"});
                ASSERT_EQ(zncContainerDelete("web", 0), OK);
            } else {
                refused++;
                EXPECT_TRUE(error == ENOMEM || error == S_zncLib_RUNTIME_CONFIG_LOAD_FAILED ||
                            error == S_zncLib_ROOTFS_CREATE_FAILED ||
                            // the allocation of the record of "root" failed
                            error == S_zncLib_OCI_ROOT_INVALID)
                    << n << ": " << error;
                EXPECT_TRUE(ids().empty());
            }
            EXPECT_TRUE(fake::namespaces().empty()) << n;
            EXPECT_TRUE(fake::devices().empty()) << n;
            if (asked < n) {
                EXPECT_EQ(result, OK);
                break;
            }
        }
        EXPECT_GE(refused, 8u);
        EXPECT_EQ(open_descriptors(), descriptors);
        messages();
    }
}

// ------------------------------------------------------------------ start

TEST_F(Registry, StartHandsOutTheSpawnParameters)
{
    const std::string path = bundle("b", R"({"ociVersion":"1","root":{"path":"rootfs"},
        "process":{"args":["/bin/app","-v"],"env":["A=1","B=2"],"cwd":"/work"},
        "zarnel":{"rtp":{"rtpOptions":"1","rtpPriority":"2","rtpStackSize":"3","rtpTaskOptions":"4"}}})");
    ASSERT_EQ(create("web", path), OK);
    CONTAINER_START_PARM param;
    ASSERT_EQ(zncContainerStart("web", &param), OK);
    EXPECT_EQ(param.appPath, path + "/rootfs/bin/app");
    EXPECT_EQ(param.option, 1);
    EXPECT_EQ(param.priority, 2);
    EXPECT_EQ(param.stackSize, 3);
    EXPECT_EQ(param.taskOption, 4);
    EXPECT_EQ(param.nsId, *fake::namespaces().begin());
    EXPECT_STREQ(param.cwd, "/work");
    EXPECT_EQ(param.posixFlags, 0x180);
    EXPECT_EQ(param.argNum, 2);
    EXPECT_STREQ(param.arg[0], "/bin/app");
    EXPECT_STREQ(param.arg[1], "-v");
    EXPECT_EQ(param.arg[2], nullptr);
    EXPECT_EQ(param.envNum, 2);
    EXPECT_STREQ(param.env[1], "B=2");
    EXPECT_EQ(param.env[2], nullptr);
}

TEST_F(Registry, StartWithoutEnvironmentHandsOutNull)
{
    ASSERT_EQ(create("web", bundle("b", R"({"ociVersion":"1","root":{"path":"r"},
        "process":{"args":["/a"],"cwd":"/"}})")),
              OK);
    CONTAINER_START_PARM param;
    ASSERT_EQ(zncContainerStart("web", &param), OK);
    EXPECT_EQ(param.env, nullptr);
    EXPECT_EQ(param.envNum, 0);
}

// ------------------------------------------------------------------ every operation in every state

struct Cell {
    CONTAINER_STATUS before;
    int error; // 0: OK
    int after; // -1: removed
};

void expect_cell(const Cell& cell, STATUS result, int error, const std::string& id, int after)
{
    EXPECT_EQ(result, cell.error == 0 ? OK : ERROR) << id;
    EXPECT_TRUE(cell.error == 0 || error == cell.error) << id << ": " << error;
    EXPECT_EQ(after, cell.after) << id;
}

TEST_F(Registry, StartIsAllowedOnlyInCreated)
{
    CONTAINER_START_PARM param;
    for (const Cell& cell :
         {Cell{STATE_CREATED, 0, STATE_RUNNING}, Cell{STATE_RUNNING, EBUSY, STATE_RUNNING},
          Cell{STATE_STOPPED, EBUSY, STATE_STOPPED}}) {
        const std::string id = "c" + std::to_string(cell.before);
        make(id, cell.before);
        fake::set_in_use(true);
        const STATUS result = zncContainerStart(id.c_str(), &param);
        const int error = errno;
        expect_cell(cell, result, error, id, status_of(id));
    }
}

TEST_F(Registry, SecondStartFailsWithEBUSY)
{
    make("web", STATE_CREATED);
    start("web");
    CONTAINER_START_PARM param;
    EXPECT_EQ(zncContainerStart("web", &param), ERROR);
    EXPECT_EQ(errno, EBUSY);
}

TEST_F(Registry, KillIsOKInEveryStateAndSignalsOnlyRunningOnes)
{
    for (const CONTAINER_STATUS before : {STATE_CREATED, STATE_RUNNING, STATE_STOPPED}) {
        const std::string id = "c" + std::to_string(before);
        make(id, before);
        EXPECT_EQ(zncContainerKill(id.c_str(), 15, 2), OK);
        EXPECT_EQ(status_of(id), before);
        fake::set_in_use(false);
    }
    ASSERT_EQ(fake::calls_of("znnsKill").size(), 1u);
    EXPECT_EQ(fake::calls_of("znnsKill")[0].number, 15);
    EXPECT_TRUE(fake::calls_of("znnsProcessKill").empty());
}

TEST_F(Registry, DeleteWithoutForceRefusesOnlyRunning)
{
    for (const Cell& cell : {Cell{STATE_CREATED, 0, -1}, Cell{STATE_RUNNING, EBUSY, STATE_RUNNING},
                             Cell{STATE_STOPPED, 0, -1}}) {
        const std::string id = "c" + std::to_string(cell.before);
        make(id, cell.before);
        const STATUS result = zncContainerDelete(id.c_str(), 0);
        const int error = errno;
        expect_cell(cell, result, error, id, status_of(id));
        fake::set_in_use(false);
    }
    EXPECT_TRUE(fake::calls_of("znnsKill").empty());
}

TEST_F(Registry, ForcedDeleteRemovesEveryStateAndKillsRunningOnesWithSignal9)
{
    for (const CONTAINER_STATUS before : {STATE_CREATED, STATE_RUNNING, STATE_STOPPED}) {
        const std::string id = "c" + std::to_string(before);
        make(id, before);
        EXPECT_EQ(zncContainerDelete(id.c_str(), 2), OK);
        EXPECT_EQ(status_of(id), -1);
        fake::set_in_use(false);
    }
    ASSERT_EQ(fake::calls_of("znnsKill").size(), 1u);
    EXPECT_EQ(fake::calls_of("znnsKill")[0].number, 9);
}

TEST_F(Registry, DeleteOfACreatingContainerIsEBUSY)
{
    make("web", STATE_CREATED);
    CONTAINER_CTX* const ctx = reinterpret_cast<CONTAINER_CTX*>(zncContainersList.head);
    ctx->state.status = STATE_CREATING;
    EXPECT_EQ(zncContainerDelete("web", 2), ERROR);
    EXPECT_EQ(errno, EBUSY);
    ctx->state.status = STATE_CREATED;
    while_held_elsewhere("web", [] {}); // fails if the container is still locked
}

TEST_F(Registry, StateSeesThatARunningContainerEnded)
{
    make("web", STATE_RUNNING);
    fake::set_in_use(false);
    EXPECT_EQ(reinterpret_cast<CONTAINER_CTX*>(zncContainersList.head)->state.status,
              STATE_RUNNING); // until the next query
    EXPECT_EQ(status_of("web"), STATE_STOPPED);
    fake::set_in_use(true);
    EXPECT_EQ(status_of("web"), STATE_STOPPED); // the state never changes back
}

TEST_F(Registry, KillSeesThatARunningContainerEnded)
{
    make("web", STATE_RUNNING);
    fake::set_in_use(false);
    EXPECT_EQ(zncContainerKill("web", 9, 2), OK);
    EXPECT_TRUE(fake::calls_of("znnsKill").empty());
    EXPECT_EQ(reinterpret_cast<CONTAINER_CTX*>(zncContainersList.head)->state.status,
              STATE_STOPPED);
}

TEST_F(Registry, DeleteSeesThatARunningContainerEnded)
{
    make("web", STATE_RUNNING);
    fake::set_in_use(false);
    EXPECT_EQ(zncContainerDelete("web", 0), OK);
    EXPECT_TRUE(ids().empty());
}

TEST_F(Registry, FailingQueryCountsAsEnded)
{
    make("web", STATE_RUNNING);
    fake::fail("znnsInUse", 1, EIO);
    EXPECT_EQ(status_of("web"), STATE_STOPPED);
}

TEST_F(Registry, OnlyRunningContainersAreQueried)
{
    make("web", STATE_CREATED);
    EXPECT_EQ(status_of("web"), STATE_CREATED);
    EXPECT_TRUE(fake::calls_of("znnsInUse").empty());
}

// ------------------------------------------------------------------ kill, delete, the handle

TEST_F(Registry, KillSignalsTheStoredProcessOrTheWholeNamespace)
{
    make("web", STATE_RUNNING);
    ASSERT_EQ(zncContainerStorePidHandle("web", 4711), OK);
    EXPECT_EQ(zncContainerKill("web", 30, 0), OK);
    EXPECT_EQ(zncContainerKill("web", 15, 0xffff), OK);
    const auto process = fake::calls_of("znnsProcessKill");
    ASSERT_EQ(process.size(), 1u);
    EXPECT_EQ(process[0].handle, 4711);
    EXPECT_EQ(process[0].number, 30);
    EXPECT_EQ(process[0].ns, *fake::namespaces().begin());
    const auto all = fake::calls_of("znnsKill");
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].number, 15);
}

TEST_F(Registry, KillBeforeTheHandleIsStoredGoesToHandle0)
{
    make("web", STATE_RUNNING);
    EXPECT_EQ(zncContainerKill("web", 15, 0), ERROR);
    EXPECT_EQ(errno, ESRCH);
    ASSERT_EQ(fake::calls_of("znnsProcessKill").size(), 1u);
    EXPECT_EQ(fake::calls_of("znnsProcessKill")[0].handle, 0);
}

TEST_F(Registry, FailingKillGivesItsOwnNumberAndUnlocks)
{
    make("web", STATE_RUNNING);
    fake::fail("znnsKill", 1, EPERM);
    EXPECT_EQ(zncContainerKill("web", 9, 2), ERROR);
    EXPECT_EQ(errno, EPERM);
    while_held_elsewhere("web", [] {});
}

TEST_F(Registry, ForcedDeleteWhoseKillFailsKeepsTheContainer)
{
    make("web", STATE_RUNNING);
    fake::fail("znnsKill", 1, EPERM);
    EXPECT_EQ(zncContainerDelete("web", 2), ERROR);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(status_of("web"), STATE_RUNNING);
    while_held_elsewhere("web", [] {});
}

TEST_F(Registry, DeleteUndoesTheNamespace)
{
    make("web", STATE_STOPPED);
    ASSERT_EQ(zncContainerDelete("web", 0), OK);
    EXPECT_TRUE(fake::namespaces().empty());
    EXPECT_EQ(zncContainersList.head, nullptr);
    EXPECT_EQ(zncContainersList.tail, nullptr);
    EXPECT_EQ(zncContainerDelete("web", 0), ERROR);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(Registry, FailingUnmountIsUNMOUNT_FAILEDAndTheNextDeleteRemovesTheContainer)
{
    make("web", STATE_CREATED);
    fake::fail("znnsRootfsDestroy", 1, EIO);
    EXPECT_EQ(zncContainerDelete("web", 0), ERROR);
    EXPECT_EQ(errno, S_zncLib_UNMOUNT_FAILED);
    EXPECT_EQ(messages(), Strings{"Unmount failed containerId: web"});
    EXPECT_EQ(ids(), Strings{"web"});
    EXPECT_FALSE(reinterpret_cast<CONTAINER_CTX*>(zncContainersList.head)->mounted);
    while_held_elsewhere("web", [] {});
    EXPECT_EQ(zncContainerDelete("web", 0), OK);
    EXPECT_TRUE(ids().empty());
    EXPECT_TRUE(fake::namespaces().empty()) << "nobody knows the namespace any more";
}

TEST_F(Registry, AMountThatFailedAndCannotBeUndoneLeavesNoNamespace)
{
    const std::string config = std::string(kConfig, std::strlen(kConfig) - 1) +
                               R"(,"mounts":[{"source":"/a","destination":"/a"},
                                  {"source":"/b","destination":"/b"}]})";
    fake::fail("znnsMount", 2, ENOENT);
    fake::fail("znnsUmount", 1, EBUSY);
    EXPECT_EQ(create("web", bundle("b", config)), ERROR);
    EXPECT_EQ(errno, S_zncLib_ADDITIONAL_MOUNT_FAILED);
    EXPECT_TRUE(fake::namespaces().empty());
    EXPECT_TRUE(ids().empty());
}

TEST_F(Registry, UpperLayerThatCannotBeRemovedIsUNMOUNT_FAILED)
{
    set_overlay(true);
    make("web", STATE_CREATED);
    std::filesystem::remove_all(base);
    std::ofstream(base) << "a file in the way";
    EXPECT_EQ(zncContainerDelete("web", 0), ERROR);
    EXPECT_EQ(errno, S_zncLib_UNMOUNT_FAILED);
    EXPECT_EQ(messages(), Strings{"Unmount failed containerId: web"});
    EXPECT_TRUE(fake::namespaces().empty());
    EXPECT_EQ(zncContainerDelete("web", 0), OK);
}

TEST_F(Registry, DeleteWithoutMemoryIsUNMOUNT_FAILED)
{
    make("web", STATE_CREATED);
    alloc_fault::arm(1);
    EXPECT_EQ(zncContainerDelete("web", 0), ERROR);
    alloc_fault::disarm();
    EXPECT_EQ(errno, S_zncLib_UNMOUNT_FAILED);
    EXPECT_EQ(ids(), Strings{"web"});
}

TEST_F(Registry, RemoveWithoutTheListLockFreesNothing)
{
    make("web", STATE_CREATED);
    CONTAINER_CTX* const ctx = zncContainerFindAndLockById("web");
    ASSERT_NE(ctx, nullptr);
    const SEM_ID sem = zncContainerSem;
    zncContainerSem = nullptr;
    EXPECT_EQ(zncContainerRemove(ctx), ERROR);
    zncContainerSem = sem;
    EXPECT_STREQ(ctx->state.containerId, "web");
    zncContainerUnlock(ctx);
    EXPECT_EQ(ids(), Strings{"web"});
}

TEST_F(Registry, RemovingHeadMiddleAndTailKeepsTheRest)
{
    const Strings all = {"a", "b", "c", "d"};
    for (const std::string& gone : all) {
        for (const std::string& id : all)
            make(id, STATE_CREATED);
        ASSERT_EQ(zncContainerDelete(gone.c_str(), 0), OK);
        Strings rest;
        for (const std::string& id : all)
            if (id != gone)
                rest.push_back(id);
        EXPECT_EQ(ids(), rest);
        make("z", STATE_CREATED); // appended after the remaining tail
        EXPECT_EQ(reinterpret_cast<CONTAINER_CTX*>(zncContainersList.tail)->state.containerId,
                  std::string("z"));
        EXPECT_EQ(zncContainersList.tail->next, nullptr);
        remove_all_containers();
    }
}

TEST_F(Registry, AfterTheHandleIsStoredTheOwnTaskStillDeletes)
{
    make("web", STATE_RUNNING);
    ASSERT_EQ(zncContainerStorePidHandle("web", 7), OK);
    ASSERT_EQ(zncContainerStorePidHandle("web", 8), OK); // storing again is allowed
    EXPECT_EQ(status_of("web"), STATE_RUNNING);
    EXPECT_EQ(zncContainerKill("web", 9, 0), OK);
    EXPECT_EQ(fake::calls_of("znnsProcessKill").at(0).handle, 8);
    EXPECT_EQ(zncContainerDelete("web", 2), OK);
    EXPECT_TRUE(ids().empty());
}

TEST_F(Registry, StoringTheHandleDoesNotChangeAPrematureStoppedState)
{
    make("early", STATE_STOPPED); // a query before the process existed has set this state
    fake::set_in_use(true);
    ASSERT_EQ(zncContainerStorePidHandle("early", 7), OK);
    EXPECT_EQ(status_of("early"), STATE_STOPPED);
    fake::set_in_use(false);
}

TEST_F(Registry, AfterTheHandleIsStoredOtherTasksSeeNoContainer)
{
    make("web", STATE_RUNNING);
    ASSERT_EQ(zncContainerStorePidHandle("web", 7), OK);
    std::thread([&] {
        EXPECT_EQ(status_of("web"), -1);
        EXPECT_EQ(errno, ENODEV);
        EXPECT_EQ(ids(), Strings{"web"}); // iteration does not lock containers
    }).join();
}

// ------------------------------------------------------------------ absent and busy

TEST_F(Registry, UnknownContainerIsENODEVForEveryOperation)
{
    CONTAINER_START_PARM param;
    const auto expect_enodev = [](STATUS result) {
        EXPECT_EQ(result, ERROR);
        EXPECT_EQ(errno, ENODEV);
        errno = 0;
    };
    expect_enodev(zncContainerStart("none", &param));
    expect_enodev(zncContainerKill("none", 9, 0));
    expect_enodev(zncContainerDelete("none", 2));
    expect_enodev(zncContainerStorePidHandle("none", 1));
    EXPECT_EQ(status_of("none"), -1);
    EXPECT_EQ(errno, ENODEV);
}

TEST_F(Registry, BusyContainerIsENODEVForEveryOperation)
{
    make("web", STATE_CREATED);
    while_held_elsewhere("web", [&] {
        CONTAINER_START_PARM param;
        EXPECT_EQ(zncContainerStart("web", &param), ERROR);
        EXPECT_EQ(errno, ENODEV);
        errno = 0;
        EXPECT_EQ(zncContainerKill("web", 9, 0), ERROR);
        EXPECT_EQ(errno, ENODEV);
        errno = 0;
        EXPECT_EQ(zncContainerDelete("web", 2), ERROR);
        EXPECT_EQ(errno, ENODEV);
        errno = 0;
        EXPECT_EQ(zncContainerStorePidHandle("web", 1), ERROR);
        EXPECT_EQ(errno, ENODEV);
        errno = 0;
        EXPECT_EQ(status_of("web"), -1);
        EXPECT_EQ(errno, ENODEV);
    });
    EXPECT_EQ(status_of("web"), STATE_CREATED);
}

TEST_F(Registry, StateWithoutTheListLockFails)
{
    make("web", STATE_CREATED);
    const SEM_ID sem = zncContainerSem;
    zncContainerSem = nullptr;
    EXPECT_EQ(status_of("web"), -1);
    EXPECT_EQ(errno, EINVAL); // the error number of the mutex service
    char id[256] = "";
    EXPECT_FALSE(zncContainerNext(id));
    EXPECT_EQ(zncContainerFindAndLockById("web"), nullptr);
    zncContainerSem = sem;
}

// Takes five seconds.
TEST_F(Registry, ListHeldByAnotherTaskIsWaitedForAndThenGivenUp)
{
    make("web", STATE_CREATED);
    std::promise<void> held, done;
    std::thread holder([&] {
        EXPECT_EQ(zncContainerListLock(), OK);
        held.set_value();
        done.get_future().wait();
        EXPECT_EQ(zncContainerListUnlock(), OK);
    });
    held.get_future().wait();
    EXPECT_EQ(status_of("web"), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    done.set_value();
    holder.join();
    EXPECT_EQ(status_of("web"), STATE_CREATED);
}

TEST_F(Registry, BundleIsFoundByThePathItWasCreatedWith)
{
    const std::string path = bundle("b");
    ASSERT_EQ(create("web", path), OK);
    CONTAINER_CTX* const ctx = zncContainerFindAndLockByBundle(path.c_str());
    ASSERT_NE(ctx, nullptr);
    zncContainerUnlock(ctx);
    EXPECT_EQ(zncContainerFindAndLockByBundle((top + "/c").c_str()), nullptr);
    EXPECT_EQ(zncContainerFindAndLockByBundle(("/" + std::string(2000, 'b')).c_str()), nullptr);
    EXPECT_EQ(zncContainerFindAndLockById(path.c_str()), nullptr);
}

// ------------------------------------------------------------------ iteration

TEST_F(Registry, NextOnAnEmptyRegistryIsFalse)
{
    char id[256] = "";
    EXPECT_FALSE(zncContainerNext(id));
    EXPECT_STREQ(id, "");
}

TEST_F(Registry, NextYieldsIdsInAscendingOrder)
{
    for (const char* id : {"b", "a", "c"})
        make(id, STATE_CREATED);
    char id[256] = "";
    for (const char* wanted : {"a", "b", "c"}) {
        ASSERT_TRUE(zncContainerNext(id));
        EXPECT_STREQ(id, wanted);
    }
    EXPECT_FALSE(zncContainerNext(id));
    EXPECT_STREQ(id, "c");
}

TEST_F(Registry, NextComparesUnsignedBytes)
{
    int n = 0;
    for (const char* id : {"\xc3\xa9", "z", "Z", "zz", "0"})
        ASSERT_EQ(create(id, bundle("bundle" + std::to_string(n++))), OK);
    EXPECT_EQ(ids(), (Strings{"0", "Z", "z", "zz", "\xc3\xa9"}));
}

TEST_F(Registry, NextFindsTheSuccessorOfAnIdThatIsGone)
{
    for (const char* id : {"a", "c"})
        make(id, STATE_CREATED);
    char id[256] = "b";
    ASSERT_TRUE(zncContainerNext(id));
    EXPECT_STREQ(id, "c");
}

TEST_F(Registry, NextRefusesNullAnd256CharactersWithEINVAL)
{
    EXPECT_FALSE(zncContainerNext(nullptr));
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    std::string id(256, 'a');
    EXPECT_FALSE(zncContainerNext(id.data()));
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    id.resize(255);
    EXPECT_FALSE(zncContainerNext(id.data()));
    EXPECT_EQ(errno, 0);
}

// ------------------------------------------------------------------ several tasks

TEST_F(Registry, TasksCreatingStartingAndDeletingAtOnceLeaveAnEmptyRegistry)
{
    constexpr int kTasks = 4;
    constexpr int kRounds = 40;
    set_overlay(true);
    const std::string path = bundle("b");
    std::atomic<bool> done = false;
    std::thread watcher([&] {
        while (!done) {
            const Strings seen = ids();
            EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
            EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
            for (std::string id : seen) {
                CONTAINER_STATE state;
                if (zncContainerStateGet(id.data(), &state) != OK)
                    continue; // locked or deleted

                // A partially created container must never be visible.
                EXPECT_NE(state.pCtx, nullptr) << id;
                EXPECT_NE(state.createdTime, 0) << id;
            }
        }
    });
    std::vector<std::thread> tasks;
    for (int t = 0; t < kTasks; t++)
        tasks.emplace_back([&, t] {
            for (int round = 0; round < kRounds; round++) {
                const std::string id = "c" + std::to_string(t) + "-" + std::to_string(round);
                ASSERT_EQ(create(id, path), OK);
                CONTAINER_START_PARM param;
                while (zncContainerStart(id.c_str(), &param) != OK)
                    ASSERT_EQ(errno, ENODEV); // the watching thread holds the lock
                while (zncContainerDelete(id.c_str(), 2) != OK)
                    ASSERT_EQ(errno, ENODEV);
            }
        });
    for (std::thread& task : tasks)
        task.join();
    done = true;
    watcher.join();
    EXPECT_TRUE(ids().empty());
    EXPECT_TRUE(fake::namespaces().empty());
    EXPECT_TRUE(fake::devices().empty());
}

TEST_F(Registry, OfTwoTasksCreatingOneIdOneSucceeds)
{
    const Strings bundles = {bundle("b0"), bundle("b1")};
    for (int round = 0; round < 50; round++) {
        std::atomic<int> created = 0;
        std::vector<std::thread> tasks;
        for (const std::string& path : bundles)
            tasks.emplace_back([&] {
                if (create("web", path) == OK)
                    created++;
                else
                    EXPECT_EQ(errno, S_zncLib_CONTAINER_EXISTS);
            });
        for (std::thread& task : tasks)
            task.join();
        EXPECT_EQ(created, 1);
        EXPECT_EQ(fake::namespaces().size(), 1u);
        ASSERT_EQ(zncContainerDelete("web", 0), OK);
    }
}

} // namespace
