// Tests of what the confined worker process can no longer do. Each test checks from inside a child
// that has dropped its privileges; the exit status is the number of the first check that failed.
#include "import/confine.hpp"
#include "import/source/failure.hpp"

#include "base/owned.hpp"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

int in_child(const std::function<int()>& looks)
{
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(60);
        try {
            ::_exit(looks());
        } catch (const zncimport::Failure& failure) {
            std::fprintf(stderr, "%s\n", failure.what());
            ::_exit(100);
        }
    }
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Whether the kernel supports Landlock. Without it a worker started by root that reads a directory
// could write there.
bool landlock()
{
    const bool has = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, 1) > 0;
    if (!has)
        std::puts("no Landlock here: not all is looked for");
    return has;
}

class Confine : public testing::Test {
  protected:
    void SetUp() override
    {
        fs::create_directory(kSource);
        std::ofstream(file_) << "inside";
        fs::permissions(file_, fs::perms::none);
        std::ofstream(outside_) << "outside";
    }
    void TearDown() override
    {
        fs::remove_all(kSource);
        fs::remove(outside_);
    }

    static znc::UniqueFd open_source()
    {
        return znc::UniqueFd(::open(kSource, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    static bool opens(int dir, const char* path, int flags = O_RDONLY)
    {
        return static_cast<bool>(znc::UniqueFd(::openat(dir, path, flags | O_CLOEXEC, 0600)));
    }

    static constexpr const char* kSource = "/tmp/confine-source";
    const std::string file_ = std::string(kSource) + "/file";
    const std::string outside_ = "/tmp/confine-outside";
};

} // namespace

TEST_F(Confine, OnlyTheGivenDescriptorsStay)
{
    EXPECT_EQ(in_child([] {
                  const std::array<int, 2> pipe_ends = [] {
                      std::array<int, 2> ends{};
                      EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
                      return ends;
                  }();
                  const int high = ::fcntl(pipe_ends[0], F_DUPFD_CLOEXEC, 200);
                  const std::array<int, 2> kept = {high, pipe_ends[1]};
                  zncimport::confine(kept, -1);
                  if (::fcntl(high, F_GETFD) < 0 || ::fcntl(pipe_ends[1], F_GETFD) < 0)
                      return 1;
                  for (int fd = 3; fd < 1024; fd++)
                      if (fd != high && fd != pipe_ends[1] && ::fcntl(fd, F_GETFD) >= 0)
                          return 2;
                  return 0;
              }),
              0);
}

TEST_F(Confine, WithoutADirectoryNoFileCanBeOpened)
{
    EXPECT_EQ(in_child([this] {
                  zncimport::confine({}, -1);
                  for (const char* path : {"/", ".", "..", "/etc/passwd", "/proc/self/environ",
                                           "/dev/null", outside_.c_str(), "/tmp"})
                      if (opens(AT_FDCWD, path) && std::string_view(path) != "/" &&
                          std::string_view(path) != "." && std::string_view(path) != "..")
                          return 1;
                  if (opens(AT_FDCWD, "new", O_WRONLY | O_CREAT))
                      return 2;
                  return ::mkdir("new", 0700) == 0 ? 3 : 0;
              }),
              0);
}

TEST_F(Confine, BelowTheSourceFilesAreReadWhateverTheirModeAndNothingIsWritten)
{
    const znc::UniqueFd source = open_source();
    EXPECT_EQ(
        in_child([&] {
            const std::array<int, 1> kept = {source.get()};
            const bool closed = landlock();
            zncimport::confine(kept, source.get());
            if (!opens(source.get(), "file"))
                return 1;
            if (closed && opens(source.get(), "file", O_WRONLY))
                return 2;
            if (closed && opens(source.get(), "new", O_WRONLY | O_CREAT))
                return 3;
            if (closed && ::unlinkat(source.get(), "file", 0) == 0)
                return 4;
            for (const char* path : {"../confine-outside", "/tmp/confine-outside", "/etc/passwd"})
                if (opens(source.get(), path))
                    return 5;
            return 0;
        }),
        0);
}

TEST_F(Confine, RootBecomesNobodyAndCannotReturn)
{
    ASSERT_EQ(::geteuid(), 0U);
    EXPECT_EQ(in_child([] {
                  zncimport::confine({}, -1);
                  if (::getuid() == 0 || ::geteuid() == 0 || ::getgid() == 0 || ::getegid() == 0)
                      return 1;
                  if (::setuid(0) == 0 || ::setgid(0) == 0 || ::getgroups(0, nullptr) != 0)
                      return 2;
                  if (::chroot(".") == 0 || ::syscall(SYS_unshare, 0x00020000) == 0)
                      return 3;
                  if (::kill(::getppid(), 0) == 0)
                      return 4;
                  return ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1 &&
                                 ::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0) == 0
                             ? 0
                             : 5;
              }),
              0);
}

// In this user namespace nobody is not mapped, so root cannot change its user.
TEST_F(Confine, RootOfANamespaceOfOneUserLosesItsRights)
{
    constexpr int kNoNamespace = 50;
    const int found = in_child([this] {
        const auto write = [](const char* path, const char* text) {
            return static_cast<bool>(std::ofstream(path) << text << std::flush);
        };
        if (::syscall(SYS_unshare, 0x10000000) != 0 || !write("/proc/self/uid_map", "0 0 1") ||
            !write("/proc/self/setgroups", "deny") || !write("/proc/self/gid_map", "0 0 1"))
            return kNoNamespace;
        if (::geteuid() != 0)
            return 1;
        zncimport::confine({}, -1);
        if (opens(AT_FDCWD, outside_.c_str()) || opens(AT_FDCWD, "new", O_WRONLY | O_CREAT))
            return 2;
        return ::chroot(".") == 0 || ::sethostname("x", 1) == 0 ? 3 : 0;
    });
    if (found == kNoNamespace)
        GTEST_SKIP() << "no user namespaces here";
    EXPECT_EQ(found, 0);
}

TEST_F(Confine, AnUnprivilegedUserIsConfinedToo)
{
    const znc::UniqueFd source = open_source();
    fs::permissions(file_, fs::perms::others_read);
    EXPECT_EQ(in_child([&] {
                  constexpr unsigned kUser = 4711;
                  if (::setresgid(kUser, kUser, kUser) != 0 ||
                      ::setresuid(kUser, kUser, kUser) != 0)
                      return 1;
                  const bool closed = landlock();
                  const std::array<int, 1> kept = {source.get()};
                  zncimport::confine(kept, source.get());
                  if (!opens(source.get(), "file"))
                      return 2;
                  if (::getuid() != kUser)
                      return 3;
                  return closed && opens(AT_FDCWD, "/etc/passwd") ? 4 : 0;
              }),
              0);
}
