#include "zncRuntimeApi.hpp"

#include "alloc_fault.hpp"
#include "fake_daemon.hpp"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using fake_daemon::answering;
using fake_daemon::FakeDaemon;
using fake_daemon::text_of;

const std::string kSuccess = R"({"errno":0,"body":[]})";
const std::string kState = R"({"ociVersion":"1.0.2","id":"web","status":2,"bundle":"/b"})";

std::string with_body(const std::string& body)
{
    return R"({"errno":0,"body":[)" + body + "]}";
}

// Takes ownership of text returned by the library; returns "(none)" for NULL.
std::string taken(char* text)
{
    const znc::MallocPtr<char> owned(text);
    return text != nullptr ? text : "(none)";
}

class Api : public testing::Test {
  protected:
    void SetUp() override { errno = 4242; }
    void TearDown() override
    {
        EXPECT_EQ(fake_daemon::queue_names(), std::vector<std::string>())
            << "a queue was left behind";
    }
    static std::string sent(FakeDaemon& daemon, int cmdId)
    {
        const auto requests = daemon.requests(1);
        EXPECT_EQ(requests.back().message.cmdId, cmdId);
        return text_of(requests.back().message);
    }
};

// Calls each function that needs the daemon, and checks how it fails.
struct Function {
    const char* name;
    bool (*fails)();
};
const Function kFunctions[] = {
    {"zncCreate", [] { return zncCreate("web", "/b", 0, nullptr) == ERROR; }},
    {"zncStart", [] { return zncStart("web", 0) == ERROR; }},
    {"zncKill", [] { return zncKill("web", 9, 0) == ERROR; }},
    {"zncDelete", [] { return zncDelete("web", 0) == ERROR; }},
    {"zncState", [] { return zncState("web") == nullptr; }},
    {"zncStatusGet", [] { return zncStatusGet("web") == STATE_UNKNOWN; }},
    {"zncList", [] { return zncList() == nullptr; }},
    {"zncContainerInfoGet", [] { return zncContainerInfoGet("web") == nullptr; }},
};

TEST_F(Api, WithoutADaemonEveryFunctionSaysSo)
{
    for (const Function& function : kFunctions) {
        errno = 0;
        EXPECT_TRUE(function.fails()) << function.name;
        EXPECT_EQ(errno, S_zncLib_DAEMON_NOT_RUNNING) << function.name;
    }
}

TEST_F(Api, FailureInTheReplyIsEveryFunctionsErrorNumber)
{
    for (const int number : {16, 19, 22, S_zncLib_CONTAINER_EXISTS}) {
        FakeDaemon daemon(answering(R"({"errno":)" + std::to_string(number) + R"(,"body":[{}]})"));
        for (const Function& function : kFunctions) {
            errno = 0;
            EXPECT_TRUE(function.fails()) << function.name;
            EXPECT_EQ(errno, number) << function.name;
        }
    }
}

TEST_F(Api, ReplyWithoutErrnoIsErrorNumberMinus1)
{
    FakeDaemon daemon(answering(R"({"body":[{}]})"));
    for (const Function& function : kFunctions) {
        EXPECT_TRUE(function.fails()) << function.name;
        EXPECT_EQ(errno, -1) << function.name;
    }
}

TEST_F(Api, ReplyThatIsNotJsonLeavesTheNumberAsItWasAndOnlyContainerInfoGetSetsEBADMSG)
{
    FakeDaemon daemon(answering("no json"));
    for (const Function& function : kFunctions) {
        const bool isInfo = std::string(function.name) == "zncContainerInfoGet";
        errno = 4242;
        EXPECT_TRUE(function.fails()) << function.name;
        EXPECT_EQ(errno, isInfo ? EBADMSG : 4242) << function.name;
    }
}

