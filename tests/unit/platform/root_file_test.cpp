#include "base/owned.hpp"

#include "platform_only.hpp"
#include "tests/support/test_tree.hpp"
#include "zarnel/fs.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>

namespace {

class FileOpenInRoot : public testing::Test {
  protected:
    FileOpenInRoot()
    {
        std::filesystem::create_directories(dir_ / "root/dir");
        test_tree::write_file(dir_ / "outside", "outside");
        test_tree::write_file(dir_ / "root/file", "inside");
        root_.reset(::open((dir_ / "root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }

    // The file's content, or the error number.
    [[nodiscard]] std::string opened(const char* path) const
    {
        const znc::UniqueFd fd(znFileOpenInRoot(root_.get(), path));
        if (!fd)
            return std::to_string(errno);
        char text[16] = "";
        return {text, static_cast<std::size_t>(::read(fd.get(), text, sizeof text))};
    }
    void link(const std::string& target) const
    {
        std::filesystem::remove(dir_ / "root/link");
        std::filesystem::create_symlink(target, dir_ / "root/link");
    }

    test_tree::TempDir dir_;
    znc::UniqueFd root_;
};

TEST_F(FileOpenInRoot, PathsAndLinksStayInside)
{
    for (const char* path : {"file", "/file", "../file", "/dir/../../file"})
        EXPECT_EQ(opened(path), "inside") << path;
    for (const char* target : {"/file", "../../file", "dir/../file"}) {
        link(target);
        EXPECT_EQ(opened("/link"), "inside") << target;
    }
    for (const std::string& target : {dir_ / "outside", std::string("../outside")}) {
        link(target);
        EXPECT_EQ(opened("/link"), std::to_string(ENOENT)) << target;
    }
    EXPECT_EQ(opened("/nothing"), std::to_string(ENOENT));
    EXPECT_EQ(opened("/file/below"), std::to_string(ENOTDIR));
}

TEST_F(FileOpenInRoot, OpensRegularFilesOnly)
{
    ASSERT_EQ(::mkfifo((dir_ / "root/fifo").c_str(), 0600), 0);
    EXPECT_EQ(opened("fifo"), std::to_string(EINVAL));
    EXPECT_EQ(opened("dir"), std::to_string(EISDIR));
}

TEST_F(FileOpenInRoot, TheDescriptorIsClosedOnExec)
{
    const znc::UniqueFd fd(znFileOpenInRoot(root_.get(), "file"));
    EXPECT_EQ(::fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(FileOpenInRoot, LinksOfProcToOpenFilesAreNotFollowed)
{
    LINUX_ONLY("no /proc");
    const znc::UniqueFd outside(::open((dir_ / "outside").c_str(), O_RDONLY | O_CLOEXEC));
    const znc::UniqueFd proc(::open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string path = std::to_string(::getpid()) + "/fd/" + std::to_string(outside.get());
    EXPECT_EQ(znFileOpenInRoot(proc.get(), path.c_str()), -1);
    EXPECT_EQ(errno, ELOOP);
}

TEST_F(FileOpenInRoot, DirectoriesAreFoundInsideTheRootOnly)
{
    const auto error = [this](const char* path) {
        const znc::UniqueFd dir(znDirOpenInRoot(root_.get(), path));
        return dir ? 0 : errno;
    };
    for (const char* path : {"dir", "/dir", "../dir", "/", "..", "dir/../.."})
        EXPECT_EQ(error(path), 0) << path;
    link("/dir");
    EXPECT_EQ(error("link"), 0);
    link(dir_.path());
    EXPECT_EQ(error("link"), ENOENT);
    EXPECT_EQ(error("file"), ENOTDIR);
    EXPECT_EQ(error("nothing"), ENOENT);
    const znc::UniqueFd above(znDirOpenInRoot(root_.get(), "../.."));
    EXPECT_EQ(::faccessat(above.get(), "file", F_OK, 0), 0); // the root itself
}

TEST_F(FileOpenInRoot, AFileOfADirectoryIsOpenedWithoutFollowingLinks)
{
    const auto error = [this](const char* name) {
        const znc::UniqueFd file(znFileOpenAt(root_.get(), name));
        return file ? 0 : errno;
    };
    EXPECT_EQ(error("file"), 0);
    EXPECT_EQ(error("dir"), EISDIR);
    EXPECT_EQ(error("nothing"), ENOENT);
    link("file");
    EXPECT_EQ(error("link"), ELOOP);
    ASSERT_EQ(::mkfifo((dir_ / "root/fifo").c_str(), 0600), 0);
    EXPECT_EQ(error("fifo"), EINVAL);
}

TEST_F(FileOpenInRoot, AFileThatIsMountedIsFoundAlsoFromAnotherMountNamespace)
{
    LINUX_ONLY("no bind mounts and no mount namespaces");
    ASSERT_EQ(::mount((dir_ / "outside").c_str(), (dir_ / "root/file").c_str(), nullptr, MS_BIND,
                      nullptr),
              0)
        << std::strerror(errno);
    EXPECT_EQ(znMountedAt(root_.get(), "file"), 1);
    EXPECT_EQ(znMountedAt(root_.get(), "dir"), 0);
    EXPECT_EQ(znMountedAt(root_.get(), "nothing"), 0);
    std::thread([&] {
        ASSERT_EQ(::unshare(CLONE_FS | CLONE_NEWNS), 0);
        ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(::umount2((dir_ / "root/file").c_str(), MNT_DETACH), 0);
        EXPECT_EQ(znMountedAt(root_.get(), "file"), 1);
    }).join();
    ASSERT_EQ(::umount2((dir_ / "root/file").c_str(), MNT_DETACH), 0);
    EXPECT_EQ(znMountedAt(root_.get(), "file"), 0);
    EXPECT_EQ(znMountedAt(-1, "file"), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
