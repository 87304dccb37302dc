// Tests of security labels of programs. What the kernel does not have is refused; with AppArmor,
// which the virtual machine of the tests has, a program gets its profile.

#include "configured_world.hpp"

#include <sys/mount.h>

using namespace namespace_world;

namespace {

bool apparmor()
{
    return read_file("/sys/module/apparmor/parameters/enabled") == "Y\n";
}

bool selinux()
{
    return fs::exists("/sys/fs/selinux/enforce");
}

// Loads a compiled policy as apparmor_parser does; false if there is none.
bool load_policy()
{
    const char* file = std::getenv("ZNC_APPARMOR_POLICY");
    if (file == nullptr || !fs::exists(file))
        return false;
    fs::create_directories("/tmp/security");
    EXPECT_EQ(::mount("securityfs", "/tmp/security", "securityfs", 0, nullptr), 0);
    const std::string policy = read_file(file);
    znc::UniqueFd load(::open("/tmp/security/apparmor/.replace", O_WRONLY | O_CLOEXEC));
    const bool loaded = load && ::write(load.get(), policy.data(), policy.size()) ==
                                    static_cast<ssize_t>(policy.size());
    EXPECT_TRUE(loaded) << std::strerror(errno);
    load.reset();
    EXPECT_EQ(::umount("/tmp/security"), 0);
    return loaded;
}

class Labels : public Configured {};

TEST_F(Labels, AreRefusedByNameWhereTheKernelHasNone)
{
    if (!apparmor())
        refused(R"({"process":{"apparmorProfile":"zn-test"}})", ENOTSUP,
                "process.apparmorProfile: the kernel does not use AppArmor");
    if (!selinux())
        refused(R"({"process":{"selinuxLabel":"u:r:t:s0"}})", ENOTSUP,
                "process.selinuxLabel: the kernel does not use SELinux");
    EXPECT_EQ(under(R"({"process":{"apparmorProfile":"unconfined"}})", "echo runs"), "runs\n");
}

TEST_F(Labels, AProgramRunsUnderItsProfile)
{
    if (!apparmor() || !load_policy())
        GTEST_SKIP() << "no AppArmor, or ZNC_APPARMOR_POLICY is not set";
    for (const char* also : {"", R"(,"noNewPrivileges":true,"user":{"uid":7,"gid":7})"}) {
        const std::string document =
            std::string(R"({"process":{"apparmorProfile":"zn-test")") + also + "}}";
        EXPECT_EQ(under(document, "cat /proc/self/attr/apparmor/current; "
                                  "echo x 2>/dev/null >/tmp/denied || echo denied"),
                  "zn-test (enforce)\ndenied\n");
    }
    EXPECT_EQ(under("{}", "cat /proc/self/attr/apparmor/current"), "unconfined\n");
}

TEST_F(Labels, AProfileThatDoesNotExistStartsNoProgram)
{
    if (!apparmor())
        GTEST_SKIP() << "no AppArmor";
    const nsid_t ns = sealed(R"({"process":{"apparmorProfile":"zn-absent"}})");
    EXPECT_EQ(start(ns, "true"), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(znnsDelete(ns), OK);
}

} // namespace
