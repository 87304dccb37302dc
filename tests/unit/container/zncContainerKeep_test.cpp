// Tests of the notes about containers that outlive their daemon, with a platform that only records.
// Registering the containers again needs an empty registry, that of a new process.
#include "zncContainerKeep.hpp"

#include "bundle.hpp"
#include "fake_platform.hpp"
#include "zncContainerLib.hpp"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

int refusals = 0;

void count_refusal(const char* /*id*/, const char* /*reason*/)
{
    refusals++;
}

// Runs the body in a process whose registry is empty; returns whether it succeeded.
bool in_new_daemon(const std::function<void()>& body)
{
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        body();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    return ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class ContainerKeep : public testing::Test {
  protected:
    void SetUp() override
    {
        fake::reset();
        refusals = 0;
        make_bundle(kBundle, {"/bin/true"},
                    R"(,"mounts":[{"destination":"/tmp","type":"tmpfs","source":"tmpfs"}])");
    }
    void TearDown() override { fs::remove_all(kBundle); }

    static void create(const char* id)
    {
        ASSERT_EQ(zncContainerInit(), OK);
        znc::keep_containers();
        ASSERT_EQ(zncContainerCreate(id, kBundle, 0, nullptr), OK) << std::hex << errno;
    }
    static CONTAINER_STATE state(const char* id)
    {
        char buffer[256] = {};
        std::snprintf(buffer, sizeof buffer, "%s", id);
        CONTAINER_STATE state = {};
        EXPECT_EQ(zncContainerStateGet(buffer, &state), OK);
        return state;
    }
    static std::string note() { return fake::kept().begin()->second.note; }

    static constexpr const char* kBundle = "/tmp/kept-bundle";
};

// Empties the registry without telling the platform, as the end of a daemon does.
void forget_registry()
{
    isInitialized = FALSE;
    ASSERT_EQ(zncContainerInit(), OK);
}

} // namespace

TEST_F(ContainerKeep, ContainersAreRegisteredAgainAsTheyWere)
{
    EXPECT_TRUE(in_new_daemon([] {
        create("web");
        const CONTAINER_STATE before = state("web");
        const std::string program = before.pCtx->appPath;
        forget_registry();
        EXPECT_EQ(znc::adopt_containers(count_refusal), 1);
        const CONTAINER_STATE after = state("web");
        EXPECT_STREQ(after.containerId, "web");
        EXPECT_STREQ(after.bundlePath, before.bundlePath);
        EXPECT_STREQ(after.ver, before.ver);
        EXPECT_EQ(after.status, STATE_CREATED);
        EXPECT_EQ(after.createdTime, before.createdTime);
        EXPECT_EQ(after.pCtx->appPath, program);
        EXPECT_EQ(after.pCtx->mounted, TRUE);
        EXPECT_EQ(after.pCtx->mountCount, 1U);
        EXPECT_EQ(zncContainerDelete("web", 0), OK);
        EXPECT_EQ(fake::calls_of("znnsUmount").size(), 1U);
        EXPECT_TRUE(fake::namespaces().empty());
        EXPECT_EQ(refusals, 0);
    }));
}

TEST_F(ContainerKeep, TheConfigurationIsThatOfTheCreationNotThatOfTheBundle)
{
    EXPECT_TRUE(in_new_daemon([] {
        create("web");
        fs::remove_all(kBundle);
        forget_registry();
        EXPECT_EQ(znc::adopt_containers(count_refusal), 1);
        CONTAINER_START_PARM parameters = {};
        EXPECT_EQ(zncContainerStart("web", &parameters), OK);
        EXPECT_STREQ(parameters.arg[0], "/bin/true");
    }));
}

TEST_F(ContainerKeep, StartAndProgramAreNoted)
{
    EXPECT_TRUE(in_new_daemon([] {
        create("web");
        CONTAINER_START_PARM parameters = {};
        ASSERT_EQ(zncContainerStart("web", &parameters), OK);
        ASSERT_EQ(zncContainerStorePidHandle("web", 4711), OK);
        EXPECT_EQ(fake::kept().begin()->second.program, 4711);
        fake::set_in_use(true);
        forget_registry();
        EXPECT_EQ(znc::adopt_containers(count_refusal), 1);
        EXPECT_EQ(state("web").status, STATE_RUNNING);
        EXPECT_EQ(state("web").pCtx->pidHandle, 4711);
        EXPECT_EQ(zncContainerKill("web", 15, 0), OK);
        EXPECT_EQ(fake::calls_of("znnsProcessKill").at(0).handle, 4711);
    }));
}

TEST_F(ContainerKeep, AContainerThatCannotBeKeptIsNotCreated)
{
    EXPECT_TRUE(in_new_daemon([] {
        ASSERT_EQ(zncContainerInit(), OK);
        znc::keep_containers();
        fake::fail("znnsKeep", 1, ENOSPC);
        EXPECT_EQ(zncContainerCreate("web", kBundle, 0, nullptr), ERROR);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_TRUE(fake::namespaces().empty());
        EXPECT_EQ(zncContainerCreate("web", kBundle, 0, nullptr), OK);
    }));
}

TEST_F(ContainerKeep, AContainerWhoseStartCannotBeNotedCanBeStartedLater)
{
    EXPECT_TRUE(in_new_daemon([] {
        create("web");
        CONTAINER_START_PARM parameters = {};
        fake::fail("znnsKeep", 1, ENOSPC);
        EXPECT_EQ(zncContainerStart("web", &parameters), ERROR);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(state("web").status, STATE_CREATED);
        EXPECT_EQ(zncContainerStart("web", &parameters), OK);
    }));
}

TEST_F(ContainerKeep, NothingIsNotedUnlessAskedFor)
{
    EXPECT_TRUE(in_new_daemon([] {
        ASSERT_EQ(zncContainerInit(), OK);
        ASSERT_EQ(zncContainerCreate("web", kBundle, 0, nullptr), OK);
        EXPECT_TRUE(fake::calls_of("znnsKeep").empty());
    }));
}

TEST_F(ContainerKeep, NotesThatAreNoNotesAreRefused)
{
    EXPECT_TRUE(in_new_daemon([] {
        create("web");
        const std::string good = note();
        const int ns = fake::kept().begin()->first;
        const auto with = [&good](const std::string& from, const std::string& to) {
            std::string text = good;
            const std::size_t at = text.find(from);
            EXPECT_NE(at, std::string::npos) << from;
            return text.replace(at, from.size(), to);
        };
        const std::string bad[] = {
            "",
            "{}",
            good.substr(0, good.size() - 1),
            with(R"("id":"web")", R"("id":"../web")"),
            with(R"("id":"web")", R"("id":7)"),
            with(R"("bundle":"/)", R"("bundle":")"),
            with(R"("status":1)", R"("status":9)"),
            with(R"("status":1)", R"("status":"1")"),
            with(R"("mounts":1)", R"("mounts":2)"),
            with(R"("mounts":1)", R"("mounts":-1)"),
            with(R"("config":{)", R"("config":[],"other":{)"),
            with(R"("cwd":"/")", R"("cwd":"x")"),
        };
        for (const std::string& text : bad) {
            fake::set_note(ns, text);
            forget_registry();
            refusals = 0;
            EXPECT_EQ(znc::adopt_containers(count_refusal), 0) << text;
            EXPECT_EQ(refusals, 1) << text;
        }
        fake::set_note(ns, good);
        forget_registry();
        EXPECT_EQ(znc::adopt_containers(count_refusal), 1);
    }));
}

TEST_F(ContainerKeep, TwoNotesWithOneIdAreOneContainer)
{
    EXPECT_TRUE(in_new_daemon([] {
        create("web");
        fake::set_note(fake::kept().begin()->first + 1, note());
        forget_registry();
        EXPECT_EQ(znc::adopt_containers(count_refusal), 1);
        EXPECT_EQ(refusals, 1);
    }));
}
