// zncRuntimeClient.cpp - one call to the daemon: sends the request, receives the reply and the
// progress texts.
//
// Every call creates a reply queue and an info queue of its own before it sends the request, and
// removes them before it returns. A late reply therefore finds no queue and cannot be taken for the
// reply to another call.
#include "zncRuntimeClient.hpp"

#include "base/failure.hpp"
#include "zarnel/fs.h"
#include "zarnel/task.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int kReplyTimeoutSeconds = 5;

std::atomic<std::uint64_t> msgQId{0};

// The text of a request; null with errno ENOMEM on any failure.
znc::CJsonText request_text(zncParam* param, int count)
{
    const znc::CJsonPtr object(zncParamObjInit(param, count));
    znc::CJsonText text(object != nullptr ? cJSON_PrintUnformatted(object.get()) : nullptr);
    if (text == nullptr)
        errno = ENOMEM;
    return text;
}

// A request without its queue name and verbosity; null with errno ENOMEM if there is no memory or
// the text does not fit into one message.
znc::MallocPtr<zncMessage> make_request(int cmdId, const char* text)
{
    auto request = znc::malloc_zeroed<zncMessage>();
    const std::size_t len = ::strnlen(text, ZNC_MSG_DATA_LIMIT);
    if (request == nullptr || len >= ZNC_MSG_DATA_LIMIT)
        return znc::fail(ENOMEM, nullptr);
    request->cmdId = cmdId;
    request->dataLen = static_cast<std::uint32_t>(len);
    std::memcpy(request->data, text, len);
    return request;
}

void name_reply_queue(zncMessage& request, const char* daemonQueue)
{
    const auto pid = static_cast<unsigned long>(::getpid());
    const auto id = static_cast<unsigned long>(znAtomic64Inc(&msgQId));
    static_cast<void>(
        std::snprintf(request.name, sizeof request.name, "%s-u-%lu-%lu", daemonQueue, pid, id));
}

// The progress level requested in the environment. Only the low 8 bits are sent; the daemon
// interprets them.
std::uint8_t wanted_verbosity()
{
    char value[256];
    if (znEnvGet("ZNC_VERBOSE", value, sizeof value) < 0)
        return znc::kVerbosityDefault;
    return static_cast<std::uint8_t>(std::strtoul(value, nullptr, 10));
}

// Gives the caller a copy of the reply's text.
bool hand_out_text(zncMessage* reply, char** ppResp)
{
    const std::size_t len = reply->dataLen;
    auto text = znc::malloc_array<char>(len + 1);
    if (text == nullptr)
        return false;
    std::memcpy(text.get(), znc::message_data(reply), len);
    *ppResp = text.release();
    return true;
}

// Sends the request, which lacks only its verbosity, and receives the reply.
STATUS exchange(const char* daemonQueue, zncMessage& request, char** ppResp)
{
    const znc::UniqueQueue daemon = znc::open_queue(daemonQueue, znc::kDaemonQueue, ZN_MSG_Q_FIFO);
    if (!daemon)
        return znc::fail(S_zncLib_DAEMON_NOT_RUNNING);
    const znc::PrivateQueue replies(request.name, znc::kReplyQueue);
    if (!replies)
        return znc::fail(0);
    char infoName[ZNC_MSG_NAME_LEN];
    char* end = infoName + sizeof infoName;
    znc::copy_end(znc::copy_end(infoName, end, request.name), end, "_info");
    const znc::PrivateQueue infos(infoName, znc::kInfoQueue);
    if (!infos)
        return znc::fail(0);

    request.msgLvl = wanted_verbosity();
    if (znMsgQSend(daemon.get(), &request, sizeof request, ZN_WAIT_FOREVER, ZN_MSG_PRI_NORMAL) !=
        OK)
        return znc::fail(0);
    const auto reply = zncMessageRecv(replies.get(), kReplyTimeoutSeconds * znSysClkRateGet());
    if (reply == nullptr)
        return znc::fail(0);
    znc::message_data(reply.get())[reply->dataLen] = '\0';
    if (ppResp != nullptr && !hand_out_text(reply.get(), ppResp))
        return ERROR;
    zncMessagesPrint(infos.get());
    return OK;
}

} // namespace

std::uint64_t znAtomic64Inc(std::atomic<std::uint64_t>* target)
{
    return target->fetch_add(1, std::memory_order_seq_cst);
}

znc::MallocPtr<zncMessage> zncMessageRecv(MSG_Q_ID handle, int timeout)
{
    // One more byte than a message, for the NUL that the caller appends.
    auto first = znc::malloc_array<char>(ZNC_MSG_MAX_LEN + 1);
    if (first == nullptr)
        return nullptr;
    const ssize_t len = znMsgQReceive(handle, first.get(), ZNC_MSG_MAX_LEN, timeout);
    if (len < ZNC_MSG_HEADER_LEN)
        return nullptr;
    znc::MallocPtr<zncMessage> reply(reinterpret_cast<zncMessage*>(first.release()));
    if (reply->dataLen >= znc::kReplyTextLimit)
        return nullptr;
    const std::size_t total = ZNC_MSG_HEADER_LEN + std::size_t{reply->dataLen};
    auto received = static_cast<std::size_t>(len);
    if (received >= total)
        return reply;

    auto* grown = static_cast<char*>(std::realloc(reply.get(), total + 1));
    if (grown == nullptr)
        return nullptr;
    static_cast<void>(reply.release());
    reply.reset(reinterpret_cast<zncMessage*>(grown));
    std::memset(grown + received, 0, total + 1 - received);
    while (received < total) {
        const ssize_t piece = znMsgQReceive(handle, grown + received, total - received, timeout);
        if (piece <= 0)
            break;
        received += static_cast<std::size_t>(piece);
    }
    return reply;
}

void zncMessagesPrint(MSG_Q_ID clientInfoQ)
{
    if (clientInfoQ < 0)
        return;
    char text[256];
    ssize_t len = 0;
    while ((len = znMsgQReceive(clientInfoQ, text, sizeof text - 1, ZN_NO_WAIT)) >= 0) {
        text[len] = '\0';
        std::printf("%s.\n", text);
    }
}

STATUS zncCallQ(const char* msgQHandle, int cmdId, zncParam* param, int count, char** ppResp)
{
    const znc::CJsonText text = request_text(param, count);
    if (text == nullptr)
        return ERROR;
    const auto request = make_request(cmdId, text.get());
    if (request == nullptr)
        return ERROR;
    name_reply_queue(*request, msgQHandle);
    return exchange(msgQHandle, *request, ppResp);
}

STATUS zncCall(int cmdId, zncParam* param, int count, char** ppResp)
{
    return zncCallQ(ZNC_MSG_Q_NAME, cmdId, param, count, ppResp);
}

STATUS zncResponseCheck(cJSON* root, int* errCode, cJSON** body)
{
    static constexpr std::array kReply = {znc::template_param(INTEGER, "errno", -1),
                                          znc::template_param(OBJECT, "body")};
    std::array<zncParam, kReply.size()> params = kReply;
    const bool isReply = zncParamObjGet(root, params.data(), params.size()) == OK;
    const int number = isReply ? static_cast<int>(params[0].value) : EINVAL;
    if (errCode != nullptr)
        *errCode = number;
    if (body != nullptr)
        *body = isReply ? znc::param_pointer<cJSON>(params[1]) : nullptr;
    return number == 0 ? OK : ERROR;
}
