// Makes each allocation of complete flows fail in turn: in the client's call, against a real
// daemon, and in the daemon while it processes a request. Nothing may crash, the error must be a
// documented one, and nothing may be left; the memory checkers detect leaks.

#include "alloc_fault.hpp"
#include "layered_image.hpp"
#include "service_client.hpp"
#include "system_world.hpp"
#include "zarnel/ns.h"
#include "zarnel/overlay.h"
#include "zncContainerLib.hpp"
#include "zncTrash.hpp"

#include <functional>

using namespace system_world;
using service_client::ClientQueues;
using service_client::request_of;

namespace {

constexpr const char* kLayout = "/tmp/layout";
constexpr unsigned kMost = 3000; // maximum number of allocations of a flow

bool one_of(int number, const std::vector<int>& allowed)
{
    return std::find(allowed.begin(), allowed.end(), number) != allowed.end();
}

// A flow of the client: the steps `before` it, the call itself (returns whether it succeeded), and
// the cleanup, which is given the error number or -1.
struct Flow {
    std::function<void()> before = [] {};
    std::function<bool()> call;
    std::function<void(int)> after = [](int) {};
    // 0: the request or its reply was lost. EINVAL: a key that could not be added was omitted.
    std::vector<int> errors = {ENOMEM, 0, EINVAL};
};

void fail_each_allocation(const char* name, const Flow& flow)
{
    unsigned n = 0;
    for (bool whole = false; !whole;) {
        ASSERT_LT(++n, kMost);
        flow.before();
        alloc_fault::arm(n);
        errno = 0;
        const bool done = flow.call();
        const int number = errno;
        whole = alloc_fault::disarm() < n;
        EXPECT_TRUE(done || one_of(number, flow.errors))
            << name << " " << n << " 0x" << std::hex << number;
        EXPECT_TRUE(done || !whole) << name << " " << std::hex << number;
        flow.after(done ? -1 : number);
    }
    std::printf("%s: %u allocations\n", name, n - 1);
}

class ClientMemory : public SystemWorld {
  protected:
    static void create() { ASSERT_EQ(zncCreate("web", kBundle, 0, nullptr), OK); }
    // Cleans up the container and the program that the start may have left to this process.
    static void clear(int)
    {
        if (zncStatusGet("web") != STATE_UNKNOWN) {
            EXPECT_EQ(zncDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
        }
        // the daemon is still running and is not reaped
        while (::waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, ClientMemory, testing::Values(false, true), flavour_name);

TEST_P(ClientMemory, RunsOutInEveryCallAndTheDaemonIsUnaffected)
{
    fail_each_allocation(
        "create", {[] {}, [] { return zncCreate("web", kBundle, 0, nullptr) == OK; }, clear});
    fail_each_allocation("start", {create,
                                   [] { return zncStart("web", 0) > 0; },
                                   clear,
                                   {ENOMEM, 0, EINVAL, EBADMSG, S_zncLib_RTP_SPAWN_FAILED}});
    fail_each_allocation("list", {create,
                                  [] { return text_of(zncList()) != "(none)"; },
                                  clear,
                                  {ENOMEM, 0, EINVAL, EBADMSG}});
    fail_each_allocation("state", {create,
                                   [] { return text_of(zncState("web")) != "(none)"; },
                                   clear,
                                   {ENOMEM, 0, EINVAL, EBADMSG}});
    fail_each_allocation("inspect", {create,
                                     [] { return text_of(zncContainerInfoGet("web")) != "(none)"; },
                                     clear,
                                     {ENOMEM, 0, EINVAL, EBADMSG}});
    fail_each_allocation("kill", {create, [] { return zncKill("web", kKill, 0) == OK; }, clear});
    fail_each_allocation("delete", {create, [] { return zncDelete("web", 0) == OK; }, clear});
    expect_usable();
}

// ------------------------------------------------------------------ images

class ImageMemory : public testing::TestWithParam<bool> {
  protected:
    static constexpr const char* kStorage = "/tmp/storage";
    static constexpr const char* kBundle = "/tmp/bundle";

    void SetUp() override
    {
        if (!GetParam())
            fs::remove("/overlay");
        ::setenv("ZNC_BASE", kStorage, 1);
        layout::Layout(kLayout).add(layered_image::image_of(2, 2));
    }
    void TearDown() override
    {
        fs::remove_all(kLayout);
        fs::create_directories("/overlay");
        ::unsetenv("ZNC_BASE");
    }
    static void sweep_unpack(const char* name, unsigned option);
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, ImageMemory, testing::Values(false, true), flavour_name);

void ImageMemory::sweep_unpack(const char* name, unsigned option)
{
    const auto after = [](int number) {
        EXPECT_EQ(fs::exists(kBundle), number == -1);
        const fs::path store = fs::exists(kStorage) ? kStorage : "/mnt";
        for (const auto& entry : fs::recursive_directory_iterator(store))
            EXPECT_NE(entry.path().filename().string().rfind(".unpack-", 0), 0U);
        if (number == -1) {
            EXPECT_TRUE(fs::exists(std::string(kBundle) + "/config.json"));
            EXPECT_EQ(zncImageBundleDelete(kBundle), OK);
        }
        if (GetParam()) {
            for (const auto& device : fs::directory_iterator("/overlay"))
                EXPECT_EQ(zncRemoveOvlRootfsDev(device.path().c_str()), OK);
        }
        fs::remove_all(kStorage);
    };
    Flow flow;
    flow.call = [option] { return zncUnpack(kBundle, kLayout, nullptr, option, nullptr) == OK; };
    flow.after = after;
    // 0: the first file of the layout; the last one is the future "config.json".
    flow.errors = {ENOMEM, 0, S_zncLib_BUNDLE_CONFIG_PARAM_INVALID};
    fail_each_allocation(name, flow);
}

TEST_P(ImageMemory, RunsOutInEveryUnpackAndNothingHalfMadeStays)
{
    sweep_unpack(GetParam() ? "layered" : "raw", 0);
    if (GetParam())
        sweep_unpack("flattened", ZNC_OPT_FLATTEN);
}

TEST_P(ImageMemory, RunsOutInTheInspectionOfAnImage)
{
    fail_each_allocation("image inspect",
                         {[] {},
                          [] { return text_of(zncImageInfoGet(kLayout)) != "(none)"; },
                          [](int) {},
                          {ENOMEM}});
}

// ------------------------------------------------------------------ the daemon's work

class DaemonMemory : public testing::TestWithParam<bool> {
  protected:
    static constexpr const char* kStorage = "/tmp/storage";
    static constexpr const char* kBundle = "/tmp/bundle";

    void SetUp() override
    {
        if (!GetParam())
            fs::remove("/overlay");
        ::setenv("ZNC_BASE", kStorage, 1);
        make_bundle(kBundle, {"/bin/true"},
                    R"(,"mounts":[{"source":"tmpfs","destination":"/tmp","type":"tmpfs"},
                                  {"source":"/etc","destination":"/etc","type":"bind"}])");
        ASSERT_EQ(zncContainerInit(), OK);
        create();
        remove();
        ASSERT_EQ(znnsShutdown(), 0);
        before_ = Ledger::take(kStorage, ::getpid());
    }
    void TearDown() override
    {
        EXPECT_EQ(Ledger::take(kStorage, ::getpid()).compared_with(before_), "");
        fs::remove_all(kStorage);
        fs::remove_all(kBundle);
        fs::create_directories("/overlay");
        ::unsetenv("ZNC_BASE");
    }

    static void create()
    {
        ASSERT_EQ(zncContainerCreate("web", kBundle, 0, nullptr), OK) << std::hex << errno;
    }
    static void remove()
    {
        ASSERT_EQ(zncContainerDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << std::hex << errno;
    }

    // Makes each allocation fail while the daemon processes this request. The objects of the
    // request are created before and removed afterwards; checks the errors in the replies, and
    // whether the container exists.
    void serve(const char* name, int command, const std::string& json,
               const std::vector<int>& errors) const;

  private:
    static int answer(const std::string& reply)
    {
        const std::size_t at = reply.find("\"errno\":");
        return at == std::string::npos ? -1 : std::atoi(reply.c_str() + at + 8);
    }
    void put_right(const std::string& name, unsigned n) const;

    Ledger before_;
};

INSTANTIATE_TEST_SUITE_P(PlainAndOverlay, DaemonMemory, testing::Values(false, true), flavour_name);

// After a failed delete the next one removes the container from the list, and its namespace ends
// with the daemon; the next create with the id reuses what is on disk.
void DaemonMemory::put_right(const std::string& name, unsigned n) const
{
    CONTAINER_STATE state;
    std::string id = "web";
    if (zncContainerStateGet(id.data(), &state) == OK &&
        zncContainerDelete("web", ZNC_OPT_WHOLE_NAMESPACE) != OK) {
        EXPECT_EQ(zncContainerDelete("web", ZNC_OPT_WHOLE_NAMESPACE), OK) << name << n;
    }
    EXPECT_EQ(znnsShutdown(), 0) << name << n;
    EXPECT_TRUE(znc::trash_settled(60000)) << name << n;
    create();
    remove(); // what could not be deleted then is deleted now
    EXPECT_TRUE(znc::trash_settled(60000)) << name << n;
    EXPECT_EQ(znnsShutdown(), 0) << name << n; // waits for the keeper's end
    EXPECT_EQ(Ledger::take(kStorage, ::getpid()).compared_with(before_), "") << name << n;
}

void DaemonMemory::serve(const char* name, int command, const std::string& json,
                         const std::vector<int>& errors) const
{
    unsigned n = 0;
    for (bool whole = false; !whole;) {
        ASSERT_LT(++n, kMost);
        if (command != ZNC_CREATE)
            create();
        int number = -1;
        STATUS status = ERROR;
        {
            ClientQueues client;
            zncMessage message = request_of(command, json);
            errno = 0;
            alloc_fault::arm(n);
            status = zncMessageProcess(&message);
            whole = alloc_fault::disarm() < n;
            number = answer(client.reply_text());
        }
        CONTAINER_STATE state;
        std::string id = "web";
        const bool there = zncContainerStateGet(id.data(), &state) == OK;
        // Without memory for a reply none is sent.
        EXPECT_TRUE(number == -1 || number == 0 || one_of(number, errors))
            << name << n << " " << std::hex << number;
        EXPECT_TRUE(!whole || (status == OK && number == 0)) << name;
        EXPECT_TRUE(number == -1 || command != ZNC_CREATE || there == (number == 0)) << n;
        EXPECT_TRUE(number == -1 || command != ZNC_DELETE || there == (number != 0)) << n;
        put_right(name, n);
    }
    std::printf("%s: %u allocations\n", name, n - 1);
}

TEST_P(DaemonMemory, RunsOutInEveryRequest)
{
    const std::string web = R"({"containerId":"web","option":0})";
    serve("create", ZNC_CREATE, R"({"containerId":"web","bundle":"/tmp/bundle","option":0})",
          {ENOMEM, S_zncLib_RUNTIME_CONFIG_LOAD_FAILED, S_zncLib_OCI_ROOT_INVALID,
           S_zncLib_ROOTFS_CREATE_FAILED, S_zncLib_NAMESPACE_CREATE_FAILED,
           S_zncLib_ADDITIONAL_MOUNT_FAILED});
    serve("start", ZNC_START, web, {ENOMEM});
    serve("list", ZNC_LIST, "{}", {ENOMEM});
    serve("state", ZNC_STATE, web, {ENOMEM});
    serve("inspect", ZNC_INSPECT, R"({"Id":"web"})", {ENOMEM});
    serve("kill", ZNC_KILL, R"({"containerId":"web","signo":9,"option":2})", {ENOMEM});
    serve("delete", ZNC_DELETE, web, {ENOMEM, S_zncLib_UNMOUNT_FAILED});
}

} // namespace
