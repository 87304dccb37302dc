// request_fuzz.cpp - the daemon's way from a message to a reply: the decoder, the handlers over a
// registry of three containers, the marshalling of what they say.
#include "fuzz_input.hpp"
#include "memory_file.hpp"
#include "queue_stub.hpp"

#include "fake_registry.hpp"
#include "zncContainerLib.hpp"
#include "zncRuntimeService.hpp"

#include <algorithm>
#include <cstring>

namespace {

using fuzz::require;

constexpr char kConfiguration[] =
    R"({"ociVersion":"1.0.0","hostname":"Zarnel","process":{"args":["/bin/app","x"],"env":["A=1"],)"
    R"("cwd":"/"},"mounts":[{"destination":"/data","source":"/srv","type":"bind","options":["ro"]}],)"
    R"("annotations":{"k":"v"},"root":{"path":"rootfs"}})";

// The container that has a configuration to show.
CONTAINER_CTX& context()
{
    static const fuzz::MemoryFile memory;
    static CONTAINER_CTX the = [] {
        CONTAINER_CTX ctx = {};
        ctx.pConfig = zncInitializeRuntimeSpec(memory.with(kConfiguration));
        require(ctx.pConfig != nullptr, "the example can be read");
        return ctx;
    }();
    return the;
}

void fill_registry()
{
    static char word[] = "/bin/app";
    static char* words[] = {word, nullptr};
    fake_registry::reset();
    fake_registry::add("web", STATE_RUNNING);
    fake_registry::add("a", STATE_CREATED);
    fake_registry::add("b", STATE_STOPPED);
    fake_registry::set_context("web", &context());
    fake_registry::set_start_parm(
        {"/bundle/rootfs/bin/app", 0, 100, 8192, 0, 7, "/", 0, words, 1, words, 1});
}

// All messages to `queue`, one behind the other.
std::string sent_to(const std::string& queue)
{
    std::string bytes;
    for (const queue_stub::Sent& sent : queue_stub::stub().sent)
        if (sent.queue == queue)
            bytes += sent.bytes;
    return bytes;
}

void check_reply(const zncMessage& request)
{
    const std::string bytes = sent_to(request.name);
    require(bytes.size() >= ZNC_MSG_HEADER_LEN, "a request that is served gets a reply");
    zncMessage head = {};
    std::memcpy(&head, bytes.data(), ZNC_MSG_HEADER_LEN);
    require(head.cmdId == request.cmdId, "a reply repeats the command");
    require(bytes.size() == ZNC_MSG_HEADER_LEN + std::size_t{head.dataLen},
            "a reply is as long as it says");
    const std::string text = bytes.substr(ZNC_MSG_HEADER_LEN);
    const znc::CJsonPtr root(cJSON_ParseWithLength(text.data(), text.size()));
    require(cJSON_IsNumber(cJSON_GetObjectItemCaseSensitive(root.get(), "errno")) != 0,
            "a reply has its number");
    require(cJSON_IsArray(cJSON_GetObjectItemCaseSensitive(root.get(), "body")) != 0,
            "a reply has its body");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    queue_stub::reset();
    zncMessage message;
    std::memset(&message, 0xff, sizeof message); // the request before may have left anything
    const std::size_t received = std::min(size, sizeof message);
    std::memcpy(&message, data, received);
    if (!znc::decode_request(&message, received)) {
        require(queue_stub::stub().open.empty(), "nothing is said about what is dropped");
        return 0;
    }
    require(message.dataLen + std::size_t{ZNC_MSG_HEADER_LEN} <= received,
            "a request has no more data than came with it");
    fill_registry();
    const zncMessage request = message;
    require(std::strlen(request.data) <= request.dataLen, "the data ends where it should");
    require(zncMessageProcess(&message) == OK, "a request is served");
    check_reply(request);
    queue_stub::check_closed();
    return 0;
}
