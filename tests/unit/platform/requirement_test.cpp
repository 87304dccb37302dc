// Tests of the report on the system's features, with some of them taken away.
#include "zarnel/requirement.h"

#include "zarnel/ns.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* kNoExecSetting = "/proc/sys/vm/memfd_noexec";

// Returns the requirement whose text contains `word`; its text is NULL if there is none.
znRequirement requirement_with(const char* word)
{
    znRequirement one = {};
    for (std::size_t i = 0; znRequirementGet(i, &one) != FALSE; i++)
        if (std::strstr(one.text, word) != nullptr)
            return one;
    return {};
}

// Runs in the first process of a new PID namespace, which has its own value of this setting.
int forbid_programs_in_memory()
{
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("proc", "/proc", "proc", 0, nullptr) != 0)
        return 1;
    const int setting = ::open(kNoExecSetting, O_WRONLY | O_CLOEXEC);
    if (setting < 0 || ::write(setting, "2", 1) != 1)
        return 2;
    ::close(setting);
    return 0;
}

TEST(Requirement, EachHasATextAndAConsequence)
{
    znRequirement one = {};
    std::size_t count = 0;
    for (; znRequirementGet(count, &one) != FALSE; count++) {
        EXPECT_NE(std::string(one.text), "");
        EXPECT_NE(std::string(one.without), "");
        EXPECT_TRUE(one.met != FALSE || one.needed == FALSE) << one.text;
    }
    EXPECT_GT(count, 5U);
}

TEST(Requirement, ForbiddenProgramsInMemoryAreNoticedAndNamed)
{
    if (::access(kNoExecSetting, F_OK) != 0)
        GTEST_SKIP() << "this kernel has no setting vm.memfd_noexec";
    ASSERT_EQ(requirement_with("memfd_noexec").met, TRUE);
    const pid_t outer = ::fork();
    if (outer == 0) {
        if (::unshare(CLONE_NEWPID) != 0)
            ::_exit(10);
        const pid_t first = ::fork();
        if (first == 0) {
            if (const int failed = forbid_programs_in_memory(); failed != 0)
                ::_exit(failed);
            const znRequirement found = requirement_with("memfd_noexec");
            if (found.text == nullptr || found.met != FALSE || found.needed == FALSE)
                ::_exit(3);
            ::_exit(znnsCreate(0) == -1 && errno == EACCES ? 0 : 4);
        }
        int status = -1;
        ::waitpid(first, &status, 0);
        ::_exit(WEXITSTATUS(status));
    }
    int status = -1;
    ASSERT_EQ(::waitpid(outer, &status, 0), outer);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace
