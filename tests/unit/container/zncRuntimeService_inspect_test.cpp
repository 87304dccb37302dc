#include "alloc_fault.hpp"
#include "fake_registry.hpp"
#include "zncContainerLib.hpp"
#include "zncRuntimeCSLib.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace {

std::string printed(const cJSON* tree)
{
    const znc::CJsonText text(cJSON_PrintUnformatted(tree));
    return text != nullptr ? text.get() : "(none)";
}

// A container "web" with a parsed bundle configuration, as in the registry.
class Inspection : public testing::Test {
  protected:
    void SetUp() override
    {
        setenv("TZ", "UTC-3", 1); // three hours east
        tzset();
        fake_registry::reset();
        fake_registry::add("web", STATE_RUNNING);
        fake_registry::set_context("web", &context_);
        context_.pConfig = &config_;
        config_.process = &process_;
        config_.zarnel = &zarnel_;
        configure(R"({"process":{"args":["/bin/app","-v","x"],"env":["A=1"],"cwd":"/srv"},)"
                  R"("mounts":[{"destination":"/data"}],"annotations":{"k":"v"}})");
        config_.hostName = host_;
    }
    void TearDown() override
    {
        fake_registry::reset();
        unsetenv("TZ");
        tzset();
    }

    void configure(const char* json)
    {
        tree_.reset(cJSON_Parse(json));
        ASSERT_NE(tree_, nullptr);
        config_.tree = tree_.get();
        process_.tree = cJSON_GetObjectItem(tree_.get(), "process");
        process_.args = args_;
    }

    // Inspects "web" and returns the error number; the body of the reply is in body_.
    int inspect(const char* request = R"({"Id":"web"})")
    {
        body_.reset(cJSON_CreateArray());
        const znc::CJsonPtr root(cJSON_Parse(request));
        return zncInspectContainer(root.get(), body_.get());
    }
    std::string member(const char* name)
    {
        return printed(cJSON_GetObjectItemCaseSensitive(cJSON_GetArrayItem(body_.get(), 0), name));
    }

    char word_[3][16] = {"/bin/app", "-v", "x"};
    char host_[8] = "web-1";
    char* args_[4] = {word_[0], word_[1], word_[2], nullptr};
    runtimeSpecConfigZarnel zarnel_ = {1, 100, 8192, 2, nullptr};
    runtimeSpecConfigProcess process_ = {};
    runtimeSpecConfig config_ = {};
    CONTAINER_CTX context_ = {};
    znc::CJsonPtr tree_;
    znc::CJsonPtr body_;
};

TEST_F(Inspection, DocumentHasItsMembersInOrder)
{
    fake_registry::set_created_time("web", 0);
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(
        printed(body_.get()),
        R"([{"Id":"web","Created":"1970-01-01T03:00:00","Path":"/bin/app","args":["-v","x"],)"
        R"("State":{"Running":true,"Stopped":false,"Created":false},"Platform":"zarnel","Name":"web",)"
        R"("HostConfig":{"option":1,"priority":100,"taskOption":2,"stackSize":8192},)"
        R"("Config":{"Hostname":"web-1","Env":["A=1"],"Cmd":["/bin/app","-v","x"],)"
        R"("Volumes":[{"destination":"/data"}],"WorkingDir":"/srv","Entrypoint":"/bin/app",)"
        R"("Labels":{"k":"v"}}}])");
}

TEST_F(Inspection, CreatedIsLocalTimeWithoutAZone)
{
    std::tm local = {};
    local.tm_year = 2025 - 1900;
    local.tm_mon = 1;
    local.tm_mday = 3;
    local.tm_hour = 9;
    local.tm_min = 5;
    local.tm_sec = 7;
    fake_registry::set_created_time("web", mktime(&local));
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member("Created"), R"("2025-02-03T09:05:07")");
}

TEST_F(Inspection, TimeThatHasNoYearFailsWithItsNumber)
{
    fake_registry::set_created_time("web", std::numeric_limits<time_t>::max());
    EXPECT_EQ(inspect(), EOVERFLOW);
    EXPECT_EQ(printed(body_.get()), "[]");
}

