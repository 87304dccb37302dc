#include "zarnel/process_list.h"

#include "descriptors.hpp"
#include "eventually.hpp"

#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct Seen {
    ZN_PROCESS_INFO info;
    std::string command;
};

std::string own_namespace()
{
    char name[64] = "";
    EXPECT_EQ(znProcessNamespace(::getpid(), name, sizeof name), OK);
    return name;
}

std::vector<Seen> processes(const std::string& name)
{
    std::vector<Seen> seen;
    EXPECT_EQ(znProcessEach(
                  name.c_str(),
                  [](const ZN_PROCESS_INFO* process, void* to) {
                      static_cast<std::vector<Seen>*>(to)->push_back({*process, process->command});
                  },
                  &seen),
              OK);
    return seen;
}

const Seen* find(const std::vector<Seen>& all, pid_t pid)
{
    for (const Seen& seen : all)
        if (seen.info.pid == pid)
            return &seen;
    return nullptr;
}

TEST(ProcessList, ContainsTheCallerWithItsParentAndMemory)
{
    const std::vector<Seen> all = processes(own_namespace());
    const Seen* self = find(all, ::getpid());
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->info.parent, ::getppid());
    EXPECT_GT(self->info.memoryKb, 0U);
    EXPECT_EQ(self->info.state, 'R');
    EXPECT_NE(self->command.find("process_list_test"), std::string::npos);
}

TEST(ProcessList, ArgumentsAreSeparatedBySpaces)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sleep", "sleep", "60", "1", nullptr);
        ::_exit(1);
    }
    std::string command;
    EXPECT_TRUE(eventually([&] {
        const std::vector<Seen> all = processes(own_namespace());
        const Seen* seen = find(all, child);
        command = seen != nullptr ? seen->command : "";
        return command == "sleep 60 1";
    })) << command;
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST(ProcessList, AProcessWithoutArgumentsIsListedByItsNameInBrackets)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    siginfo_t info = {};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    const std::vector<Seen> all = processes(own_namespace());
    const Seen* seen = find(all, child);
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(seen->command, "[process_list_te]");
    EXPECT_EQ(seen->info.state, 'Z');
    EXPECT_EQ(seen->info.memoryKb, 0U);
    ::waitpid(child, nullptr, 0);
}

TEST(ProcessList, ProcessesOfOtherNamespacesAreLeftOut)
{
    EXPECT_TRUE(processes("pid:[1]").empty());
}

TEST(ProcessList, AProcessThatDoesNotExistHasNoNamespace)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    char name[64] = "unchanged";
    errno = 0;
    EXPECT_EQ(znProcessNamespace(child, name, sizeof name), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(name, "");
}

TEST(ProcessList, ProgramPathIsNotTruncated)
{
    char path[4096];
    ASSERT_EQ(znProgramPath(path, sizeof path), OK);
    EXPECT_TRUE(std::string(path).ends_with("/process_list_test")) << path;
    char small[4];
    EXPECT_EQ(znProgramPath(small, sizeof small), ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(ProcessList, LeavesNoDescriptorOpen)
{
    const auto before = open_descriptors();
    processes(own_namespace());
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
