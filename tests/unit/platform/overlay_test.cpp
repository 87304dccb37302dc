// Tests of overlay devices with the kernel's overlay filesystem.

#include "zarnel/overlay.h"

#include "base/owned.hpp"
#include "little_root.hpp"
#include "overlay_mount.hpp"
#include "zarnel/ns.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/mount.h>
#include <linux/seccomp.h>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class Overlay : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(znOvlInit(), TRUE);
        fs::create_directories("/tmp/o");
        mounts_ = read_file("/proc/self/mountinfo");
    }
    void TearDown() override
    {
        EXPECT_EQ(read_file("/proc/self/mountinfo"), mounts_);
        EXPECT_TRUE(fs::is_empty("/overlay"));
        fs::remove_all("/tmp/o");
    }

    // A directory with one file that contains the name of the directory.
    std::string layer(const std::string& name, const std::string& file)
    {
        const std::string path = "/tmp/o/" + name;
        fs::create_directories(path);
        std::ofstream(path + "/" + file) << name;
        return path;
    }

    STATUS create(const std::string& name, const std::vector<std::string>& dirs, BOOL hasUpper)
    {
        std::vector<const char*> list;
        for (const std::string& dir : dirs)
            list.push_back(dir.c_str());
        return znOvlDevCreate(("/overlay/" + name).c_str(), list.data(),
                              static_cast<uint32_t>(list.size()), hasUpper);
    }
    STATUS remove(const std::string& name) { return znOvlDevRemove(("/overlay/" + name).c_str()); }

    std::string mounts_;
};

TEST_F(Overlay, FirstDirectoryIsOnTop)
{
    const std::string top = layer("top", "same");
    const std::string bottom = layer("bottom", "same");
    std::ofstream(bottom + "/below") << "b";
    ASSERT_EQ(create("image", {top, bottom}, FALSE), OK) << std::strerror(errno);
    EXPECT_EQ(read_file("/overlay/image/same"), "top");
    EXPECT_EQ(read_file("/overlay/image/below"), "b");
    EXPECT_EQ(::open("/overlay/image/new", O_WRONLY | O_CREAT | O_CLOEXEC, 0600), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(remove("image"), OK);
}

// From now on the calling process is on a kernel that fails with this error if a file system is
// given descriptors.
void refuse_descriptors(int error)
{
    constexpr auto kNumber = static_cast<std::uint32_t>(offsetof(seccomp_data, nr));
    constexpr auto kCommand = static_cast<std::uint32_t>(offsetof(seccomp_data, args[1]));
    sock_filter code[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, kNumber},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, SYS_fsconfig},
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, kCommand},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, FSCONFIG_SET_FD},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    const sock_fprog filter = {std::size(code), code};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        ::_exit(2);
}

