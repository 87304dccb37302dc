// Tests of finding namespaces of other processes and opening files in their roots.
#include "namespace_world.hpp"

#include "zarnel/fs.h"
#include "zarnel/ns_control.h"

#include <climits>
#include <map>

using namespace namespace_world;

namespace {

using Names = std::map<nsid_t, std::string>;

Names all_names()
{
    Names names;
    const auto add = [](nsid_t ns, const char* name, void* to) {
        static_cast<Names*>(to)->emplace(ns, name);
    };
    EXPECT_EQ(znnsEach(add, &names), OK);
    return names;
}

class NamespaceRoot : public Namespaces {};

TEST_F(NamespaceRoot, EachNamespaceWithARootIsListedByItsName)
{
    EXPECT_EQ(all_names(), Names());
    const nsid_t one = rooted("one");
    const nsid_t two = rooted("two");
    const nsid_t none = znnsCreate(kFlags); // without a root
    EXPECT_EQ(all_names(), (Names{{one, "one"}, {two, "two"}}));
    EXPECT_EQ(znnsDelete(none), OK);
    EXPECT_EQ(znnsDelete(one), OK);
    EXPECT_EQ(all_names(), (Names{{two, "two"}}));
    EXPECT_EQ(znnsDelete(two), OK);
}

TEST_F(NamespaceRoot, ThePathIsTheOneThatTheRootWasMadeFrom)
{
    const nsid_t ns = rooted();
    std::array<char, PATH_MAX> path{};
    EXPECT_EQ(znnsRootGet(ns, path.data(), path.size()), OK);
    EXPECT_EQ(path.data(), root_);
    EXPECT_EQ(znnsRootGet(ns, path.data(), root_.size()), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(znnsRootGet(ns, path.data(), root_.size() + 1), OK);
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(znnsRootGet(ns, path.data(), path.size()), ERROR);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(NamespaceRoot, ItIsOpenedWithItsMounts)
{
    const nsid_t ns = rooted();
    ASSERT_EQ(mount(ns, "none", "/tmp", "tmpfs", {}), OK);
    EXPECT_EQ(run(ns, "echo inside >/tmp/file"), "");
    {
        const znc::UniqueFd root(znnsRootOpen(ns));
        ASSERT_TRUE(root);
        EXPECT_EQ(::fcntl(root.get(), F_GETFD), FD_CLOEXEC);
        const znc::UniqueFd file(znFileOpenInRoot(root.get(), "/tmp/file"));
        std::array<char, 16> text{};
        EXPECT_EQ(::read(file.get(), text.data(), text.size()), 7);
        EXPECT_STREQ(text.data(), "inside\n");
    }
    EXPECT_FALSE(fs::exists(root_ + "/tmp/file"));
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_EQ(znnsRootOpen(ns), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(NamespaceRoot, LinksOfTheContainerLeadNowhereElse)
{
    const nsid_t ns = rooted();
    EXPECT_EQ(run(ns, "ln -s /proc/1/root/etc/passwd /tmp/evil && "
                      "ln -s /proc/self/environ /tmp/self"),
              "");
    {
        const znc::UniqueFd root(znnsRootOpen(ns));
        ASSERT_TRUE(root);
        EXPECT_EQ(znFileOpenInRoot(root.get(), "/tmp/evil"), -1);
        EXPECT_EQ(errno, ELOOP);
        EXPECT_EQ(znFileOpenInRoot(root.get(), "/tmp/self"), -1);
        EXPECT_EQ(errno, ENOENT); // this process is none of the container's
    }
    EXPECT_EQ(znnsDelete(ns), OK);
}

struct Terminal {
    znc::UniqueFd master;
    znc::UniqueFd user;
};

Terminal open_terminal(nsid_t ns)
{
    int master = -1;
    int user = -1;
    if (znnsTerminalOpen(ns, &master, &user) != OK) {
        EXPECT_EQ(master, -1);
        EXPECT_EQ(user, -1);
    }
    return {znc::UniqueFd(master), znc::UniqueFd(user)};
}

TEST_F(NamespaceRoot, ItsTerminalsAreThoseOfItsOwnFileSystem)
{
    fs::create_directories(root_ + "/dev");
    const nsid_t ns = rooted();
    {
        const Terminal terminal = open_terminal(ns);
        ASSERT_TRUE(terminal.master && terminal.user);
        EXPECT_EQ(::fcntl(terminal.master.get(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(terminal.user.get(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(run(ns, "echo hello >/dev/pts/0"), "");
        std::array<char, 16> text{};
        EXPECT_EQ(::read(terminal.master.get(), text.data(), text.size()), 7);
        EXPECT_STREQ(text.data(), "hello\r\n");
    }
    EXPECT_EQ(znnsDelete(ns), OK);
    EXPECT_FALSE(open_terminal(ns).master);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(NamespaceRoot, WhatOnlyStandsWhereTerminalsAreMadeIsNotOpened)
{
    fs::create_directories(root_ + "/dev");
    const nsid_t ns = rooted();
    for (const char* planted :
         {"mkfifo /dev/pts/ptmx", "ln -s /dev/null /dev/pts/ptmx", "echo >/dev/pts/ptmx", "true"}) {
        ASSERT_EQ(mount(ns, "none", "/dev/pts", "tmpfs", {}), OK);
        ASSERT_EQ(run(ns, planted), "") << planted;
        EXPECT_FALSE(open_terminal(ns).master) << planted; // and does not wait for a reader
        EXPECT_EQ(errno, ENOENT) << planted;
        const std::array<const char*, 1> options = {nullptr};
        ASSERT_EQ(znnsUmount(ns, "", "none", "/dev/pts", "tmpfs", options.data()), OK);
    }
    EXPECT_TRUE(open_terminal(ns).master);
    EXPECT_EQ(znnsDelete(ns), OK);
}

} // namespace
