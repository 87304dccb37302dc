// Tests of the attributes of the root of a container's overlay device, and of devices whose
// container no longer exists or was never created.
#include "zarnel/overlay.h"

#include "base/owned.hpp"
#include "eventually.hpp"
#include "little_root.hpp"
#include "zarnel/ns.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

class OverlayDevice : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(znOvlInit(), TRUE);
        make_little_root("/tmp/o/root");
    }
    void TearDown() override
    {
        EXPECT_EQ(znnsShutdown(), 0);
        EXPECT_TRUE(fs::is_empty("/overlay"));
        fs::remove_all("/tmp/o");
    }

    static STATUS create(const std::string& name, const std::vector<std::string>& lower,
                         bool writable = true)
    {
        const std::string upper = "/tmp/o/" + name + "/upper";
        std::vector<const char*> dirs;
        if (writable) {
            fs::create_directories(upper);
            ::chmod(upper.c_str(), 0777);
            dirs.push_back(upper.c_str());
        }
        for (const std::string& dir : lower)
            dirs.push_back(dir.c_str());
        return znOvlDevCreate(("/overlay/" + name).c_str(), dirs.data(),
                              static_cast<uint32_t>(dirs.size()), writable ? TRUE : FALSE);
    }
    static STATUS remove(const std::string& name)
    {
        return znOvlDevRemove(("/overlay/" + name).c_str());
    }
    static nsid_t rooted_on(const std::string& name)
    {
        const nsid_t ns = znnsCreate(0x1001);
        EXPECT_EQ(znnsRootfsCreate(ns, ("/overlay/" + name).c_str(), name.c_str()), OK)
            << std::strerror(errno);
        return ns;
    }
    static znc::UniqueFd locked_devices()
    {
        znc::UniqueFd dir(::open("/overlay", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        EXPECT_EQ(::flock(dir.get(), LOCK_EX), 0);
        return dir;
    }
};

TEST_F(OverlayDevice, ItsRootHasModeAndOwnerOfTheTopmostLowerDirectory)
{
    fs::create_directories("/tmp/o/below");
    for (const mode_t mode : {0755U, 0700U, 01777U, 0751U}) {
        ASSERT_EQ(::chmod("/tmp/o/root", mode), 0);
        ASSERT_EQ(::chown("/tmp/o/root", 12, 34), 0);
        ASSERT_EQ(create("web", {"/tmp/o/root", "/tmp/o/below"}), OK) << std::strerror(errno);
        struct stat st = {};
        ASSERT_EQ(::stat("/overlay/web", &st), 0);
        EXPECT_EQ(st.st_mode & 07777, mode);
        EXPECT_EQ(st.st_uid, 12U);
        EXPECT_EQ(st.st_gid, 34U);
        EXPECT_EQ(remove("web"), OK);
    }
}

TEST_F(OverlayDevice, OnAnImagesDeviceItsRootIsThatOfTheImage)
{
    fs::create_directories("/tmp/o/top");
    ASSERT_EQ(::chmod("/tmp/o/top", 0751), 0);
    ASSERT_EQ(create("image", {"/tmp/o/top", "/tmp/o/root"}, false), OK) << std::strerror(errno);
    ASSERT_EQ(create("web", {"/overlay/image"}), OK) << std::strerror(errno);
    struct stat st = {};
    ASSERT_EQ(::stat("/overlay/web", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0751U);
    EXPECT_EQ(remove("web"), OK);
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(OverlayDevice, APlainUserCanNeitherRenameNorReplaceWhatIsInItsRoot)
{
    ASSERT_EQ(create("web", {"/tmp/o/root"}), OK) << std::strerror(errno);
    const pid_t user = ::fork();
    if (user == 0) {
        if (::chdir("/overlay/web") != 0 || ::setgid(1000) != 0 || ::setuid(1000) != 0)
            ::_exit(1);
        if (::rename("bin", "mine") == 0 || errno != EACCES)
            ::_exit(2);
        if (::mkdir("new", 0777) == 0 || errno != EACCES)
            ::_exit(3);
        ::_exit(::access("bin/busybox", X_OK) == 0 ? 0 : 4);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(user, &status, 0), user);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(remove("web"), OK);
}

// A caller forks while it creates devices: the child inherits every descriptor that is open then.
TEST_F(OverlayDevice, AForkedChildOfACallerDoesNotKeepTheDevicesLocked)
{
    std::vector<pid_t> children;
    std::thread forker([&] {
        for (int i = 0; i < 300; i++) {
            const pid_t child = ::fork();
            if (child == 0)
                for (;;)
                    ::pause();
            children.push_back(child);
        }
    });
    int good = 0;
    for (int i = 0; i < 60; i++)
        good += create("image", {"/tmp/o/root"}, false) == OK && remove("image") == OK ? 1 : 0;
    forker.join();
    EXPECT_EQ(good, 60);
    const pid_t other = ::fork();
    if (other == 0)
        ::_exit(create("image", {"/tmp/o/root"}, false) == OK && remove("image") == OK ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(other, &status, 0), other);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    for (const pid_t child : children) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

TEST_F(OverlayDevice, ASweepDetachesOnlyDevicesOfNoContainer)
{
    fs::create_directories("/overlay/foreign");
    ASSERT_EQ(::mount("tmpfs", "/overlay/foreign", "tmpfs", 0, nullptr), 0);
    ASSERT_EQ(create("image", {"/tmp/o/root"}, false), OK);
    ASSERT_EQ(create("lives", {"/tmp/o/root"}), OK);
    ASSERT_EQ(create("failed", {"/tmp/o/root"}), OK);
    const nsid_t ns = rooted_on("lives");
    EXPECT_EQ(znOvlDevInUse("/overlay/lives"), TRUE);
    EXPECT_EQ(znOvlDevInUse("/overlay/failed"), FALSE);
    EXPECT_EQ(znOvlSweep(), 0);
    EXPECT_FALSE(fs::exists("/overlay/failed"));
    EXPECT_TRUE(fs::exists("/tmp/o/failed/upper")) << "its directories are the caller's";
    EXPECT_TRUE(fs::exists("/overlay/lives/bin/busybox"));
    EXPECT_TRUE(fs::exists("/overlay/image/bin/busybox"));
    EXPECT_EQ(znnsRootfsDestroy(ns, "/overlay/lives", "lives"), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(remove("image"), OK);
    EXPECT_EQ(::umount("/overlay/foreign"), 0) << "no device: it stayed";
    fs::remove("/overlay/foreign");
}

TEST_F(OverlayDevice, DeviceThatWasLockedIsDetachedLater)
{
    ASSERT_EQ(create("web", {"/tmp/o/root"}), OK);
    const nsid_t ns = rooted_on("web");
    znc::UniqueFd other = locked_devices();
    EXPECT_EQ(znnsRootfsDestroy(ns, "/overlay/web", "web"), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
    znnsReap();
    EXPECT_TRUE(fs::exists("/overlay/web/bin/busybox"));
    EXPECT_EQ(znOvlDevInUse("/overlay/web"), FALSE);
    other.reset();
    znnsReap();
    EXPECT_FALSE(fs::exists("/overlay/web"));
}

// With `left` descriptors, finding out what is at the path fails at another step.
TEST_F(OverlayDevice, DeviceThatCouldNotBeExaminedIsDetachedLater)
{
    for (const rlim_t left : {0U, 1U, 2U}) {
        ASSERT_EQ(create("web", {"/tmp/o/root"}), OK);
        const nsid_t ns = rooted_on("web");
        struct rlimit usual = {};
        ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
        const znc::UniqueFd lowest(::dup(2));
        const struct rlimit few = {static_cast<rlim_t>(lowest.get()) + 1 + left, usual.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
        EXPECT_EQ(znnsRootfsDestroy(ns, "/overlay/web", "web"), OK);
        EXPECT_EQ(znnsDelete(ns), OK);
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
        znnsReap();
        EXPECT_FALSE(fs::exists("/overlay/web")) << left;
    }
}

TEST_F(OverlayDevice, DeviceToBeDetachedLaterStaysIfANewContainerUsesIt)
{
    ASSERT_EQ(create("web", {"/tmp/o/root"}), OK);
    const nsid_t old = rooted_on("web");
    znc::UniqueFd other = locked_devices();
    EXPECT_EQ(znnsDelete(old), OK);
    other.reset();
    ASSERT_EQ(create("web", {"/tmp/o/root"}), OK) << "an abandoned one is no obstacle";
    const nsid_t ns = rooted_on("web");
    znnsReap();
    EXPECT_TRUE(fs::exists("/overlay/web/bin/busybox"));
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_FALSE(fs::exists("/overlay/web"));
}

} // namespace
