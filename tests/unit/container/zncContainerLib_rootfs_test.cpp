#include "container_world.hpp"
#include "eventually.hpp"

#include "alloc_fault.hpp"
#include "base/owned.hpp"
#include "zncTrash.hpp"

#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

constexpr const char* kThreeMounts = R"("mounts":[
    {"source":"/s1","destination":"/d1","type":"bind","options":["ro","nosuid"]},
    {"source":"/s2","destination":"/d2"},
    {"destination":"","options":[]}],)";

class Rootfs : public ContainerWorld {
  protected:
    void TearDown() override
    {
        if (ctx.pConfig != nullptr)
            zncDestroyRuntimeSpec(ctx.pConfig);
        ContainerWorld::TearDown();
    }

    // A context in the state that a create has just before mounting.
    void prepare(const std::string& members, const std::string& root = "rootfs",
                 const std::string& arg = "/bin/app", const std::string& id = "web")
    {
        const std::string dir =
            bundle("b", R"({"ociVersion":"1",)" + members + R"("root":{"path":")" + root +
                            R"("},"process":{"cwd":"/bin","args":[")" + arg + R"("]}})");
        ctx.pConfig = zncInitializeRuntimeSpec((dir + "/config.json").c_str());
        ASSERT_NE(ctx.pConfig, nullptr);
        ctx.nsId = -1;
        ctx.state.status = STATE_CREATED;
        set(ctx.state.bundlePath, dir);
        set(ctx.state.containerId, id);
    }

    template <std::size_t N> static void set(char (&field)[N], const std::string& text)
    {
        ASSERT_LT(text.size(), N);
        field[text.copy(field, N - 1)] = '\0';
    }

    std::string area() const { return base + "/containers/"; }

    // Sets a storage base of such length that the path of the containers area has `length`
    // characters, including the final "/".
    void set_area_length(std::size_t length)
    {
        std::string dir = top;
        const std::size_t wanted = length - std::string("/containers/").size();
        while (dir.size() < wanted) {
            // Use components of at most 200 characters, and never an empty last one.
            std::size_t n = std::min<std::size_t>(200, wanted - dir.size() - 1);
            if (wanted - dir.size() - 1 - n == 1)
                n--;
            dir += "/" + std::string(n, 'd');
        }
        base = dir;
        ::setenv("ZNC_BASE", base.c_str(), 1);
        ASSERT_EQ(area().size(), length);
    }

    CONTAINER_CTX ctx{};
};

// ------------------------------------------------------------------ plain roots

TEST_F(Rootfs, PlainRelativeRootIsBelowTheBundle)
{
    prepare("");
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), OK);
    EXPECT_EQ(path, top + "/b/rootfs");
    EXPECT_FALSE(fs::exists(path));
    EXPECT_FALSE(fs::exists(base));
}

TEST_F(Rootfs, PlainAbsoluteRootIsUsedAsItIs)
{
    prepare("", "/data/r");
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), OK);
    EXPECT_STREQ(path, "/data/r");
}

TEST_F(Rootfs, PlainRootCreatesAndRemovesNothingOnDisk)
{
    fs::create_directories(area() + "web");
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    EXPECT_FALSE(fs::exists(top + "/b/rootfs"));
    ASSERT_EQ(zncContainerUmount(&ctx), OK);
    EXPECT_TRUE(fs::exists(area() + "web"));
    EXPECT_TRUE(fake::calls_of("znOvlDevCreate").empty());
}

TEST_F(Rootfs, PlainRootThatDoesNotFitIsBUNDLE_PATH_TOO_LONG)
{
    const std::string dir = top + "/b";
    // 1023 characters fit, including the "/".
    prepare("", std::string(1023 - dir.size() - 1, 'r'));
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), OK);
    EXPECT_EQ(std::strlen(path), 1023u);
    zncDestroyRuntimeSpec(ctx.pConfig);
    prepare("", std::string(1024 - dir.size() - 1, 'r'));
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_PATH_TOO_LONG);
}

