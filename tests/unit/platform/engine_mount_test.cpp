#include "engine/engine_mount.hpp"

#include "engine/engine_copy.hpp"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/mount.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

namespace {

struct Read {
    int error = 0;
    zn::EngineMount mount;
    const char* option = nullptr;
};

Read read(const char* type, std::vector<const char*> options)
{
    options.push_back(nullptr);
    Read result;
    const ZN_ENGINE_MOUNT mount = {"/source", "/to", type, options.data(), nullptr, 0, nullptr, 0};
    result.error = zn::engine_mount_read(mount, result.mount, &result.option);
    return result;
}

TEST(EngineMount, NoFlagsAreAddedToTheOptions)
{
    const Read plain = read("bind", {"rbind"});
    EXPECT_EQ(plain.error, 0);
    EXPECT_TRUE(plain.mount.plan.bind);
    EXPECT_TRUE(plain.mount.plan.recursive);
    EXPECT_EQ(plain.mount.plan.attrSet, 0U);
    EXPECT_EQ(plain.mount.whole.attrSet, 0U);
    const Read flags = read("bind", {"ro", "nosuid", "nodev"});
    EXPECT_EQ(flags.mount.plan.attrSet,
              std::uint64_t{MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV});
    EXPECT_FALSE(flags.mount.plan.recursive);
}

TEST(EngineMount, RecursiveFlagsApplyToTheWholeTree)
{
    const Read all = read("bind", {"rbind", "rro", "rnosuid", "rnoexec"});
    EXPECT_EQ(all.error, 0);
    EXPECT_EQ(all.mount.plan.attrSet, 0U);
    EXPECT_EQ(all.mount.whole.attrSet,
              std::uint64_t{MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOSUID | MOUNT_ATTR_NOEXEC});
    // These begin with "r", too, and are not recursive.
    const Read words = read("bind", {"ro", "rw", "relatime"});
    EXPECT_EQ(words.error, 0);
    EXPECT_EQ(words.mount.whole.attrSet, 0U);
    EXPECT_EQ(words.mount.plan.attrSet & MOUNT_ATTR_RDONLY, 0U);
}

TEST(EngineMount, PropagationIsRead)
{
    EXPECT_EQ(read("bind", {"rslave"}).mount.plan.propagation, std::uint64_t{MS_SLAVE});
    EXPECT_EQ(read("bind", {"rshared"}).mount.plan.propagation, std::uint64_t{MS_SHARED});
    EXPECT_EQ(read("bind", {"rrslave"}).error, EINVAL);
    EXPECT_EQ(read("bind", {}).mount.plan.propagation, 0U);
}

TEST(EngineMount, UnknownOptionsOfABindAreNamed)
{
    const Read bad = read("bind", {"ro", "nosuch"});
    EXPECT_EQ(bad.error, EINVAL);
    EXPECT_STREQ(bad.option, "nosuch");
    EXPECT_EQ(read("bind", {"tmpcopyup"}).error, EINVAL);
}

TEST(EngineMount, OptionsOfFileSystemsAreKept)
{
    const Read own = read("tmpfs", {"size=1m", "mode=755", "tmpcopyup", "nosuid"});
    EXPECT_EQ(own.error, 0);
    EXPECT_TRUE(own.mount.copyUp);
    EXPECT_EQ(own.mount.plan.optionCount, 2U);
    EXPECT_STREQ(own.mount.plan.options, "size=1m");
    EXPECT_EQ(read(nullptr, {}).error, EINVAL);
    EXPECT_EQ(read("", {"ro"}).error, EINVAL);
}

TEST(EngineMount, NamespacesAreShownByThreeFileSystems)
{
    EXPECT_TRUE(zn::engine_mount_is_inner(read("proc", {}).mount.plan));
    EXPECT_TRUE(zn::engine_mount_is_inner(read("sysfs", {}).mount.plan));
    EXPECT_TRUE(zn::engine_mount_is_inner(read("mqueue", {}).mount.plan));
    EXPECT_FALSE(zn::engine_mount_is_inner(read("tmpfs", {}).mount.plan));
    EXPECT_FALSE(zn::engine_mount_is_inner(read("proc", {"bind"}).mount.plan));
}

class DirectoryCopy : public testing::Test {
  protected:
    DirectoryCopy()
    {
        std::filesystem::create_directories("/tmp/copy/root/data/sub");
        std::filesystem::create_directories("/tmp/copy/to");
        std::ofstream("/tmp/copy/root/data/sub/file") << "text";
        std::filesystem::create_symlink("sub/file", "/tmp/copy/root/data/link");
        root_.reset(::open("/tmp/copy/root", O_PATH | O_DIRECTORY));
        to_.reset(::open("/tmp/copy/to", O_PATH | O_DIRECTORY));
    }
    ~DirectoryCopy() override { std::filesystem::remove_all("/tmp/copy"); }

    znc::UniqueFd root_;
    znc::UniqueFd to_;
};

TEST_F(DirectoryCopy, KeepsOwnersModesAndLinks)
{
    ASSERT_EQ(::chown("/tmp/copy/root/data/sub/file", 5, 6), 0);
    ASSERT_EQ(::chmod("/tmp/copy/root/data/sub/file", 04750), 0);
    ASSERT_EQ(::chmod("/tmp/copy/root/data", 01770), 0);
    ASSERT_TRUE(zn::directory_copy(root_.get(), "/data", to_.get(), true));
    struct stat st = {};
    ASSERT_EQ(::stat("/tmp/copy/to/sub/file", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 04750U);
    EXPECT_EQ(st.st_uid, 5U);
    EXPECT_EQ(st.st_gid, 6U);
    EXPECT_EQ(st.st_size, 4);
    EXPECT_EQ(std::filesystem::read_symlink("/tmp/copy/to/link"), "sub/file");
    ASSERT_EQ(::stat("/tmp/copy/to", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 01770U);
}

TEST_F(DirectoryCopy, StaysInsideTheTree)
{
    std::filesystem::create_directories("/tmp/copy/outside");
    std::ofstream("/tmp/copy/outside/secret") << "secret";
    std::filesystem::create_directory_symlink("/tmp/copy/outside", "/tmp/copy/root/out");
    EXPECT_TRUE(zn::directory_copy(root_.get(), "/out", to_.get(), true));
    EXPECT_TRUE(zn::directory_copy(root_.get(), "/../outside", to_.get(), true));
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/copy/to"));
}

TEST_F(DirectoryCopy, MissingDirectoryIsNotAnError)
{
    EXPECT_TRUE(zn::directory_copy(root_.get(), "/nosuch", to_.get(), true));
    EXPECT_TRUE(zn::directory_copy(root_.get(), "/data/sub/file", to_.get(), true));
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/copy/to"));
}

} // namespace
