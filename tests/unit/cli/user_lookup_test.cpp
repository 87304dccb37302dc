#include "cli/containers/user_lookup.hpp"

#include "base/owned.hpp"
#include "tests/support/test_tree.hpp"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <sys/stat.h>

namespace {

using zncctl::lookup_user;
using zncctl::User;
using Groups = std::vector<std::uint32_t>;

constexpr const char* kPasswd = "root:x:0:0:root:/root:/bin/sh\n"
                                "web:x:33:34:Web,Server:/srv/www:/bin/false\n"
                                "1000:x:0:0::/root:/bin/sh\n"
                                "user:x:1000:100::/home/user:/bin/sh\n"
                                "web:x:0:0::/root:/bin/sh\n";
constexpr const char* kGroup = "root:x:0:\n"
                               "adm:x:4:root,web\n"
                               "www:x:34:\n"
                               "mail:x:8:web\n"
                               "mail2:x:8:web\n"
                               "none:x:9:webmaster,we\n";

class UserLookup : public testing::Test {
  protected:
    UserLookup()
    {
        std::filesystem::create_directory(root() + "/etc");
        std::filesystem::create_directories(root());
        write("passwd", kPasswd);
        write("group", kGroup);
    }

    [[nodiscard]] std::string root() const
    {
        std::filesystem::create_directory(dir_ / "root");
        return dir_ / "root";
    }
    void write(const char* name, const std::string& text) const
    {
        test_tree::write_file(root() + "/etc/" + name, text);
    }
    void link(const char* name, const std::string& target) const
    {
        std::filesystem::remove(root() + "/etc/" + name);
        std::filesystem::create_symlink(target, root() + "/etc/" + name);
    }

