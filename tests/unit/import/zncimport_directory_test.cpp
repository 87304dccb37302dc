// Tests of reading a directory of the file system as a layer.
#include "eventually.hpp"
#include "import/merge/directory_tree.hpp"
#include "zncimport_input.hpp"

#include <algorithm>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sys/xattr.h>

using namespace zncimport;
using namespace import_input;

namespace {

struct Read {
    test_tree::TempDir dir;
    Spool spool;
    Limits limits;

    std::vector<Entry> entries()
    {
        const znc::UniqueFd fd = open_file(dir.path());
        Budget budget(limits);
        return read_directory(fd.get(), spool, budget);
    }
    std::string problem()
    {
        return failure_of([&] { static_cast<void>(entries()); });
    }
};

const Entry& at(const std::vector<Entry>& entries, const std::string& path)
{
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const Entry& e) { return e.member.path == path; });
    if (found == entries.end())
        throw std::runtime_error("no " + path);
    return *found;
}

std::string paths(const std::vector<Entry>& entries)
{
    std::string all;
    for (const Entry& entry : entries)
        all += entry.member.path + " ";
    return all;
}

} // namespace

TEST(Directory, IsReadParentsFirstAndInByteOrder)
{
    Read read;
    shell(read.dir, "mkdir -p b/c a; touch b/c/x b/B b/a a-b Z");
    EXPECT_EQ(paths(read.entries()), "Z a a-b b b/B b/a b/c b/c/x ");
}

TEST(Directory, FilesHaveTheirDataAndAttributes)
{
    Read read;
    shell(read.dir,
          "printf text >f; chmod 4751 f; touch -d @-5 f; chown 7:8 f; truncate -s 300000 h");
    const std::vector<Entry> entries = read.entries();
    const Entry& file = at(entries, "f");
    EXPECT_EQ(file.member.kind, Kind::kFile);
    EXPECT_EQ(content(*read.spool.read(file.data)), "text");
    EXPECT_EQ(file.member.size, 4U);
    EXPECT_EQ(file.member.mtime, -5);
    EXPECT_EQ(file.member.mode & 01777U, 0751U);
    EXPECT_EQ(content(*read.spool.read(at(entries, "h").data)), std::string(300000, '\0'));
}

TEST(Directory, NamesOfOneFileAreLinksToTheFirst)
{
    Read read;
    shell(read.dir, "printf text >a; mkdir d; ln a d/b; ln a z; ln -s a l; ln -P l m");
    const std::vector<Entry> entries = read.entries();
    EXPECT_EQ(at(entries, "a").member.kind, Kind::kFile);
    for (const char* name : {"d/b", "z"}) {
        EXPECT_EQ(at(entries, name).member.kind, Kind::kHardlink);
        EXPECT_EQ(at(entries, name).member.target, "a");
    }
    EXPECT_EQ(at(entries, "l").member.kind, Kind::kSymlink);
    EXPECT_EQ(at(entries, "m").member.target, "l");
    EXPECT_EQ(read.spool.size(), 4U);
}

TEST(Directory, LinksAreNotFollowed)
{
    Read read;
    shell(read.dir, "ln -s / root; ln -s ../../.. up; ln -s nothing dead");
    const std::vector<Entry> entries = read.entries();
    EXPECT_EQ(paths(entries), "dead root up ");
    EXPECT_EQ(at(entries, "root").member.target, "/");
}

TEST(Directory, SocketsAreSkippedAndFifosDoNotBlock)
{
    Read read;
    shell(read.dir, "mkfifo fifo");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (read.dir / "socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    const znc::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const std::vector<Entry> entries = read.entries();
    EXPECT_EQ(paths(entries), "fifo ");
    EXPECT_EQ(entries[0].member.kind, Kind::kFifo);
}

TEST(Directory, ExtendedAttributesAreNamed)
{
    Read read;
    test_tree::write_file(read.dir / "f", "");
    if (::setxattr((read.dir / "f").c_str(), "trusted.test", "1", 1, 0) != 0)
        GTEST_SKIP() << "no extended attributes in /tmp, or no right to set them";
    EXPECT_EQ(at(read.entries(), "f").member.xattrs, std::vector<std::string>{"trusted.test"});
}

TEST(Directory, EnforcesTheLimits)
{
    Read read;
    shell(read.dir, "mkdir -p a/b/c; printf 12345 >f");
    read.limits.depth = 2;
    EXPECT_TRUE(has(read.problem(), "--max-depth"));
    read.limits = Limits();
    read.limits.entries = 3;
    EXPECT_TRUE(has(read.problem(), "--max-entries"));
    read.limits = Limits();
    read.limits.bytes = 4;
    EXPECT_TRUE(has(read.problem(), "--max-bytes"));
    read.limits = Limits();
    EXPECT_EQ(read.problem(), "");
}

TEST(Directory, AFileThatGrowsWhileItIsReadIsAnError)
{
    Read read;
    shell(read.dir, "touch growing");
    const pid_t writer = ::fork();
    if (writer == 0) {
        ::alarm(120);
        const int fd = ::open((read.dir / "growing").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        while (::write(fd, "x", 1) == 1) {
        }
        ::_exit(0);
    }
    std::string problem;
    eventually([&] {
        problem = read.problem();
        return !problem.empty();
    });
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);
    EXPECT_TRUE(has(problem, "changed while it was read")) << problem;
}