TEST_F(Rootfs, RootThatCannotBeMadeIsROOTFS_CREATE_FAILEDWithAMessage)
{
    prepare("", "/" + std::string(1500, 'r'));
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_ROOTFS_CREATE_FAILED);
    const std::string text = "Container rootfs create failed : /" + std::string(1500, 'r');
    EXPECT_EQ(messages(), Strings{text.substr(0, 254)});
    EXPECT_FALSE(ctx.mounted);
    EXPECT_TRUE(fake::calls().empty());
}

// ------------------------------------------------------------------ the program path

TEST_F(Rootfs, RelativeProgramIsBelowTheWorkingDirectory)
{
    prepare("", "rootfs", "app");
    EXPECT_EQ(zncContainerAppPathSet(&ctx, "/b/rootfs"), OK);
    EXPECT_STREQ(ctx.appPath, "/b/rootfs/bin/app");
}

TEST_F(Rootfs, AbsoluteProgramIgnoresTheWorkingDirectory)
{
    prepare("", "rootfs", "/sbin/init");
    EXPECT_EQ(zncContainerAppPathSet(&ctx, "/b/rootfs"), OK);
    EXPECT_STREQ(ctx.appPath, "/b/rootfs/sbin/init");
}

TEST_F(Rootfs, ProgramPathThatDoesNotFitIsOCI_ARG_INVALIDWithoutAMessage)
{
    const std::string fits(1023 - std::string("/r/").size(), 'a');
    prepare("", "/r", "/" + fits);
    EXPECT_EQ(zncContainerAppPathSet(&ctx, "/r"), OK);
    zncDestroyRuntimeSpec(ctx.pConfig);
    prepare("", "/r", "/" + fits + "a");
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_OCI_ARG_INVALID);
    EXPECT_TRUE(messages().empty());
    EXPECT_FALSE(ctx.mounted);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, WorkingDirectoryThatDoesNotFitFailsWhateverTheProgram)
{
    prepare("", "rootfs", "a");
    EXPECT_EQ(zncContainerAppPathSet(&ctx, ("/" + std::string(1021, 'r')).c_str()), ERROR);
}

// ------------------------------------------------------------------ mounting

TEST_F(Rootfs, MountMakesNamespaceRootAndMountsInOrder)
{
    prepare(kThreeMounts);
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    EXPECT_EQ(fake::ops(),
              (Strings{"znnsCreate", "znnsRootfsCreate", "znnsMount", "znnsMount", "znnsMount"}));
    const std::vector<fake::Call> calls = fake::calls();
    EXPECT_EQ(calls[0].number, 0x1001);
    EXPECT_EQ(calls[1].ns, ctx.nsId);
    EXPECT_EQ(calls[1].root, top + "/b/rootfs");
    EXPECT_EQ(calls[1].name, "web");
    EXPECT_EQ(calls[2].ns, ctx.nsId);
    EXPECT_EQ(calls[2].root, top + "/b/rootfs");
    EXPECT_EQ(calls[2].source, "/s1");
    EXPECT_EQ(calls[2].destination, "/d1");
    EXPECT_EQ(calls[2].type, "bind");
    EXPECT_EQ(calls[2].list, (Strings{"ro", "nosuid"}));
    EXPECT_EQ(calls[3].source, "/s2");
    EXPECT_EQ(calls[3].type, "<null>");
    EXPECT_TRUE(calls[3].list_is_null);
    EXPECT_EQ(calls[4].source, "<null>");
    EXPECT_EQ(calls[4].destination, "");
    EXPECT_TRUE(ctx.mounted);
    EXPECT_EQ(ctx.mountCount, 3u);
    EXPECT_GT(ctx.nsId, 0);
    ASSERT_EQ(zncContainerUmount(&ctx), OK);
}

TEST_F(Rootfs, MountOfAMountedContainerDoesNothing)
{
    prepare("");
    ctx.mounted = TRUE;
    EXPECT_EQ(zncContainerMount(&ctx), OK);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, EmptyMountListMountsNothingAndSucceeds)
{
    prepare(R"("mounts":[],)");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    EXPECT_TRUE(fake::calls_of("znnsMount").empty());
    EXPECT_EQ(ctx.mountCount, 0u);
    EXPECT_EQ(zncContainerUmount(&ctx), OK);
}