TEST_F(Api, NullArgumentsFailWithEINVALBeforeTheDaemonIsAsked)
{
    FakeDaemon daemon(answering(kSuccess));
    const auto is_invalid = [](bool failed) {
        const bool ok = failed && errno == EINVAL;
        errno = 4242;
        return ok;
    };
    EXPECT_TRUE(is_invalid(zncCreate(nullptr, "/b", 0, nullptr) == ERROR));
    EXPECT_TRUE(is_invalid(zncCreate("web", nullptr, 0, nullptr) == ERROR));
    EXPECT_TRUE(is_invalid(zncStart(nullptr, 0) == ERROR));
    EXPECT_TRUE(is_invalid(zncKill(nullptr, 9, 0) == ERROR));
    EXPECT_TRUE(is_invalid(zncDelete(nullptr, 0) == ERROR));
    EXPECT_TRUE(is_invalid(zncState(nullptr) == nullptr));
    EXPECT_TRUE(is_invalid(zncStatusGet(nullptr) == STATE_UNKNOWN));
    EXPECT_TRUE(is_invalid(zncContainerInfoGet(nullptr) == nullptr));
    EXPECT_TRUE(daemon.requests().empty());
}

TEST_F(Api, CreateSendsAnAbsolutePathUnchanged)
{
    FakeDaemon daemon(answering(kSuccess));
    const ZNC_ATTR attributes = {"reserved"};
    EXPECT_EQ(zncCreate("web", "/a/../b//c/", 0xffffffffU, &attributes), OK);
    EXPECT_EQ(sent(daemon, ZNC_CREATE),
              R"({"containerId":"web","bundle":"/a/../b//c/","option":4294967295})");
}

TEST_F(Api, CreateResolvesARelativePath)
{
    FakeDaemon daemon(answering(kSuccess));
    std::filesystem::create_directories("/tmp/bundles/web");
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path("/tmp/bundles");
    EXPECT_EQ(zncCreate("web", "./x/../web", 0, nullptr), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(zncCreate("web", "../bundles/web/", 0, nullptr), OK);
    std::filesystem::current_path(before);
    EXPECT_EQ(sent(daemon, ZNC_CREATE),
              R"({"containerId":"web","bundle":"/tmp/bundles/web","option":0})");
}

TEST_F(Api, CreateOfAMissingRelativePathFailsBeforeTheDaemonIsAsked)
{
    FakeDaemon daemon(answering(kSuccess));
    for (const char* path : {"no/such/bundle", ""}) {
        errno = 0;
        EXPECT_EQ(zncCreate("web", path, 0, nullptr), ERROR);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_TRUE(daemon.requests().empty());
}

TEST_F(Api, KillSendsSignalAndOptionUnchanged)
{
    FakeDaemon daemon(answering(kSuccess));
    EXPECT_EQ(zncKill("web", 9, 2), OK);
    EXPECT_EQ(sent(daemon, ZNC_KILL), R"({"containerId":"web","signo":9,"option":2})");
    EXPECT_EQ(zncKill("web", -1, 0), OK);
    EXPECT_EQ(text_of(daemon.requests(2).back().message),
              R"({"containerId":"web","signo":-1,"option":0})");
}

TEST_F(Api, DeleteSendsItsOption)
{
    FakeDaemon daemon(answering(kSuccess));
    EXPECT_EQ(zncDelete("web", 2), OK);
    EXPECT_EQ(sent(daemon, ZNC_DELETE), R"({"containerId":"web","option":2})");
}

TEST_F(Api, StateIsTheUnformattedStateObject)
{
    FakeDaemon daemon(answering(with_body(kState)));
    EXPECT_EQ(taken(zncState("web")), kState);
    EXPECT_EQ(sent(daemon, ZNC_STATE), R"({"containerId":"web"})");
}

TEST_F(Api, StateReplyWithoutAStateObjectFailsWithEBADMSG)
{
    for (const std::string& text : {kSuccess, std::string(R"({"errno":0})")}) {
        FakeDaemon daemon(answering(text));
        errno = 0;
        EXPECT_EQ(taken(zncState("web")), "(none)");
        EXPECT_EQ(errno, EBADMSG);
    }
}

TEST_F(Api, StatusIsTheNumberOfTheStateObject)
{
    for (const int status : {0, 1, 2, 3}) {
        FakeDaemon daemon(answering(with_body(R"({"status":)" + std::to_string(status) + "}")));
        EXPECT_EQ(zncStatusGet("web"), status);
        EXPECT_EQ(sent(daemon, ZNC_STATE), R"({"containerId":"web"})");
    }
}

TEST_F(Api, StatusOfAnythingElseIsUnknown)
{
    for (const char* state :
         {R"({"status":4})", R"({"status":5})", R"({"status":-1})", R"({"status":1e300})",
          R"({"status":"2"})", R"({"Status":2})", "{}"}) {
        FakeDaemon daemon(answering(with_body(state)));
        EXPECT_EQ(zncStatusGet("web"), STATE_UNKNOWN) << state;
    }
    FakeDaemon daemon(answering(kSuccess));
    EXPECT_EQ(zncStatusGet("web"), STATE_UNKNOWN);
}

TEST_F(Api, StatusOfAnUnknownContainerIs4AndSets19)
{
    FakeDaemon daemon(answering(R"({"errno":19,"body":[]})"));
    EXPECT_EQ(zncStatusGet("none"), 4);
    EXPECT_EQ(errno, 19);
}

TEST_F(Api, ListIsTheUnformattedArray)
{
    FakeDaemon daemon(answering(with_body(kState + "," + kState)));
    EXPECT_EQ(taken(zncList()), "[" + kState + "," + kState + "]");
    EXPECT_EQ(sent(daemon, ZNC_LIST), "{}");
}

TEST_F(Api, ListWithoutContainersIsAnEmptyArray)
{
    FakeDaemon daemon(answering(kSuccess));
    EXPECT_EQ(taken(zncList()), "[]");
}

TEST_F(Api, ArraysThatAreMissingFailWithEBADMSG)
{
    FakeDaemon daemon(answering(R"({"errno":0})"));
    EXPECT_EQ(taken(zncList()), "(none)");
    EXPECT_EQ(errno, EBADMSG);
    errno = 0;
    EXPECT_EQ(taken(zncContainerInfoGet("web")), "(none)");
    EXPECT_EQ(errno, EBADMSG);
}

TEST_F(Api, ContainerInfoIsTheFormattedArray)
{
    FakeDaemon daemon(answering(with_body(R"({"Id":"web"})")));
    EXPECT_EQ(taken(zncContainerInfoGet("web")), "[{\n\t\t\"Id\":\t\"web\"\n\t}]");
    EXPECT_EQ(sent(daemon, ZNC_INSPECT), R"({"Id":"web"})");
}

TEST_F(Api, ContainerInfoOfAnUnknownContainerIsNullAndSets19)
{
    FakeDaemon daemon(answering(R"({"errno":19,"body":[]})"));
    EXPECT_EQ(taken(zncContainerInfoGet("none")), "(none)");
    EXPECT_EQ(errno, 19);
}

// Makes each allocation fail in turn; the memory checkers detect leaks.
TEST_F(Api, ShortMemoryGivesTheWholeTextOrNone)
{
    FakeDaemon daemon(answering(with_body(kState)));
    std::set<int> numbers;
    bool ended = false;
    for (unsigned n = 1; !ended && n < 200; n++) {
        alloc_fault::arm(n);
        errno = 4242;
        char* text = zncState("web");
        const int number = errno;
        ended = alloc_fault::disarm() < n;
        if (text == nullptr)
            numbers.insert(number);
        else
            EXPECT_EQ(taken(text), kState) << n;
        EXPECT_EQ(fake_daemon::queue_names(), std::vector<std::string>{"znc"}) << n;
    }
    EXPECT_TRUE(ended);
    // Failing allocations: the receive buffer; the request, the copy of the reply or its tree; the
    // output text.
    EXPECT_EQ(numbers, (std::set<int>{0, ENOMEM, EBADMSG}));
}

TEST(StatusIntConvert, OnlyTheFourStatesMapToThemselves)
{
    for (const int status : {0, 1, 2, 3})
        EXPECT_EQ(zncStatusIntConvert(status), status);
    for (const int status : {4, 5, -1, INT32_MAX, INT32_MIN})
        EXPECT_EQ(zncStatusIntConvert(status), STATE_UNKNOWN);
}

} // namespace