    bool find(std::string_view text)
    {
        const znc::UniqueFd fd(::open(root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        error_.clear();
        return lookup_user(fd.get(), text, user_, error_);
    }
    void expect_error(std::string_view text, const std::string& error)
    {
        user_ = {77, 78, {79}, "/kept"};
        EXPECT_FALSE(find(text)) << text;
        EXPECT_EQ(error_, error);
        EXPECT_EQ(user_.uid, 77U);
        EXPECT_EQ(user_.home, "/kept");
    }
    void expect_user(std::string_view text, const User& wanted)
    {
        ASSERT_TRUE(find(text)) << text << ": " << error_;
        EXPECT_EQ(user_.uid, wanted.uid) << text;
        EXPECT_EQ(user_.gid, wanted.gid) << text;
        EXPECT_EQ(user_.groups, wanted.groups) << text;
        EXPECT_EQ(user_.home, wanted.home) << text;
    }

    test_tree::TempDir dir_;
    User user_;
    std::string error_;
};

TEST_F(UserLookup, FindsANameWithItsGroupsAndHome)
{
    expect_user("web", {33, 34, {4, 8}, "/srv/www"});
    expect_user("web:", {33, 34, {4, 8}, "/srv/www"});
    expect_user("root", {0, 0, {4}, "/root"});
}

TEST_F(UserLookup, FindsANumberWithTheEntryItHas)
{
    expect_user("33", {33, 34, {4, 8}, "/srv/www"});
    expect_user("", {0, 0, {4}, "/root"});
}

TEST_F(UserLookup, DigitsAreANumberEvenIfAnEntryHasThatName)
{
    expect_user("1000", {1000, 100, {}, "/home/user"});
}

TEST_F(UserLookup, ANumberNeedsNoEntryAndNoFiles)
{
    expect_user("4711", {4711, 0, {}, "/"});
    expect_user("4294967294:4294967293", {4294967294U, 4294967293U, {}, "/"});
    std::filesystem::remove_all(root() + "/etc");
    expect_user("12:13", {12, 13, {}, "/"});
}

TEST_F(UserLookup, AGivenGroupReplacesAllOthers)
{
    expect_user("web:mail", {33, 8, {}, "/srv/www"});
    expect_user("web:77", {33, 77, {}, "/srv/www"});
    expect_user(":adm", {0, 4, {}, "/root"});
}

TEST_F(UserLookup, NamesWhatIsMissing)
{
    expect_error("nobody", "there is no user 'nobody' in the container's /etc/passwd");
    expect_error("web:users", "there is no group 'users' in the container's /etc/group");
    expect_error("web:a:b", "there is no group 'a:b' in the container's /etc/group");
    std::filesystem::remove_all(root() + "/etc");
    expect_error("web", "there is no user 'web' in the container's /etc/passwd");
}

TEST_F(UserLookup, RefusesNumbersThatAreNoIds)
{
    expect_error("4294967295", "user 4294967295 is out of range");
    expect_error("99999999999999999999", "user 99999999999999999999 is out of range");
    expect_error("1:4294967295", "group 4294967295 is out of range");
    for (const char* text : {"-1", "+1", " 1", "1 ", "0x10", "1.0"})
        expect_error(text,
                     std::string("there is no user '") + text + "' in the container's /etc/passwd");
}

TEST_F(UserLookup, RefusesAnEntryWithNumbersThatAreNoIds)
{
    for (const char* ids : {"-1:0", "4294967295:0", "0:4294967295", "0:-1", ":", "", "0", " 0:0",
                            "0x0:0", "99999999999999999999:0"}) {
        write("passwd", "bad:x:" + std::string(ids) + "::/:\nbad:x:5:5::/:/bin/sh\n");
        expect_error("bad", "the entry of user 'bad' in the container's /etc/passwd is not valid");
    }
    write("passwd", kPasswd);
    write("group", "bad:x:-8:\nworse:x:4294967295:web\nadm:x:4:web\n");
    expect_error("web:bad", "the entry of group 'bad' in the container's /etc/group is not valid");
    expect_user("web", {33, 34, {4}, "/srv/www"});
}

TEST_F(UserLookup, CommentsAndLinesOfNetworkServicesAreNoEntries)
{
    write("passwd", "#web:x:0:0::/:\n+web:x:0:0::/:\n-1:x:0:0::/:\n+::0:0:::\n:x:0:0::/:\n\n");
    for (const char* text : {"#web", "+web", "-1", "+", "web"})
        expect_error(text,
                     std::string("there is no user '") + text + "' in the container's /etc/passwd");
}

TEST_F(UserLookup, AHomeThatIsNoPathIsTheRoot)
{
    using namespace std::string_literals;
    const std::string longest(5000, 'a');
    for (const std::string& home : {"relative"s, ""s, "/a\0b"s, "/" + longest}) {
        write("passwd", "web:x:33:34::" + home + ":/bin/sh\n");
        expect_user("web", {33, 34, {4, 8}, "/"});
    }
}

TEST_F(UserLookup, TheLastLineNeedsNoNewline)
{
    write("passwd", "web:x:33:34");
    write("group", "adm:x:4:web");
    expect_user("web", {33, 34, {4}, "/"});
}

TEST_F(UserLookup, LinksAreResolvedInsideTheRoot)
{
    test_tree::write_file(dir_ / "outside", "web:x:0:0::/:\n");
    test_tree::write_file(root() + "/inside", "web:x:5:6::/in:\n");
    link("passwd", "../../../../inside");
    expect_user("web", {5, 6, {4, 8}, "/in"});
    link("passwd", "/inside");
    expect_user("web", {5, 6, {4, 8}, "/in"});
    for (const std::string& target : {dir_ / "outside", std::string("../../outside")}) {
        link("passwd", target);
        expect_error("web", "there is no user 'web' in the container's /etc/passwd");
    }
}

TEST_F(UserLookup, ALoopOfLinksIsAnError)
{
    link("passwd", "passwd");
    EXPECT_FALSE(find("web"));
    EXPECT_NE(error_.find("/etc/passwd of the container cannot be read"), error_.npos) << error_;
    EXPECT_FALSE(find("12"));
}

TEST_F(UserLookup, TheFilesMustBeRegular)
{
    for (const char* name : {"passwd", "group"}) {
        const std::string path = root() + "/etc/" + name;
        std::filesystem::remove(path);
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        EXPECT_FALSE(find("web"));
        EXPECT_NE(error_.find(std::string("/etc/") + name + " of the container cannot be read"),
                  error_.npos)
            << error_;
        std::filesystem::remove(path);
        std::filesystem::create_directory(path);
        EXPECT_FALSE(find("web"));
        std::filesystem::remove(path);
        write(name, kPasswd);
    }
}

TEST_F(UserLookup, RefusesFilesOfMoreThanAMebibyte)
{
    write("passwd", std::string((1U << 20) - 17, '\n') + "web:x:33:34::/a:\n");
    expect_user("web", {33, 34, {4, 8}, "/a"});
    write("passwd", std::string((1U << 20) - 16, '\n') + "web:x:33:34::/a:\n");
    expect_error("web", "/etc/passwd of the container is larger than 1 MiB");
    expect_error("33", "/etc/passwd of the container is larger than 1 MiB");
    std::filesystem::resize_file(root() + "/etc/passwd",
                                 std::numeric_limits<std::int32_t>::max()); // sparse
    expect_error("web", "/etc/passwd of the container is larger than 1 MiB");
}

TEST_F(UserLookup, LinesMayBeLong)
{
    write("passwd", std::string(100000, 'a') + "\nweb:x:33:34:" + std::string(100000, 'b') +
                        ":/srv:/bin/sh\n");
    std::string members = "other";
    for (int i = 0; i < 20000; i++)
        members += ",u" + std::to_string(i);
    write("group", "adm:x:4:" + members + ",web\n");
    expect_user("web", {33, 34, {4}, "/srv"});
}

TEST_F(UserLookup, RefusesMoreGroupsThanAProgramCanBeStartedWith)
{
    std::string all;
    for (int i = 0; i < 254; i++)
        all += "g:x:" + std::to_string(i) + ":a\ng:x:" + std::to_string(i) + ":a\n";
    write("passwd", "a:x:1:1::/:\n");
    write("group", all);
    ASSERT_TRUE(find("a")) << error_;
    EXPECT_EQ(user_.groups.size(), 254U);
    write("group", all + "g:x:254:a\n");
    expect_error("a", "user 'a' is in more than 254 groups of the container's /etc/group");
    expect_user("a:7", {1, 7, {}, "/"});
}

} // namespace