TEST_F(Inspection, StateHasItsTrueMemberFirst)
{
    const auto state_of = [](int status) {
        CONTAINER_STATE state = {};
        state.status = status;
        return printed(znc::CJsonPtr(zncInspectContainerState(&state)).get());
    };
    EXPECT_EQ(state_of(STATE_CREATED), R"({"Created":true,"Running":false,"Stopped":false})");
    EXPECT_EQ(state_of(STATE_RUNNING), R"({"Running":true,"Stopped":false,"Created":false})");
    EXPECT_EQ(state_of(STATE_STOPPED), R"({"Stopped":true,"Running":false,"Created":false})");
}

TEST_F(Inspection, StateOfACreatingOrUnknownContainerIsAnEmptyObject)
{
    for (const CONTAINER_STATUS status : {STATE_CREATING, STATE_UNKNOWN}) {
        fake_registry::add("odd", status);
        fake_registry::set_context("odd", &context_);
        ASSERT_EQ(inspect(R"({"Id":"odd"})"), 0);
        EXPECT_EQ(member("State"), "{}");
    }
}

TEST_F(Inspection, MissingMembersOfTheConfigurationAreEmptyStrings)
{
    configure(R"({"process":{}})");
    config_.hostName = nullptr;
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member("Config"), R"({"Env":"","Cmd":"","Volumes":"","WorkingDir":"",)"
                                R"("Entrypoint":"/bin/app","Labels":""})");
}

TEST_F(Inspection, WithoutAnnotationsLabelsIsAnEmptyString)
{
    configure(R"({"process":{"args":["/bin/app"]}})");
    ASSERT_EQ(inspect(), 0);
    EXPECT_NE(member("Config").find(R"("Labels":"")"), std::string::npos);
}

TEST_F(Inspection, SingleArgumentIsThePathAndArgsIsEmpty)
{
    args_[1] = nullptr;
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member("Path"), R"("/bin/app")");
    EXPECT_EQ(member("args"), "[]");
}

TEST_F(Inspection, NoArgumentsLeavePathAndEntrypointOut)
{
    args_[0] = nullptr;
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member("Path"), "(none)");
    EXPECT_EQ(member("args"), "[]");
    EXPECT_EQ(member("Config").find("Entrypoint"), std::string::npos);
    process_.args = nullptr;
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member("args"), "[]");
}

TEST_F(Inspection, UnknownContainerIs19AndAppendsNothing)
{
    EXPECT_EQ(inspect(R"({"Id":"none"})"), ENODEV);
    EXPECT_EQ(printed(body_.get()), "[]");
}

TEST_F(Inspection, MissingIdIs22)
{
    EXPECT_EQ(inspect("{}"), EINVAL);
    EXPECT_EQ(inspect(R"({"Id":7})"), EINVAL);
    EXPECT_EQ(inspect("null"), EINVAL);
    EXPECT_EQ(printed(body_.get()), "[]");
}

TEST_F(Inspection, ContainerWithoutAContextIs19)
{
    fake_registry::set_context("web", nullptr);
    EXPECT_EQ(inspect(), ENODEV);
    EXPECT_EQ(printed(body_.get()), "[]");
}

// Either a builder fails and nothing is appended, or single members are missing.
TEST_F(Inspection, ShortMemoryAppendsAWholeDocumentOrNone)
{
    body_.reset(cJSON_CreateArray());
    const znc::CJsonPtr root(cJSON_Parse(R"({"Id":"web"})"));
    unsigned failures = 0;
    bool ended = false;
    // The fake registry and localtime_r allocate memory, too; the last n is beyond all allocations.
    for (unsigned n = 1; !ended && n < 500; n++) {
        body_.reset(cJSON_CreateArray());
        alloc_fault::arm(n);
        const int result = zncInspectContainer(root.get(), body_.get());
        ended = alloc_fault::disarm() < n;
        EXPECT_EQ(cJSON_GetArraySize(body_.get()), result == 0 ? 1 : 0) << n;
        EXPECT_TRUE(result == 0 || result == ENOMEM) << n << ": " << result;
        failures += result != 0 ? 1 : 0;
        if (result == 0) {
            EXPECT_NE(member("Config"), "(none)") << n;
            EXPECT_NE(member("HostConfig"), "(none)") << n;
            EXPECT_NE(member("State"), "(none)") << n;
            EXPECT_NE(member("args"), "(none)") << n;
        }
    }
    EXPECT_TRUE(ended);
    EXPECT_EQ(failures, 5U) << "the document, args, State, HostConfig, Config";
}

} // namespace
