// Tests of the parts of zncrun that need no container.
#include "oci/bundle.hpp"
#include "oci/hooks.hpp"
#include "oci/ready.hpp"
#include "oci/signals.hpp"
#include "oci/state.hpp"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace {

using zncrun::Bundle;
using zncrun::Container;
using zncrun::Context;
using zncrun::Failure;
using zncrun::Json;
using zncrun::Lock;
using zncrun::StateDirectory;
using zncrun::Status;

std::string failure_of(const std::function<void()>& call)
{
    try {
        call();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

TEST(Signals, AreKnownByNumberAndName)
{
    EXPECT_EQ(zncrun::signal_number("15"), SIGTERM);
    EXPECT_EQ(zncrun::signal_number("TERM"), SIGTERM);
    EXPECT_EQ(zncrun::signal_number("SIGTERM"), SIGTERM);
    EXPECT_EQ(zncrun::signal_number("sigkill"), SIGKILL);
    EXPECT_EQ(zncrun::signal_number("RTMIN"), SIGRTMIN);
    EXPECT_EQ(zncrun::signal_number("SIGRTMIN+3"), SIGRTMIN + 3);
    EXPECT_EQ(zncrun::signal_number("RTMAX-1"), SIGRTMAX - 1);
    EXPECT_EQ(zncrun::signal_number("0"), 0);
    for (const char* bad : {"", "-1", "65", "NOSUCH", "RTMIN+40", "RTMIN-1", "RTMIN+", "SIG", "9x"})
        EXPECT_EQ(zncrun::signal_number(bad), -1) << bad;
}

TEST(Ids, ContainOnlyAllowedCharacters)
{
    for (const char* good : {"a", "web-1", "A_b.c+d", "0123"})
        EXPECT_TRUE(zncrun::is_id(good)) << good;
    for (const char* bad : {"", ".", "..", "a/b", "a b", "a\n", "/", "\xc3\xa4"})
        EXPECT_FALSE(zncrun::is_id(bad)) << bad;
    EXPECT_FALSE(zncrun::is_id(std::string(300, 'a')));
}

class StateTest : public testing::Test {
  protected:
    StateTest() { context_.root = "/tmp/zncrun-state"; }
    ~StateTest() override { std::filesystem::remove_all(context_.root); }
    Context context_;
};

TEST_F(StateTest, IsWrittenAndReadBack)
{
    StateDirectory directory = StateDirectory::create(context_, "web");
    EXPECT_FALSE(directory.has_state());
    Container container;
    container.id = "web";
    container.group = "/zncrun/web";
    container.process = {4711, 123456789012ULL};
    container.annotations["key"] = "value";
    directory.write(container);
    const Container back = directory.read();
    EXPECT_EQ(back.id, "web");
    EXPECT_EQ(back.group, "/zncrun/web");
    EXPECT_EQ(back.process.pid, 4711);
    EXPECT_EQ(back.process.startTime, 123456789012ULL);
    EXPECT_EQ(back.annotations["key"], "value");
    EXPECT_EQ(zncrun::state_ids(context_), std::vector<std::string>{"web"});
    directory.remove();
    EXPECT_TRUE(zncrun::state_ids(context_).empty());
}

TEST_F(StateTest, IsForItsOwnerOnlyAndUnique)
{
    const StateDirectory directory = StateDirectory::create(context_, "web");
    struct stat st = {};
    ASSERT_EQ(::fstat(directory.get(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700U);
    EXPECT_NE(failure_of([&] { StateDirectory::create(context_, "web"); }).find("already exists"),
              std::string::npos);
    EXPECT_NE(failure_of([&] { StateDirectory::create(context_, "../web"); }).find("invalid"),
              std::string::npos);
}

TEST_F(StateTest, IsNotUsedWhereOthersMayWrite)
{
    StateDirectory::create(context_, "web");
    ASSERT_EQ(::chmod(context_.root.c_str(), 0777), 0);
    for (const auto& call : std::initializer_list<std::function<void()>>{
             [&] { StateDirectory::create(context_, "other"); },
             [&] { StateDirectory::find(context_, "web", Lock::kNone); },
             [&] { zncrun::state_ids(context_); }})
        EXPECT_NE(failure_of(call).find(context_.root), std::string::npos);
}

TEST_F(StateTest, OfACreatorIsLocked)
{
    const StateDirectory directory = StateDirectory::create(context_, "web");
    const znc::UniqueFd other(::open("/tmp/zncrun-state/web", O_RDONLY | O_CLOEXEC));
    EXPECT_NE(::flock(other.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_TRUE(StateDirectory::find(context_, "web", Lock::kNone));
}

TEST_F(StateTest, OfAnAbsentContainerDoesNotExist)
{
    EXPECT_FALSE(StateDirectory::find(context_, "web", Lock::kExclusive));
    EXPECT_EQ(failure_of([&] { StateDirectory::open(context_, "web", Lock::kNone); }),
              "container \"web\" does not exist");
}

TEST_F(StateTest, IsNotFollowedThroughALink)
{
    std::filesystem::create_directories(context_.root);
    std::filesystem::create_directories("/tmp/zncrun-elsewhere");
    std::filesystem::create_directory_symlink("/tmp/zncrun-elsewhere", context_.root + "/web");
    EXPECT_NE(failure_of([&] { StateDirectory::find(context_, "web", Lock::kNone); }), "");
    std::filesystem::remove_all("/tmp/zncrun-elsewhere");
}

TEST(StateDocument, HasNoProcessIdOnceTheProgramHasEnded)
{
    Container container;
    container.id = "web";
    container.process = {4711, 1};
    EXPECT_EQ(zncrun::state_document(container, Status::kRunning)["pid"], 4711);
    EXPECT_EQ(zncrun::state_document(container, Status::kStopped)["pid"], 0);
    EXPECT_EQ(zncrun::state_document(container, Status::kPaused)["status"], "paused");
}

class BundleTest : public testing::Test {
  protected:
    BundleTest() { std::filesystem::create_directories("/tmp/bundle/rootfs/etc"); }
    ~BundleTest() override { std::filesystem::remove_all("/tmp/bundle"); }

    static Bundle bundle(const std::string& members, const std::string& process = "")
    {
        std::ofstream("/tmp/bundle/config.json")
            << R"({"ociVersion":"1.0.0","root":{"path":"rootfs"},"process":{"cwd":"/","args":["a"])"
            << process << "}" << members << "}";
        return {"/tmp/bundle", ""};
    }
    static std::string refusal(const std::string& members, const std::string& process = "")
    {
        return failure_of([&] { bundle(members, process); });
    }
};

TEST_F(BundleTest, MountsAreAnArray)
{
    EXPECT_EQ(refusal(R"(,"mounts":"x")"), "mounts: not an array");
    EXPECT_EQ(refusal(R"(,"mounts":{})"), "mounts: not an array");
    EXPECT_EQ(refusal(R"(,"mounts":[])"), "");
}

TEST_F(BundleTest, GroupsAreBelowAGroupOfTheProgramUnlessAPathIsGiven)
{
    EXPECT_EQ(bundle("").group("web"), "/zncrun/web");
    EXPECT_EQ(bundle(R"(,"linux":{"cgroupsPath":"/a/b"})").group("web"), "/a/b");
    EXPECT_EQ(bundle(R"(,"linux":{"cgroupsPath":"a/b"})").group("web"), "/a/b");
    EXPECT_NE(failure_of([&] { (void)bundle(R"(,"linux":{"cgroupsPath":"a:b:c"})").group("web"); }),
              "");
}

TEST_F(BundleTest, HomeIsThatOfTheUserInTheContainer)
{
    std::ofstream("/tmp/bundle/rootfs/etc/passwd")
        << "root:x:0:0::/root:/bin/sh\nuser:x:7:7::/home/user:/bin/sh\n";
    const auto home = [&](const std::string& process) {
        return bundle("", process).process().env.texts().back();
    };
    EXPECT_EQ(home(""), "HOME=/root");
    EXPECT_EQ(home(R"(,"user":{"uid":7,"gid":7})"), "HOME=/home/user");
    EXPECT_EQ(home(R"(,"user":{"uid":8,"gid":8})"), "HOME=/");
    EXPECT_EQ(home(R"(,"env":["HOME=/given"])"), "HOME=/given");
    std::filesystem::remove("/tmp/bundle/rootfs/etc/passwd");
    std::filesystem::create_symlink("/etc/passwd", "/tmp/bundle/rootfs/etc/passwd");
    EXPECT_EQ(home(""), "HOME=/"); // not that of the host
}

TEST_F(BundleTest, SocketsOfAServiceManagerAreThoseOfThisProcess)
{
    const auto sockets = [](const char* count, const std::string& receiver) {
        ::setenv("LISTEN_FDS", count, 1);
        ::setenv("LISTEN_PID", receiver.c_str(), 1);
        const int number = zncrun::listening_descriptors();
        ::unsetenv("LISTEN_FDS");
        ::unsetenv("LISTEN_PID");
        return number;
    };
    EXPECT_EQ(zncrun::listening_descriptors(), 0);
    EXPECT_EQ(sockets("2", std::to_string(::getpid())), 2);
    EXPECT_EQ(sockets("2", "1"), 0); // of the engine
    EXPECT_EQ(sockets("-1", std::to_string(::getpid())), 0);
    EXPECT_EQ(sockets("x", std::to_string(::getpid())), 0);
    ::setenv("LISTEN_FDS", "1", 1);
    EXPECT_EQ(bundle("").process().env.texts().back(), "LISTEN_PID=1");
    ::unsetenv("LISTEN_FDS");
}

TEST_F(BundleTest, SourcesOfBindsAreBelowTheBundle)
{
    const Bundle made = bundle(R"(,"mounts":[{"destination":"/a","source":"x","options":["rbind"]},
                             {"destination":"b","type":"tmpfs","source":"x"}])");
    const ZN_ENGINE_PLAN plan = made.plan("/g", -1, -1, 0);
    ASSERT_EQ(plan.mountCount, 2U);
    EXPECT_STREQ(plan.mounts[0].source, "/tmp/bundle/x");
    EXPECT_EQ(plan.mounts[0].type, nullptr);
    EXPECT_STREQ(plan.mounts[1].source, "x");
    EXPECT_STREQ(plan.mounts[1].destination, "/b");
    EXPECT_EQ(plan.mounts[1].options[0], nullptr);
}

TEST_F(BundleTest, ErrorsNameTheField)
{
    EXPECT_NE(refusal(R"(,"mounts":[{"type":"tmpfs"}])").find("mounts[0].destination"),
              std::string::npos);
    EXPECT_NE(
        refusal(R"(,"mounts":[{"destination":"/a","options":[1]}])").find("mounts[0].options"),
        std::string::npos);
    EXPECT_NE(refusal(R"(,"mounts":[{"destination":"/a","uidMappings":[{}]}])").find("uidMappings"),
              std::string::npos);
    EXPECT_NE(refusal("", R"(,"env":"x")").find("process.env"), std::string::npos);
}

TEST(Ready, IsSaidByOneLineOnly)
{
    using zncrun::says_ready;
    for (const char* ready :
         {"READY=1", "READY=1\n", "STATUS=x\nREADY=1\nMAINPID=1", "\n\nREADY=1"})
        EXPECT_TRUE(says_ready(ready)) << ready;
    for (const char* other : {"", "\n", "READY=", "READY=0", "READY=10", " READY=1", "XREADY=1",
                              "STATUS=READY=1", "READY=1 ", "ready=1", "READY\n=1"})
        EXPECT_FALSE(says_ready(other)) << other;
    EXPECT_FALSE(says_ready(std::string_view("READY=1\0", 8)));
}

TEST(Hooks, HooksAreAwaitedAndTheirFailureIsReported)
{
    const auto hooks = [](const char* path, const char* word) {
        return Json::parse(std::string(R"({"hooks":{"prestart":[{"path":")") + path +
                           R"(","args":["x","-c",")" + word + R"("],"timeout":20}]}})");
    };
    zncrun::run_hooks(hooks("/bin/sh", "exit 0"), "prestart", "{}", zncrun::OnFailure::kFail);
    const auto failing = [&] {
        zncrun::run_hooks(hooks("/bin/sh", "exit 3"), "prestart", "{}", zncrun::OnFailure::kFail);
    };
    EXPECT_NE(failure_of(failing).find("exit status 3"), std::string::npos);
    EXPECT_NE(failure_of([&] {
                  zncrun::run_hooks(hooks("sh", ""), "prestart", "{}", zncrun::OnFailure::kFail);
              }).find("absolute"),
              std::string::npos);
    zncrun::run_hooks(hooks("/nosuch", ""), "prestart", "{}", zncrun::OnFailure::kContinue);
}

} // namespace