TEST_F(Overlay, KernelsThatTakeNoDescriptorsGetPaths)
{
    for (const int error : {EBADF, EOPNOTSUPP, EINVAL}) { // 6.5 to 6.12; before 6.5
        const std::vector<std::string> dirs = {layer("top", "same"), layer("bottom", "same")};
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            refuse_descriptors(error);
            ::_exit(create("image", dirs, FALSE) == OK ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << std::strerror(error);
        EXPECT_EQ(read_file("/overlay/image/same"), "top") << std::strerror(error);
        EXPECT_EQ(remove("image"), OK) << std::strerror(error);
    }
}

TEST_F(Overlay, WritesGoToTheUpperDirectoryOnly)
{
    fs::create_directories("/tmp/o/c/upper");
    const std::string lower = layer("lower", "file");
    ASSERT_EQ(create("web", {"/tmp/o/c/upper", lower}, TRUE), OK) << std::strerror(errno);
    std::ofstream("/overlay/web/file") << "changed";
    EXPECT_EQ(read_file(lower + "/file"), "lower");
    EXPECT_EQ(read_file("/tmp/o/c/upper/file"), "changed");
    EXPECT_EQ(remove("web"), OK);
}

TEST_F(Overlay, ADeviceThatIsMountedIsNotMadeAgain)
{
    const std::string lower = layer("a", "x");
    ASSERT_EQ(create("image", {lower}, FALSE), OK) << std::strerror(errno);
    EXPECT_EQ(create("image", {lower}, FALSE), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(remove("image"), OK);
    EXPECT_EQ(remove("image"), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Overlay, ABareDirectoryOfItsNameIsNoDevice)
{
    fs::create_directories("/overlay/image");
    EXPECT_EQ(remove("image"), ERROR);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(create("image", {layer("a", "x")}, FALSE), OK) << std::strerror(errno);
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(Overlay, AFileOrLinkOfItsNameIsNotReplaced)
{
    std::ofstream("/overlay/file") << "x";
    fs::create_directory_symlink("/tmp/o", "/overlay/link");
    for (const char* name : {"file", "link"}) {
        EXPECT_EQ(create(name, {layer("a", "x")}, FALSE), ERROR);
        EXPECT_EQ(errno, EEXIST);
    }
    fs::remove("/overlay/file");
    fs::remove("/overlay/link");
}

TEST_F(Overlay, BadNamesAndListsAreRefused)
{
    const std::string lower = layer("a", "x");
    for (const char* name : {"", ".", "..", "a/b"}) {
        EXPECT_EQ(create(name, {lower}, FALSE), ERROR) << name;
        EXPECT_EQ(errno, EINVAL) << name;
    }
    const char* dirs[] = {lower.c_str()};
    EXPECT_EQ(znOvlDevCreate("/tmp/o/image", dirs, 1, FALSE), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(create("image", {}, FALSE), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(create("image", {lower}, TRUE), ERROR); // an upper directory without a lower one
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(create("image", {"/tmp/o/none"}, FALSE), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Overlay, StacksOf127LayersAndPathsWithColonsCommasAndSpacesWork)
{
    std::vector<std::string> dirs;
    for (int i = 0; i < 127; i++)
        dirs.push_back(layer("l:a,y e\\r" + std::string(100, 'x') + std::to_string(i),
                             "f" + std::to_string(i)));
    ASSERT_EQ(create("image", dirs, FALSE), OK) << std::strerror(errno);
    for (int i = 0; i < 127; i++)
        EXPECT_TRUE(fs::exists("/overlay/image/f" + std::to_string(i))) << i;
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(Overlay, TooManyLayersFailWithTheKernelsErrno)
{
    std::vector<std::string> dirs;
    for (int i = 0; i < 501; i++)
        dirs.push_back(layer("l" + std::to_string(i), "f"));
    EXPECT_EQ(create("many", dirs, FALSE), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(fs::exists("/overlay/many"));
}

TEST_F(Overlay, MountSystemCallGivesTheSameResultAsFsconfig)
{
    fs::create_directories("/tmp/o/point");
    fs::create_directories("/tmp/o/upper");
    fs::create_directories("/tmp/o/work");
    const auto path_of = [](const std::string& path) {
        return znc::UniqueFd(::open(path.c_str(), O_PATH | O_CLOEXEC));
    };
    std::vector<znc::UniqueFd> open;
    std::vector<int> dirs;
    for (int i = 0; i < 127; i++) {
        open.push_back(path_of(layer("c:" + std::to_string(i), "f" + std::to_string(i))));
        dirs.push_back(open.back().get());
    }
    const znc::UniqueFd point = path_of("/tmp/o/point");
    const znc::UniqueFd upper = path_of("/tmp/o/upper");
    const znc::UniqueFd work = path_of("/tmp/o/work");
    ASSERT_EQ(zn::overlay_mount_classic(point.get(), dirs.data(), 127, -1, -1), 0)
        << std::strerror(errno);
    EXPECT_TRUE(fs::exists("/tmp/o/point/f126"));
    ASSERT_EQ(::umount2("/tmp/o/point", 0), 0);
    ASSERT_EQ(zn::overlay_mount_classic(point.get(), dirs.data(), 2, upper.get(), work.get()), 0)
        << std::strerror(errno);
    std::ofstream("/tmp/o/point/new") << "x";
    ASSERT_EQ(::umount2("/tmp/o/point", 0), 0);
    EXPECT_TRUE(fs::exists("/tmp/o/upper/new"));
    EXPECT_EQ(
        zn::overlay_mount_classic(point.get(), std::vector<int>(400, dirs[0]).data(), 400, -1, -1),
        -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(Overlay, AfterARebootRecordedDevicesAreMountedAgainAndOthersRemoved)
{
    const std::string lower = layer("a", "x");
    const std::string gone = layer("b", "y");
    ASSERT_EQ(create("image", {lower}, FALSE), OK);
    ASSERT_EQ(create("lost", {gone}, FALSE), OK);
    ASSERT_EQ(::umount2("/overlay/image", MNT_DETACH), 0); // what a reboot does
    ASSERT_EQ(::umount2("/overlay/lost", MNT_DETACH), 0);
    fs::create_directories("/overlay/container");
    fs::remove_all(gone);
    EXPECT_EQ(znOvlRestore(), 0);
    EXPECT_EQ(read_file("/overlay/image/x"), "a");
    EXPECT_FALSE(fs::exists("/overlay/lost"));
    EXPECT_FALSE(fs::exists("/overlay/container"));
    EXPECT_EQ(znOvlRestore(), 0); // finds nothing to do
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(Overlay, WritableDevicesOfADeadDaemonAreDetached)
{
    fs::create_directories("/tmp/o/c/upper");
    ASSERT_EQ(create("web", {"/tmp/o/c/upper", layer("a", "x")}, TRUE), OK);
    EXPECT_EQ(znOvlRestore(), 0);
    EXPECT_FALSE(fs::exists("/overlay/web"));
    EXPECT_TRUE(fs::exists("/tmp/o/c/upper"));
}

TEST_F(Overlay, AbandonedWritableDeviceIsReplacedButOneInUseIsNot)
{
    make_little_root("/tmp/o/root");
    fs::create_directories("/tmp/o/c/upper");
    ASSERT_EQ(create("web", {"/tmp/o/c/upper", "/tmp/o/root"}, TRUE), OK);
    ASSERT_EQ(create("web", {"/tmp/o/c/upper", "/tmp/o/root"}, TRUE), OK) << std::strerror(errno);
    const nsid_t ns = znnsCreate(0x1001);
    ASSERT_EQ(znnsRootfsCreate(ns, "/overlay/web", "web"), OK) << std::strerror(errno);
    EXPECT_EQ(create("web", {"/tmp/o/c/upper", "/tmp/o/root"}, TRUE), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(znnsRootfsDestroy(ns, "/overlay/web", "web"), OK); // also removes the device
    EXPECT_FALSE(fs::exists("/overlay/web"));
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Overlay, DeletingANamespaceKeepsAnotherContainersDevice)
{
    make_little_root("/tmp/o/root");
    ASSERT_EQ(create("image", {"/tmp/o/root"}, FALSE), OK);
    const nsid_t ns = znnsCreate(0x1001);
    ASSERT_EQ(znnsRootfsCreate(ns, "/overlay/image", "web"), OK) << std::strerror(errno);
    EXPECT_EQ(znnsRootfsDestroy(ns, "/overlay/image", "web"), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(Overlay, FailedRootRemovesTheContainersDevice)
{
    fs::create_directories("/tmp/o/c/upper");
    ASSERT_EQ(create("web", {"/tmp/o/c/upper", layer("a", "x")}, TRUE), OK);
    const nsid_t ns = znnsCreate(0x1001);
    ASSERT_EQ(znnsRootfsCreate(ns, "/overlay/web", "web"), OK);
    const nsid_t taken = znnsCreate(0x1001);
    // Its record cannot be written: the name is already used on disk.
    std::ofstream("/run/zarnel/ns/" + std::to_string(taken)) << "";
    EXPECT_EQ(znnsRootfsCreate(taken, "/overlay/web", "web"), ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(fs::exists("/overlay/web"));
    EXPECT_TRUE(fs::remove("/run/zarnel/ns/" + std::to_string(taken))) << "it is another owner's";
    EXPECT_EQ(znnsDelete(ns), OK);
}

TEST_F(Overlay, AFailedCreationLeavesNothingNotEvenTheWorkDirectory)
{
    fs::create_directories("/tmp/o/c/upper");
    EXPECT_EQ(create("web", {"/tmp/o/c/upper", "/tmp/o/none"}, TRUE), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(fs::exists("/tmp/o/c/work"));
    // An upper directory that the kernel refuses: proc is not writable.
    EXPECT_EQ(create("web", {"/proc/self", layer("a", "x")}, TRUE), ERROR);
    // More layers than the kernel supports.
    std::vector<std::string> dirs = {"/tmp/o/c/upper"};
    for (int i = 0; i < 501; i++)
        dirs.push_back(layer("many" + std::to_string(i), "x"));
    EXPECT_EQ(create("web", dirs, TRUE), ERROR);
    EXPECT_FALSE(fs::exists("/tmp/o/c/work"));
    EXPECT_FALSE(fs::exists("/overlay/web"));
    fs::create_directories("/tmp/o/c/work/kept"); // belongs to another program
    EXPECT_EQ(create("web", {"/tmp/o/c/upper", "/tmp/o/none"}, TRUE), ERROR);
    EXPECT_TRUE(fs::exists("/tmp/o/c/work/kept"));
}

TEST_F(Overlay, DevicesAndSetIdProgramsOfADeviceHaveNoEffectOnTheHost)
{
    fs::create_directories("/tmp/o/c/upper");
    ASSERT_EQ(create("one", {layer("a", "x")}, FALSE), OK);
    ASSERT_EQ(create("image", {layer("a", "x"), layer("b", "y")}, FALSE), OK);
    ASSERT_EQ(create("web", {"/tmp/o/c/upper", layer("b", "y")}, TRUE), OK);
    for (const char* name : {"one", "image", "web"}) {
        struct statvfs st = {};
        ASSERT_EQ(::statvfs((std::string("/overlay/") + name).c_str(), &st), 0);
        EXPECT_NE(st.f_flag & ST_NOSUID, 0U) << name;
        EXPECT_NE(st.f_flag & ST_NODEV, 0U) << name;
        EXPECT_EQ(remove(name), OK);
    }
}

TEST_F(Overlay, TheDocumentedNumberOfDirectoriesIsStackedAndNotOneMore)
{
    const znc::UniqueFd a(::open(layer("a", "x").c_str(), O_PATH | O_CLOEXEC));
    const znc::UniqueFd b(::open(layer("b", "x").c_str(), O_PATH | O_CLOEXEC));
    const int two[] = {a.get(), b.get()};
    const std::string probe = layer("probe", "x");
    const znc::UniqueFd target(::open(probe.c_str(), O_PATH | O_CLOEXEC));
    if (zn::overlay_mount_by_fd(target.get(), two, 2, -1, -1) != 0)
        GTEST_SKIP() << "this kernel takes no directories by descriptor: fewer fit";
    ASSERT_EQ(::umount2(probe.c_str(), MNT_DETACH), 0);
    std::vector<std::string> dirs;
    for (uint32_t i = 0; i < znOvlDirsMax(); i++)
        dirs.push_back(layer("many" + std::to_string(i), "x"));
    ASSERT_EQ(create("image", dirs, FALSE), OK) << std::strerror(errno);
    EXPECT_EQ(remove("image"), OK);
    dirs.push_back(layer("one more", "x"));
    EXPECT_EQ(create("image", dirs, FALSE), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

std::vector<std::string> dirs_of(const std::string& name)
{
    std::vector<std::string> dirs;
    const auto keep = [](void* to, const char* dir) -> BOOL {
        static_cast<std::vector<std::string>*>(to)->push_back(dir);
        return TRUE;
    };
    errno = 0;
    const STATUS status = znOvlDevDirs(name.c_str(), keep, &dirs);
    EXPECT_EQ(status == OK, !dirs.empty());
    return dirs;
}

TEST_F(Overlay, DirectoriesOfAReadOnlyDeviceAreListedTopFirst)
{
    const std::vector<std::string> stack = {layer("a", "x"), layer("b,:\\ \n", "y"),
                                            layer("c", "z"),
                                            layer("a", "x")}; // one that is there twice
    ASSERT_EQ(create("image", stack, FALSE), OK) << std::strerror(errno);
    ASSERT_EQ(create("one", {stack[2]}, FALSE), OK) << std::strerror(errno);
    EXPECT_EQ(dirs_of("/overlay/image"), stack);
    EXPECT_EQ(dirs_of("/overlay/one"), std::vector<std::string>{stack[2]});
    int visits = 0;
    EXPECT_EQ(znOvlDevDirs(
                  "/overlay/image",
                  [](void* count, const char*) -> BOOL {
                      ++*static_cast<int*>(count);
                      return FALSE;
                  },
                  &visits),
              OK);
    EXPECT_EQ(visits, 1);
    EXPECT_EQ(remove("image"), OK);
    EXPECT_EQ(remove("one"), OK);
}

TEST_F(Overlay, OtherPathsHaveNoDirectoriesToList)
{
    fs::create_directories("/tmp/o/c/upper");
    ASSERT_EQ(create("web", {"/tmp/o/c/upper", layer("a", "x")}, TRUE), OK);
    ASSERT_EQ(create("image", {layer("a", "x"), layer("b", "y")}, FALSE), OK);
    ASSERT_EQ(::umount2("/overlay/image", MNT_DETACH), 0); // its record stays
    for (const char* name : {"/overlay/web", "/overlay/image", "/overlay/none"}) {
        EXPECT_TRUE(dirs_of(name).empty());
        EXPECT_EQ(errno, ENOENT) << name;
    }
    EXPECT_TRUE(dirs_of("/tmp/o").empty());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(znOvlRestore(), 0); // detaches one and attaches the other
    EXPECT_EQ(dirs_of("/overlay/image").size(), 2U);
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(Overlay, ARecordThatACrashCutOffIsNotAttached)
{
    const std::string first = layer("a", "x");
    const std::string second = layer("b", "y");
    ASSERT_EQ(create("image", {first, second}, FALSE), OK);
    ASSERT_EQ(::umount2("/overlay/image", MNT_DETACH), 0);
    const std::string record = read_file("/overlay/image/.zn-stack");
    // Truncated after its first directory: that looks like a device with one layer.
    for (std::size_t len : {std::size_t{0}, first.size() + 1, record.size() - 1}) {
        fs::create_directories("/overlay/image");
        std::ofstream("/overlay/image/.zn-stack") << record.substr(0, len);
        EXPECT_EQ(znOvlRestore(), 0);
        EXPECT_FALSE(fs::exists("/overlay/image")) << len;
    }
}

TEST_F(Overlay, ADeviceThatCannotBeAttachedNowKeepsItsRecord)
{
    ASSERT_EQ(create("image", {layer("a", "x"), layer("b", "y")}, FALSE), OK);
    ASSERT_EQ(::umount2("/overlay/image", MNT_DETACH), 0);
    rlimit old = {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    int failures = 0;
    // Allow one more descriptor in each round, until there are enough.
    for (rlim_t most = 3; !fs::exists("/overlay/image/x"); most++) {
        const rlimit few = {most, old.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
        const int failed = znOvlRestore();
        ::setrlimit(RLIMIT_NOFILE, &old);
        failures += failed;
        ASSERT_TRUE(fs::exists("/overlay/image")) << most;
        ASSERT_EQ(failed == 0, fs::exists("/overlay/image/x")) << most;
    }
    EXPECT_GE(failures, 3);
    EXPECT_EQ(read_file("/overlay/image/y"), "b");
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(Overlay, AStoppedProcessWithTheLockDoesNotStopTheOthers)
{
    const std::string lower = layer("a", "x");
    const znc::UniqueFd other(::open("/overlay", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
    EXPECT_EQ(create("image", {lower}, FALSE), ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_FALSE(fs::exists("/overlay/image"));
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ::flock(other.get(), LOCK_UN);
    });
    EXPECT_EQ(create("image", {lower}, FALSE), OK);
    later.join();
    EXPECT_EQ(remove("image"), OK);
}

TEST_F(Overlay, OfTwoCreatorsAtOnceOneWins)
{
    const std::string lower = layer("a", "x");
    for (int round = 0; round < 20; round++) {
        std::vector<std::thread> threads;
        std::vector<int> made(4, 0);
        for (std::size_t i = 0; i < made.size(); i++)
            threads.emplace_back([&, i] { made[i] = create("image", {lower}, FALSE) == OK; });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(made[0] + made[1] + made[2] + made[3], 1);
        ASSERT_EQ(remove("image"), OK);
    }
}

} // namespace
