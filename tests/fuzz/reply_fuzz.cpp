// reply_fuzz.cpp - the client's way from a daemon's messages to what its caller gets. The first
// byte chooses the call; when its highest bit is set the rest are messages, each with two bytes of
// length before it, else texts, one a line, each of which comes as a well-formed reply.
#include "fuzz_input.hpp"
#include "queue_stub.hpp"

#include "zarnel/spawn.h"
#include "zncRuntimeApi.hpp"
#include "zncRuntimeClient.hpp"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

using fuzz::require;

constexpr unsigned kRaw = 0x80;
constexpr std::size_t kMessagesMax = 64;

struct Free {
    void operator()(char* text) const { std::free(text); }
};
using Text = std::unique_ptr<char, Free>;

void queue_reply(std::string_view text)
{
    zncMessage head = {};
    head.dataLen = static_cast<std::uint32_t>(text.size());
    std::string bytes(reinterpret_cast<const char*>(&head), ZNC_MSG_HEADER_LEN);
    bytes += text;
    for (std::size_t at = 0; at < bytes.size(); at += ZNC_MSG_MAX_LEN)
        queue_stub::stub().replies.push_back(bytes.substr(at, ZNC_MSG_MAX_LEN));
}

void queue_messages(fuzz::Input& input, bool raw)
{
    for (std::size_t n = 0; n < kMessagesMax && !input.empty(); ++n) {
        if (raw) {
            const std::size_t length = input.two_bytes() % (ZNC_MSG_MAX_LEN + 1);
            queue_stub::stub().replies.emplace_back(input.bytes(length));
        } else {
            queue_reply(input.until('\n'));
        }
    }
    queue_stub::stub().infos.emplace_back(input.rest().substr(0, 255));
    queue_stub::stub().infos.emplace_back(255, '%');
}

// The receiver alone: all the bytes of a reply are there, and one more behind them.
void receive()
{
    const MSG_Q_ID queue = znMsgQOpen("/znc-u-1-1", 1, ZNC_MSG_MAX_LEN, 0, 0);
    while (!queue_stub::stub().replies.empty()) {
        const auto reply = zncMessageRecv(queue, 1);
        if (reply == nullptr)
            continue;
        require(reply->dataLen < znc::kReplyTextLimit, "a reply is no longer than one can be");
        unsigned sum = 0;
        for (std::uint32_t i = 0; i < reply->dataLen; ++i)
            sum += static_cast<unsigned char>(znc::message_data(reply.get())[i]);
        znc::message_data(reply.get())[reply->dataLen] = '\0';
        fuzz::use(sum);
    }
    znMsgQClose(queue);
}

void call(unsigned which)
{
    switch (which % 9) {
    case 0:
        receive();
        break;
    case 1:
        static_cast<void>(zncStart("web", ZNC_OPT_NO_WAIT));
        break;
    case 2:
        static_cast<void>(Text(zncState("web")));
        break;
    case 3: {
        const CONTAINER_STATUS status = zncStatusGet("web");
        require(status >= STATE_CREATING && status <= STATE_UNKNOWN, "a status is one of five");
        break;
    }
    case 4:
        static_cast<void>(Text(zncList()));
        break;
    case 5:
        static_cast<void>(Text(zncContainerInfoGet("web")));
        break;
    case 6:
        static_cast<void>(zncCreate("web", "/bundle", 0, nullptr));
        break;
    case 7:
        static_cast<void>(zncDaemonIsAlive());
        break;
    default:
        static_cast<void>(zncKill("web", 15, 0));
        static_cast<void>(zncDelete("web", 0));
    }
}

void quieten_output()
{
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    require(null >= 0 && dup2(null, STDOUT_FILENO) == STDOUT_FILENO, "output goes nowhere");
    close(null);
}

} // namespace

// Reads everything that it is given, and starts nothing.
extern "C" STATUS __wrap_znSpawn(pid_t* pid, const char* path, const znSpawnAttr* attr,
                                 char* const* argv, char* const* envp)
{
    std::size_t sum = std::strlen(path) + (attr->cwd != nullptr ? std::strlen(attr->cwd) : 0);
    for (; *argv != nullptr; ++argv)
        sum += std::strlen(*argv);
    for (; envp != nullptr && *envp != nullptr; ++envp)
        sum += std::strlen(*envp);
    fuzz::use(sum);
    *pid = static_cast<pid_t>(sum % 3);
    errno = ENOENT;
    return sum % 5 != 0 ? OK : ERROR;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool quiet = (quieten_output(), true);
    static_cast<void>(quiet);
    fuzz::Input input(data, size);
    const unsigned which = input.byte();
    queue_stub::reset();
    queue_messages(input, (which & kRaw) != 0);
    call(which & ~kRaw);
    queue_stub::check_closed();
    return 0;
}