TEST_F(Rootfs, NamespaceThatCannotBeMadeIsNAMESPACE_CREATE_FAILEDWithoutAMessage)
{
    prepare("");
    fake::fail("znnsCreate", 1, EPERM);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_NAMESPACE_CREATE_FAILED);
    EXPECT_EQ(ctx.nsId, -1);
    EXPECT_FALSE(ctx.mounted);
    EXPECT_TRUE(messages().empty());
}

TEST_F(Rootfs, NamespaceRootThatCannotBeMadeIsROOTFS_CREATE_FAILEDWithoutAMessage)
{
    prepare("");
    fake::fail("znnsRootfsCreate", 1, EPERM);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_ROOTFS_CREATE_FAILED);
    EXPECT_FALSE(ctx.mounted);
    EXPECT_TRUE(messages().empty());
    EXPECT_EQ(fake::ops(), (Strings{"znnsCreate", "znnsRootfsCreate"})); // nothing is undone
}

TEST_F(Rootfs, SecondOfThreeMountsFailingUndoesTheFirstAndTheNamespace)
{
    prepare(kThreeMounts);
    fake::fail("znnsMount", 2, ENOENT);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_ADDITIONAL_MOUNT_FAILED);
    EXPECT_EQ(messages(), Strings{("Container additional mount failed for rootfs path: " + top +
                                   "/b/rootfs src: /s2 dest: /d2")
                                      .substr(0, 254)});
    EXPECT_EQ(fake::ops(), (Strings{"znnsCreate", "znnsRootfsCreate", "znnsMount", "znnsMount",
                                    "znnsUmount", "znnsRootfsDestroy", "znnsDelete"}));
    EXPECT_EQ(fake::calls_of("znnsUmount")[0].source, "/s1");
    EXPECT_TRUE(fake::namespaces().empty());
    EXPECT_FALSE(ctx.mounted);
    EXPECT_EQ(ctx.mountCount, 0u);
    EXPECT_EQ(ctx.nsId, -1);
}

TEST_F(Rootfs, FailingUndoOfAFailedMountIsStillADDITIONAL_MOUNT_FAILED)
{
    prepare(kThreeMounts);
    fake::fail("znnsMount", 3, ENOENT);
    fake::fail("znnsUmount", 1, EBUSY);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_ADDITIONAL_MOUNT_FAILED);
    EXPECT_FALSE(ctx.mounted);
    EXPECT_EQ(ctx.mountCount, 2u);
    EXPECT_TRUE(fake::calls_of("znnsRootfsDestroy").empty());
}

TEST_F(Rootfs, MessageOfAFailedMountSurvivesMissingTexts)
{
    prepare(R"("mounts":[{}],)");
    fake::fail("znnsMount", 1, ENOENT);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(messages(), Strings{"Container additional mount failed for rootfs path: " + top +
                                  "/b/rootfs src: (null) dest: (null)"});
}

TEST_F(Rootfs, MountWithoutMemoryFailsUnmounted)
{
    prepare("");
    alloc_fault::arm(1);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    alloc_fault::disarm();
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_FALSE(ctx.mounted);
    EXPECT_TRUE(fake::calls().empty());
}

// ------------------------------------------------------------------ unmounting

TEST_F(Rootfs, UnmountUndoesInReverseOrderWithTheSameValues)
{
    prepare(kThreeMounts);
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    const std::vector<fake::Call> mounts = fake::calls_of("znnsMount");
    ASSERT_EQ(zncContainerUmount(&ctx), OK);
    std::vector<fake::Call> umounts = fake::calls_of("znnsUmount");
    ASSERT_EQ(umounts.size(), 3u);
    for (std::size_t i = 0; i < 3; i++) {
        umounts[i].op = "znnsMount";
        EXPECT_EQ(umounts[i], mounts[2 - i]);
    }
    const auto destroyed = fake::calls_of("znnsRootfsDestroy");
    ASSERT_EQ(destroyed.size(), 1u);
    EXPECT_EQ(destroyed[0].root, top + "/b/rootfs");
    EXPECT_EQ(destroyed[0].name, "web");
    EXPECT_EQ(fake::ops().back(), "znnsDelete");
    EXPECT_FALSE(ctx.mounted);
    EXPECT_EQ(ctx.mountCount, 0u);
    EXPECT_EQ(ctx.nsId, -1);
}

