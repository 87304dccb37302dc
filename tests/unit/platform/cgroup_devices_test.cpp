// Tests of device rules: what the kernel allows a process in a group, in v1 and by a program in v2.
#include "cgroup/cgroup_devices.hpp"
#include "cgroup_world.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace cgroup_world;

namespace {

using zn::DeviceRule;
using zn::kAnyDevice;

DeviceRule rule(bool allow, char type, std::int64_t major, std::int64_t minor,
                const std::string& access)
{
    DeviceRule one;
    one.allow = allow;
    one.type = type;
    one.major = major;
    one.minor = minor;
    one.read = access.find('r') != std::string::npos;
    one.write = access.find('w') != std::string::npos;
    one.make = access.find('m') != std::string::npos;
    return one;
}

const DeviceRule kDenyAll = rule(false, 'a', kAnyDevice, kAnyDevice, "rwm");
const DeviceRule kAllowAll = rule(true, 'a', kAnyDevice, kAnyDevice, "rwm");

zn::Resources devices(std::initializer_list<DeviceRule> rules)
{
    zn::Resources resources;
    for (const DeviceRule& one : rules)
        EXPECT_NE(resources.devices.append(one), nullptr);
    return resources;
}

int try_open(const char* path, int flags)
{
    const znc::UniqueFd fd(::open(path, flags | O_CLOEXEC));
    return fd ? 0 : errno;
}

int try_make(int type, unsigned major, unsigned minor)
{
    const int error =
        ::mknod("/tmp/node", static_cast<mode_t>(type | 0600), makedev(major, minor)) == 0 ? 0
                                                                                           : errno;
    ::unlink("/tmp/node");
    return error;
}

class CgroupDevices : public Cgroups, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override
    {
        Cgroups::SetUp();
        if (!IsSkipped() && GetParam() && !use_unified_only())
            GTEST_SKIP() << "this machine has no v2 hierarchy";
        if (!IsSkipped() && in_.with(zn::Controller::kDevices) == nullptr)
            GTEST_SKIP() << "no controller for devices";
    }
    // The result of a call that a process in the group makes.
    int inside(const std::function<int()>& call)
    {
        Child child(in_, path_, call);
        return child.code();
    }
    int open_null(int flags)
    {
        return inside([=] { return try_open("/dev/null", flags); });
    }
    int open_zero()
    {
        return inside([] { return try_open("/dev/zero", O_RDONLY); });
    }
};

INSTANTIATE_TEST_SUITE_P(Hierarchies, CgroupDevices, testing::Values(false, true),
                         [](const auto& which) { return which.param ? "V2Alone" : "All"; });

TEST_P(CgroupDevices, WithoutRulesEverythingIsAllowed)
{
    ASSERT_EQ(create(), 0) << field();
    EXPECT_EQ(open_null(O_RDWR), 0);
    EXPECT_EQ(open_zero(), 0);
}

TEST_P(CgroupDevices, DevicesThatNoRuleAllowsAreRefused)
{
    ASSERT_EQ(create(devices({rule(true, 'c', 1, 3, "rw")})), 0) << field();
    EXPECT_EQ(open_null(O_RDWR), 0);
    EXPECT_EQ(open_zero(), EPERM);
    EXPECT_EQ(inside([] { return try_make(S_IFCHR, 1, 3); }), EPERM);
}

TEST_P(CgroupDevices, ReadWriteAndMknodAreDistinguished)
{
    ASSERT_EQ(create(devices({kDenyAll, rule(true, 'c', 1, 3, "r"), rule(true, 'c', 1, 5, "m")})),
              0)
        << field();
    EXPECT_EQ(open_null(O_RDONLY), 0);
    EXPECT_EQ(open_null(O_WRONLY), EPERM);
    EXPECT_EQ(open_null(O_RDWR), EPERM);
    EXPECT_EQ(open_zero(), EPERM);
    EXPECT_EQ(inside([] { return try_make(S_IFCHR, 1, 5); }), 0);
    EXPECT_EQ(inside([] { return try_make(S_IFCHR, 1, 3); }), EPERM);
    EXPECT_EQ(inside([] { return try_make(S_IFBLK, 1, 5); }), EPERM);
}

TEST_P(CgroupDevices, AccessesThatSeveralRulesAllowAreAllowedTogether)
{
    ASSERT_EQ(create(devices({rule(true, 'c', 1, 3, "r"), rule(true, 'c', 1, kAnyDevice, "w")})), 0)
        << field();
    EXPECT_EQ(open_null(O_RDWR), 0);
    EXPECT_EQ(open_zero(), EPERM);
}

