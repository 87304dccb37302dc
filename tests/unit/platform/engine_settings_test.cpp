#include "engine/engine_settings.hpp"

#include "helper/wire.hpp"
#include "zarnel/engine.h"

#include <array>
#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

struct Read {
    int error;
    zn::EngineSettings settings;
    zn::SettingsFault fault;
};

bool has_apparmor()
{
    std::string enabled;
    std::ifstream("/sys/module/apparmor/parameters/enabled") >> enabled;
    return enabled == "Y";
}

Read read(const std::string& document)
{
    Read result;
    result.error = result.settings.read(document.c_str(), result.fault);
    return result;
}

zn::wire::Confinement confinement(const zn::EngineSettings& settings, unsigned long join = 0)
{
    zn::wire::Confinement rules = {};
    const znc::UniqueFd record = settings.record("", join);
    EXPECT_EQ(::pread(record.get(), &rules, sizeof rules, zn::wire::kConfinementOffset),
              static_cast<ssize_t>(sizeof rules));
    return rules;
}

TEST(EngineSettings, NothingIsConfinedThatTheDocumentDoesNotConfine)
{
    const Read plain = read("{}");
    ASSERT_EQ(plain.error, 0);
    const zn::wire::Confinement rules = confinement(plain.settings);
    EXPECT_EQ(rules.noNewPrivileges, 0U);
    EXPECT_EQ(rules.filter, 0U);
    EXPECT_EQ(rules.umask, 022U);
    EXPECT_EQ(rules.oomScore, zn::wire::kNoOomScore);
}

TEST(EngineSettings, CapabilitiesThatAreNotGrantedAreTaken)
{
    const Read plain = read("{}");
    const zn::wire::Confinement none = confinement(plain.settings);
    EXPECT_EQ(none.bounding | none.permitted | none.effective | none.ambient, 0U);
    const Read some = read(R"({"process":{"capabilities":{"bounding":["CAP_SYS_ADMIN"],
        "permitted":["CAP_SYS_ADMIN"],"ambient":["CAP_SYS_ADMIN"]}}})");
    ASSERT_EQ(some.error, 0);
    const zn::wire::Confinement rules = confinement(some.settings);
    EXPECT_EQ(rules.bounding, 1U << 21U);
    EXPECT_EQ(rules.permitted, 1U << 21U);
    EXPECT_EQ(rules.ambient, 0U); // not inheritable
}

TEST(EngineSettings, NamespacesThatAreNotNamedAreShared)
{
    EXPECT_EQ(read("{}").settings.clone_flags(), std::uint64_t{CLONE_NEWNS});
    const Read some = read(R"({"linux":{"namespaces":[{"type":"pid"},{"type":"cgroup"},
        {"type":"network","path":"/proc/1/ns/net"}]}})");
    ASSERT_EQ(some.error, 0);
    // A cgroup namespace is made when the process is in its group.
    EXPECT_EQ(some.settings.clone_flags(), std::uint64_t{CLONE_NEWNS | CLONE_NEWPID});
    EXPECT_EQ(confinement(some.settings).ownControlGroup, 1U);
    EXPECT_EQ(confinement(some.settings).ownNetwork, 0U);
    EXPECT_STREQ(some.settings.path(zn::NsKind::kNetwork), "/proc/1/ns/net");
    const zn::wire::Confinement further = confinement(some.settings, CLONE_NEWNS);
    EXPECT_EQ(further.namespaces, std::uint64_t{CLONE_NEWNS});
    EXPECT_EQ(further.ownControlGroup, 0U);
}