TEST_F(Rootfs, UnmountOfAnUnmountedContainerDoesNothing)
{
    prepare("");
    EXPECT_EQ(zncContainerUmount(&ctx), OK);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, UnmountWithoutANamespaceFailsWithoutACodeAndIsUnmountedAfterwards)
{
    prepare("");
    for (const bool overlay : {false, true}) {
        set_overlay(overlay);
        ctx.mounted = TRUE;
        errno = 0;
        EXPECT_EQ(zncContainerUmount(&ctx), ERROR);
        EXPECT_EQ(errno, 0);
        EXPECT_FALSE(ctx.mounted);
    }
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, UnmountWhosePathDoesNotFitFailsWithENAMETOOLONG)
{
    prepare("", "/" + std::string(1500, 'r'));
    ctx.mounted = TRUE;
    ctx.nsId = 1;
    EXPECT_EQ(zncContainerUmount(&ctx), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_FALSE(ctx.mounted);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, UnmountWithoutMemoryFailsAndIsUnmountedAfterwards)
{
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    alloc_fault::arm(1);
    EXPECT_EQ(zncContainerUmount(&ctx), ERROR);
    alloc_fault::disarm();
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_FALSE(ctx.mounted);
}

TEST_F(Rootfs, MountThatCannotBeUndoneStaysCountedAndItsNumberIsKept)
{
    prepare(kThreeMounts);
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    fake::fail("znnsUmount", 2, EBUSY);
    EXPECT_EQ(zncContainerUmount(&ctx), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(ctx.mountCount, 2u);
    EXPECT_FALSE(ctx.mounted);
    EXPECT_TRUE(fake::calls_of("znnsRootfsDestroy").empty());
    EXPECT_EQ(zncContainerUmount(&ctx), OK); // nothing more is tried
}

TEST_F(Rootfs, RootThatCannotBeUndoneKeepsTheNamespaceAndTheDirectory)
{
    set_overlay(true);
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    fake::fail("znnsRootfsDestroy", 1, EIO);
    EXPECT_EQ(zncContainerUmount(&ctx), ERROR);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(fake::calls_of("znnsDelete").empty());
    EXPECT_NE(ctx.nsId, -1);
    EXPECT_TRUE(fs::exists(area() + "web/upper"));
    EXPECT_FALSE(ctx.mounted);
}

TEST_F(Rootfs, NamespaceThatCannotBeDeletedIsTheResultWithoutOverlay)
{
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    fake::fail("znnsDelete", 1, EIO);
    EXPECT_EQ(zncContainerUmount(&ctx), ERROR);
    EXPECT_EQ(errno, EIO);
    EXPECT_NE(ctx.nsId, -1);
    EXPECT_FALSE(ctx.mounted);
}

TEST_F(Rootfs, RemovingTheUpperLayerIsTheResultWithOverlay)
{
    set_overlay(true);
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    fake::fail("znnsDelete", 1, EIO);
    EXPECT_EQ(zncContainerUmount(&ctx), OK);
    EXPECT_NE(ctx.nsId, -1);
    EXPECT_FALSE(fs::exists(area() + "web"));
}

// ------------------------------------------------------------------ overlay roots

TEST_F(Rootfs, OverlayRootStacksTheUpperDirectoryOnTheBundleRoot)
{
    set_overlay(true);
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    const auto made = fake::calls_of("znOvlDevCreate");
    ASSERT_EQ(made.size(), 1u);
    EXPECT_EQ(made[0].name, "/overlay/web");
    EXPECT_EQ(made[0].list, (Strings{area() + "web/upper", top + "/b/rootfs"}));
    EXPECT_EQ(made[0].number, TRUE);
    EXPECT_EQ(fake::calls_of("znnsRootfsCreate")[0].root, "/overlay/web");
    EXPECT_STREQ(ctx.appPath, "/overlay/web/bin/app");
    struct stat st;
    ASSERT_EQ(::stat((area() + "web/upper").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0777u);
    ASSERT_EQ(zncContainerUmount(&ctx), OK);
    EXPECT_EQ(fake::calls_of("znnsRootfsDestroy")[0].root, "/overlay/web");
    // the namespace service removes the device
    EXPECT_TRUE(fake::calls_of("znOvlDevRemove").empty());
    EXPECT_FALSE(fs::exists(area() + "web"));
    EXPECT_TRUE(fs::exists(area()));
}

TEST_F(Rootfs, OverlayOverAnAbsoluteRootUsesItAsItIs)
{
    set_overlay(true);
    prepare("", "/overlay/sha256-image");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    EXPECT_EQ(fake::calls_of("znOvlDevCreate")[0].list[1], "/overlay/sha256-image");
    EXPECT_EQ(zncContainerUmount(&ctx), OK);
}

TEST_F(Rootfs, RefusedOverlayDeviceRemovesTheUpperDirectory)
{
    set_overlay(true);
    for (const int error : {EEXIST, EINVAL}) {
        prepare("");
        fake::fail("znOvlDevCreate", 1, error);
        char path[1024];
        EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
        EXPECT_EQ(errno, error);
        EXPECT_FALSE(fs::exists(area() + "web/upper"));
        EXPECT_TRUE(fs::exists(area() + "web"));
        zncDestroyRuntimeSpec(ctx.pConfig);
        ctx.pConfig = nullptr;
    }
}

TEST_F(Rootfs, UpperDirectoryLeftByAFailedCreateIsRemovedWithTheDevice)
{
    set_overlay(true);
    fs::create_directories(area() + "web/upper/old");
    prepare("");
    fake::fail("znOvlDevCreate", 1, EINVAL);
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
    EXPECT_FALSE(fs::exists(area() + "web/upper"));
}

TEST_F(Rootfs, DeviceOfALiveContainerKeepsItsUpperDirectory)
{
    set_overlay(true);
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    std::ofstream(area() + "web/upper/data") << "x";
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(fs::exists(area() + "web/upper/data"));
    EXPECT_EQ(zncContainerUmount(&ctx), OK);
}

TEST_F(Rootfs, OverlayDeviceFailureIsROOTFS_CREATE_FAILEDWithTheDeviceInTheMessage)
{
    set_overlay(true);
    prepare("");
    fake::fail("znOvlDevCreate", 1, EINVAL);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_ROOTFS_CREATE_FAILED);
    EXPECT_EQ(messages(), Strings{"Container rootfs create failed : /overlay/web"});
    EXPECT_FALSE(ctx.mounted);
}

TEST_F(Rootfs, IdThatDoesNotFitTheUpperPathIsENAMETOOLONGReportedAsROOTFS_CREATE_FAILED)
{
    set_overlay(true);
    const std::string id(200, 'i');
    // The area, the id, "/upper" and the terminator take 1024 bytes.
    set_area_length(1024 - 7 - id.size());
    prepare("", "rootfs", "/bin/app", id);
    char path[1024];
    EXPECT_EQ(zncContainerOvlfsRootfsCreate(&ctx, path), OK) << std::strerror(errno);
    EXPECT_TRUE(fs::exists(area() + id + "/upper"));
    set(ctx.state.containerId, id + "i");
    EXPECT_EQ(zncContainerOvlfsRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_FALSE(fs::exists(area() + id + "i"));
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_ROOTFS_CREATE_FAILED);
    set(ctx.state.containerId, std::string(254, 'i')); // so that even the id does not fit
    EXPECT_EQ(zncContainerOvlfsRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(Rootfs, LowerPathThatDoesNotFitIsBUNDLE_PATH_TOO_LONGAndTheUpperDirectoryStays)
{
    set_overlay(true);
    prepare("", std::string(1100, 'r'));
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_PATH_TOO_LONG);
    EXPECT_TRUE(fs::exists(area() + "web/upper"));
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, StorageBaseThatCannotBeMadeFailsTheOverlayWithItsNumber)
{
    set_overlay(true);
    std::ofstream(top + "/base") << "a file";
    prepare("");
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(zncContainerRemoveUpLayer(path, sizeof path, "web"), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(Rootfs, UpperDirectoryThatCannotBeMadeFailsTheOverlayWithItsNumber)
{
    set_overlay(true);
    fs::create_directories(area());
    std::ofstream(area() + "web") << "a file";
    prepare("");
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, OverlayWithoutMemoryFailsWithENOMEM)
{
    set_overlay(true);
    prepare("");
    char path[1024];
    for (unsigned n = 1; n <= 2; n++) { // the upper path, the lower path
        alloc_fault::arm(n);
        EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
        EXPECT_EQ(alloc_fault::disarm(), n);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(Rootfs, OverlayOrPlainIsDeterminedInEachCall)
{
    set_overlay(true);
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    set_overlay(false);
    ASSERT_EQ(zncContainerUmount(&ctx), OK);
    EXPECT_EQ(fake::calls_of("znnsRootfsDestroy")[0].root, top + "/b/rootfs");
    EXPECT_TRUE(fs::exists(area() + "web/upper"));
}

TEST_F(Rootfs, OverlayMountFailureRemovesTheContainersDirectory)
{
    set_overlay(true);
    prepare(kThreeMounts);
    fake::fail("znnsMount", 2, ENOENT);
    EXPECT_EQ(zncContainerMount(&ctx), ERROR);
    EXPECT_EQ(errno, S_zncLib_ADDITIONAL_MOUNT_FAILED);
    EXPECT_FALSE(fs::exists(area() + "web"));
    EXPECT_TRUE(fake::namespaces().empty());
    EXPECT_TRUE(fake::devices().empty());
}

TEST_F(Rootfs, CreateRepeatedAfterAFailureWithTheSameIdSucceeds)
{
    set_overlay(true);
    for (const char* step : {"znOvlDevCreate", "znnsCreate", "znnsRootfsCreate", "znnsMount"}) {
        prepare(kThreeMounts);
        fake::fail(step, 1, EIO);
        EXPECT_EQ(zncContainerMount(&ctx), ERROR) << step;
        ctx.nsId = -1;
        ASSERT_EQ(zncContainerMount(&ctx), OK) << step;
        ASSERT_EQ(zncContainerUmount(&ctx), OK) << step;
        EXPECT_FALSE(fs::exists(area() + "web")) << step;
        EXPECT_TRUE(fake::namespaces().empty()) << step;
        EXPECT_TRUE(fake::devices().empty()) << step;
        zncDestroyRuntimeSpec(ctx.pConfig);
        ctx.pConfig = nullptr;
        messages();
    }
}

// ------------------------------------------------------------------ the upper layer

TEST_F(Rootfs, RemovingTheUpperLayerFollowsNoLinkTheContainerPlanted)
{
    const std::string outside = top + "/outside";
    fs::create_directories(outside);
    std::ofstream(outside + "/precious") << "x";
    fs::create_directories(area() + "web/upper/etc");
    fs::create_directory_symlink(outside, area() + "web/upper/link");
    fs::create_directory_symlink("..", area() + "web/upper/etc/up");
    fs::create_symlink("/nowhere", area() + "web/upper/dangling");
    std::ofstream(area() + "web/upper/etc/file") << "x";
    fs::create_directories(area() + "other");
    char buffer[1024];
    EXPECT_EQ(zncContainerRemoveUpLayer(buffer, sizeof buffer, "web"), OK);
    EXPECT_FALSE(fs::exists(area() + "web"));
    EXPECT_TRUE(fs::exists(outside + "/precious"));
    EXPECT_TRUE(fs::exists(area() + "other"));
}

TEST_F(Rootfs, ALargeUpperLayerIsMovedAwayAtOnceAndDeletedLater)
{
    fs::create_directories(area() + "web/upper");
    for (int i = 0; i < 3000; i++)
        std::ofstream(area() + "web/upper/" + std::to_string(i)) << "x";
    char buffer[1024];
    EXPECT_EQ(zncContainerRemoveUpLayer(buffer, sizeof buffer, "web"), OK);
    EXPECT_FALSE(fs::exists(area() + "web"));
    EXPECT_TRUE(eventually([&] { return !fs::exists(base + "/.trash"); }));
}

// The mount stops the deletion, like a file created in the tree during deletion by an outside
// process that has a descriptor of it.
// The first thing that the kernel reports is a move of the directory, not a deletion in it.
TEST_F(Rootfs, NothingOfALargeUpperLayerIsDeletedBeforeItIsMovedAway)
{
    fs::create_directories(area() + "web/upper");
    for (int i = 0; i < 3000; i++)
        std::ofstream(area() + "web/upper/" + std::to_string(i)) << "x";
    const znc::UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_GE(::inotify_add_watch(watch.get(), (area() + "web").c_str(), IN_MOVE_SELF), 0);
    ASSERT_GE(::inotify_add_watch(watch.get(), (area() + "web/upper").c_str(), IN_DELETE), 0);
    char buffer[1024];
    EXPECT_EQ(zncContainerRemoveUpLayer(buffer, sizeof buffer, "web"), OK);
    alignas(inotify_event) char events[4096];
    ASSERT_GE(::read(watch.get(), events, sizeof events), ssize_t{sizeof(inotify_event)});
    EXPECT_EQ(reinterpret_cast<const inotify_event*>(events)->mask, unsigned{IN_MOVE_SELF});
    EXPECT_TRUE(eventually([&] { return !fs::exists(base + "/.trash"); }));
}

TEST_F(Rootfs, ASmallUpperLayerThatCannotBeDeletedIsMovedAwayAndDeletedLater)
{
    fs::create_directories(area() + "web/upper/busy");
    ASSERT_EQ(::mount("tmpfs", (area() + "web/upper/busy").c_str(), "tmpfs", 0, nullptr), 0);
    char buffer[1024];
    EXPECT_EQ(zncContainerRemoveUpLayer(buffer, sizeof buffer, "web"), OK);
    EXPECT_FALSE(fs::exists(area() + "web"));
    ASSERT_TRUE(fs::exists(base + "/.trash"));
    const fs::path taken = fs::directory_iterator(base + "/.trash")->path();
    ASSERT_EQ(::umount((taken / "upper/busy").c_str()), 0);
    ASSERT_TRUE(znc::trash_settled(60000));
    znc::trash_empty();
    EXPECT_TRUE(eventually([&] { return !fs::exists(base + "/.trash"); }));
}

TEST_F(Rootfs, ANewContainerNeverSeesTheFilesOfOneWhoseDeletionFailed)
{
    set_overlay(true);
    fs::create_directories(area() + "web/upper/etc");
    std::ofstream(area() + "web/upper/etc/secret") << "x";
    prepare("");
    ASSERT_EQ(zncContainerMount(&ctx), OK);
    EXPECT_TRUE(fs::is_empty(area() + "web/upper"));
    EXPECT_EQ(zncContainerUmount(&ctx), OK);
}

TEST_F(Rootfs, WhereOldFilesCannotBeRemovedTheContainerIsRefused)
{
    set_overlay(true);
    fs::create_directories(area() + "web/upper/etc");
    std::ofstream(area() + "web/upper/etc/secret") << "x";
    prepare("");
    ASSERT_EQ(::mount(area().c_str(), area().c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, area().c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr),
              0);
    char path[1024];
    EXPECT_EQ(zncContainerRootfsCreate(&ctx, path), ERROR);
    EXPECT_EQ(errno, EROFS);
    EXPECT_TRUE(fake::calls_of("znOvlDevCreate").empty());
    EXPECT_EQ(::umount(area().c_str()), 0);
}

TEST_F(Rootfs, RemovingAnUpperLayerWhosePathDoesNotFitIsENAMETOOLONG)
{
    const std::string id(200, 'i');
    set_area_length(1024 - id.size());
    char buffer[1024];
    EXPECT_EQ(zncContainerRemoveUpLayer(buffer, sizeof buffer, id.c_str()), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(Rootfs, RemovingAMissingUpperLayerFails)
{
    char buffer[1024];
    EXPECT_EQ(zncContainerRemoveUpLayer(buffer, sizeof buffer, "web"), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