TEST_P(CgroupDevices, TypesNumbersAndWildcardsAreApplied)
{
    ASSERT_EQ(
        create(devices({rule(true, 'a', 1, kAnyDevice, "m"), rule(true, 'b', kAnyDevice, 0, "m")})),
        0)
        << field();
    EXPECT_EQ(inside([] { return try_make(S_IFCHR, 1, 200); }), 0);
    EXPECT_EQ(inside([] { return try_make(S_IFBLK, 1, 200); }), 0);
    EXPECT_EQ(inside([] { return try_make(S_IFBLK, 8, 0); }), 0);
    EXPECT_EQ(inside([] { return try_make(S_IFCHR, 8, 0); }), EPERM);
    EXPECT_EQ(inside([] { return try_make(S_IFBLK, 8, 1); }), EPERM);
}

TEST_P(CgroupDevices, LaterRulesOverrideEarlierOnes)
{
    ASSERT_EQ(create(devices({rule(true, 'c', 1, 3, "rw"), kDenyAll, kAllowAll,
                              rule(false, 'c', 1, 5, "r"), rule(false, 'c', 1, 3, "rwm"),
                              rule(true, 'c', 1, kAnyDevice, "w"), rule(true, 'c', 1, 3, "rwm")})),
              0)
        << field();
    EXPECT_EQ(open_null(O_RDWR), 0);
    EXPECT_EQ(open_zero(), EPERM);
    EXPECT_EQ(inside([] { return try_open("/dev/full", O_RDWR); }), 0);
}

TEST_P(CgroupDevices, NewRulesReplaceTheOldOnes)
{
    ASSERT_EQ(create(devices({rule(true, 'c', 1, 3, "rw")})), 0) << field();
    ASSERT_EQ(limit(devices({rule(true, 'c', 1, 5, "r")})), 0) << field();
    EXPECT_EQ(open_null(O_RDONLY), EPERM);
    EXPECT_EQ(open_zero(), 0);
    ASSERT_EQ(limit(devices({kAllowAll})), 0) << field();
    EXPECT_EQ(open_null(O_RDWR), 0);
    EXPECT_EQ(open_zero(), 0);
    ASSERT_EQ(limit(devices({kDenyAll})), 0) << field();
    EXPECT_EQ(open_zero(), EPERM);
}

TEST_P(CgroupDevices, RulesBeyondTheLimitAreRefused)
{
    zn::Resources resources;
    for (std::size_t i = 0; i < zn::kDeviceRulesMax; i++)
        ASSERT_NE(
            resources.devices.append(rule(true, 'c', 1, static_cast<std::int64_t>(i) + 5, "rwm")),
            nullptr);
    ASSERT_EQ(create(resources), 0) << field();
    EXPECT_EQ(open_zero(), 0);
    EXPECT_EQ(open_null(O_RDONLY), EPERM);
    ASSERT_NE(resources.devices.append(kAllowAll), nullptr);
    EXPECT_EQ(limit(resources), E2BIG);
    EXPECT_EQ(field(), "devices");
    EXPECT_EQ(open_null(O_RDONLY), EPERM);
}

int listed(std::initializer_list<DeviceRule> rules)
{
    zn::DeviceList list;
    return zn::device_list({rules.begin(), rules.size()}, list);
}

// v1 ignores a rule that excepts some devices from an earlier exception.
TEST(CgroupDeviceList, RulesThatV1CannotExpressAreRefused)
{
    const DeviceRule allMade = rule(true, 'c', kAnyDevice, kAnyDevice, "m");
    EXPECT_EQ(listed({allMade, rule(false, 'c', 1, 3, "m")}), ENOTSUP);
    EXPECT_EQ(listed({allMade, rule(false, 'c', 1, 3, "rw")}), 0);
    EXPECT_EQ(listed({allMade, rule(false, 'b', 1, 3, "m")}), 0);
    EXPECT_EQ(listed({allMade, rule(false, 'a', kAnyDevice, kAnyDevice, "m")}), 0);
    EXPECT_EQ(listed({rule(true, 'c', 1, kAnyDevice, "r"), rule(false, 'c', kAnyDevice, 3, "r")}),
              ENOTSUP);
    EXPECT_EQ(listed({kAllowAll, rule(false, 'c', 1, kAnyDevice, "r"), rule(true, 'c', 1, 3, "r")}),
              ENOTSUP);
}

TEST(CgroupDeviceList, RevokedDevicesAreNoLongerExceptions)
{
    const DeviceRule rules[] = {kAllowAll, rule(true, 'c', 1, 3, "rwm"),
                                rule(false, 'c', 1, 3, "rw"), rule(true, 'c', 1, 3, "r")};
    zn::DeviceList list;
    ASSERT_EQ(zn::device_list(rules, list), 0);
    EXPECT_TRUE(list.allowAll);
    ASSERT_EQ(list.exceptions.size(), 1U);
    EXPECT_FALSE(list.exceptions[0].read);
    EXPECT_TRUE(list.exceptions[0].write);
    EXPECT_FALSE(list.exceptions[0].make);
}

} // namespace