TEST(EngineSettings, ASecondProcessIsCreatedInAUserOrTimeNamespace)
{
    EXPECT_EQ(read(R"({"linux":{"namespaces":[{"type":"pid"}]}})").settings.created_flags(), 0U);
    const Read users = read(R"({"linux":{"namespaces":[{"type":"pid"},{"type":"user"},
        {"type":"cgroup"}],"uidMappings":[{"containerID":0,"hostID":7,"size":3}],
        "gidMappings":[{"containerID":0,"hostID":7,"size":3}]}})");
    ASSERT_EQ(users.error, 0);
    EXPECT_EQ(users.settings.clone_flags(), std::uint64_t{CLONE_NEWNS});
    const std::uint64_t flags = users.settings.created_flags();
    EXPECT_EQ(flags & (CLONE_NEWPID | CLONE_NEWCGROUP | CLONE_NEWNET), std::uint64_t{CLONE_NEWPID});
    EXPECT_EQ(confinement(users.settings).ownControlGroup, 1U);
    EXPECT_EQ(confinement(users.settings).user, 1U);
    EXPECT_EQ(confinement(users.settings).created, flags);
    EXPECT_EQ(confinement(users.settings, CLONE_NEWNS).created, 0U);
    const Read time = read(R"({"linux":{"namespaces":[{"type":"time"}],
        "timeOffsets":{"monotonic":{"secs":-4}}}})");
    ASSERT_EQ(time.error, 0);
    EXPECT_NE(time.settings.created_flags() & CLONE_NEWTIME, 0U);
    EXPECT_EQ(confinement(time.settings).offsets, 1U);
    EXPECT_EQ(confinement(time.settings).user, 0U);
    EXPECT_EQ(read(R"({"linux":{"namespaces":[{"type":"user"}],
        "uidMappings":[{"containerID":1,"hostID":7,"size":3}],
        "gidMappings":[{"containerID":0,"hostID":7,"size":3}]}})")
                  .error,
              ENOTSUP);
}

TEST(EngineSettings, ASecondProcessIsCreatedInItsGroup)
{
    Read some = read(R"({"linux":{"namespaces":[{"type":"pid"},{"type":"cgroup"}]}})");
    ASSERT_EQ(some.error, 0);
    some.settings.create_in_group();
    EXPECT_EQ(some.settings.clone_flags(), std::uint64_t{CLONE_NEWNS});
    const std::uint64_t flags = some.settings.created_flags();
    EXPECT_EQ(flags & (CLONE_NEWPID | CLONE_NEWCGROUP), std::uint64_t{CLONE_NEWPID});
    EXPECT_EQ(confinement(some.settings).created, flags);
    EXPECT_EQ(confinement(some.settings).ownControlGroup, 1U);
    EXPECT_EQ(confinement(some.settings, CLONE_NEWNS).created, 0U);
}

TEST(EngineSettings, DevicesAreDeniedUnlessARuleAllowsThem)
{
    Read plain = read("{}");
    ASSERT_EQ(plain.settings.complete_devices(), 0);
    const auto& rules = plain.settings.resources().devices;
    ASSERT_GT(rules.size(), 2U);
    EXPECT_FALSE(rules[0].allow);
    EXPECT_EQ(rules[0].type, 'a');
    EXPECT_TRUE(rules[1].make && !rules[1].read && !rules[1].write);
    Read given = read(R"({"linux":{"resources":{"devices":[{"allow":true,"access":"rwm"}]}}})");
    ASSERT_EQ(given.error, 0);
    ASSERT_EQ(given.settings.complete_devices(), 0);
    EXPECT_TRUE(given.settings.resources().devices[0].allow);
}

TEST(EngineSettings, UnsupportedSettingsAreNamed)
{
    struct Case {
        const char* document;
        const char* field;
    };
    std::vector<Case> cases = {Case{R"({"process":{"selinuxLabel":"l"}})", "process.selinuxLabel"},
                               Case{R"({"linux":{"mountLabel":"l"}})", "linux.mountLabel"}};
    if (!has_apparmor())
        cases.push_back({R"({"process":{"apparmorProfile":"p"}})", "process.apparmorProfile"});
    for (const Case& one : cases) {
        const Read result = read(one.document);
        EXPECT_EQ(result.error, ENOTSUP) << one.document;
        EXPECT_STREQ(result.fault.field, one.field);
        std::array<char, ZN_ENGINE_REASON_MAX> reason{};
        EXPECT_EQ(znEngineCheck(one.document, reason.data(), reason.size()), ERROR);
        EXPECT_EQ(errno, ENOTSUP);
        EXPECT_EQ(std::string(reason.data()).find(one.field), 0U) << reason.data();
    }
    EXPECT_EQ(read(R"({"process":{"apparmorProfile":"unconfined"}})").error, 0);
}

} // namespace
