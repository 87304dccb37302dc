#include "mount_plan.hpp"

#include <cerrno>
#include <gtest/gtest.h>
#include <linux/mount.h>
#include <string>
#include <sys/mount.h>
#include <vector>

namespace {

struct Made {
    int error;
    zn::MountPlan plan;
};

Made make(const char* type, std::vector<const char*> options, bool exists = true)
{
    Made made = {};
    options.push_back(nullptr);
    made.error = zn::mount_plan_make(type, options.data(), exists, made.plan);
    return made;
}

TEST(MountPlan, TypeOrOptionBindBinds)
{
    EXPECT_TRUE(make("bind", {}).plan.bind);
    EXPECT_TRUE(make("none", {"bind"}).plan.bind);
    EXPECT_FALSE(make("none", {"bind"}).plan.recursive);
    EXPECT_TRUE(make("none", {"rbind"}).plan.bind);
    EXPECT_TRUE(make("none", {"rbind"}).plan.recursive);
    EXPECT_FALSE(make("tmpfs", {}).plan.bind);
    EXPECT_STREQ(make("tmpfs", {}).plan.type, "tmpfs");
}

TEST(MountPlan, NoTypeBindsAnExistingSourceAndIsAnErrorWithout)
{
    for (const char* type : {static_cast<const char*>(nullptr), "", "unknown"}) {
        EXPECT_TRUE(make(type, {}).plan.bind);
        EXPECT_EQ(make(type, {}, false).error, ENOENT);
    }
}

TEST(MountPlan, BindsAreWithoutDevicesAndSetIdProgramsUnlessSaidOtherwise)
{
    constexpr std::uint64_t both = MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID;
    EXPECT_EQ(make("bind", {}).plan.attrSet, both);
    EXPECT_EQ(make("bind", {"dev"}).plan.attrSet, std::uint64_t{MOUNT_ATTR_NOSUID});
    EXPECT_EQ(make("bind", {"suid"}).plan.attrSet, std::uint64_t{MOUNT_ATTR_NODEV});
    EXPECT_EQ(make("bind", {"dev", "suid"}).plan.attrSet, 0U);
    EXPECT_EQ(make("tmpfs", {}).plan.attrSet, 0U);
}

TEST(MountPlan, FlagsAndPropagationAreRecognisedAndTheLastWordCounts)
{
    const zn::MountPlan plan =
        make("tmpfs", {"ro", "noexec", "nodiratime", "noatime", "strictatime", "rslave"}).plan;
    EXPECT_EQ(plan.attrSet, MOUNT_ATTR_RDONLY | MOUNT_ATTR_NOEXEC | MOUNT_ATTR_NODIRATIME |
                                MOUNT_ATTR_STRICTATIME);
    EXPECT_EQ(plan.propagation, std::uint64_t{MS_SLAVE});
    EXPECT_EQ(plan.optionCount, 0U);
    EXPECT_EQ(make("tmpfs", {"ro", "rw"}).plan.attrSet, 0U);
    EXPECT_NE(make("bind", {"nosymfollow"}).plan.attrSet & MOUNT_ATTR_NOSYMFOLLOW, 0U);
    EXPECT_EQ(make("bind", {"nosymfollow", "symfollow"}).plan.attrSet & MOUNT_ATTR_NOSYMFOLLOW, 0U);
    EXPECT_EQ(make("tmpfs", {"rw", "ro"}).plan.attrSet, std::uint64_t{MOUNT_ATTR_RDONLY});
    EXPECT_EQ(make("bind", {}).plan.propagation, std::uint64_t{MS_PRIVATE});
}

TEST(MountPlan, TheRestIsKeptForTheFilesystem)
{
    const zn::MountPlan plan = make("tmpfs", {"size=1m", "nosuid", "mode=700", "huge"}).plan;
    EXPECT_EQ(plan.optionCount, 3U);
    EXPECT_EQ(std::string(plan.options, plan.optionsLen),
              std::string("size=1m\0mode=700\0huge\0", 22));
}

TEST(MountPlan, OptionsBeyondTheRoomAreRefused)
{
    const std::string large(3000, 'x');
    EXPECT_EQ(make("tmpfs", {large.c_str()}).error, EINVAL);
}

TEST(MountPlan, NoOptionsAtAll)
{
    zn::MountPlan plan;
    EXPECT_EQ(zn::mount_plan_make("proc", nullptr, false, plan), 0);
    EXPECT_EQ(plan.optionCount, 0U);
}

} // namespace
