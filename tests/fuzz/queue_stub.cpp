#include "queue_stub.hpp"

#include "fuzz_input.hpp"

#include "zncRuntimeService.hpp"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kFirstHandle = 1000;
constexpr std::string_view kInfoSuffix = "_info";

bool is_info(std::string_view name)
{
    return name.ends_with(kInfoSuffix);
}

// The queues of this system that programs have any business with.
bool may_be_opened(std::string_view name)
{
    if (name == ZNC_MSG_Q_NAME)
        return true;
    if (is_info(name))
        name.remove_suffix(kInfoSuffix.size());
    return znc::is_client_queue_name(name);
}

const std::string& name_of(MSG_Q_ID queue)
{
    const auto index = static_cast<std::size_t>(queue - kFirstHandle);
    fuzz::require(queue >= kFirstHandle && index < queue_stub::stub().open.size() &&
                      !queue_stub::stub().open[index].empty(),
                  "only open queues are used");
    return queue_stub::stub().open[index];
}

} // namespace

namespace queue_stub {

Stub& stub()
{
    static Stub the;
    return the;
}

void reset()
{
    stub() = Stub();
}

void check_closed()
{
    for (const std::string& name : stub().open)
        fuzz::require(name.empty(), "every queue is closed");
}

} // namespace queue_stub

MSG_Q_ID znMsgQOpen(const char* name, size_t, size_t, int, int)
{
    fuzz::require(name != nullptr && may_be_opened(name), "no queue of others is opened");
    queue_stub::stub().open.emplace_back(name);
    return kFirstHandle + static_cast<int>(queue_stub::stub().open.size()) - 1;
}

STATUS znMsgQSend(MSG_Q_ID q, const void* msg, size_t len, int, int)
{
    fuzz::require(len <= ZNC_MSG_MAX_LEN, "a message fits in its queue");
    queue_stub::stub().sent.push_back({name_of(q), {static_cast<const char*>(msg), len}});
    return OK;
}

ssize_t znMsgQReceive(MSG_Q_ID q, void* buf, size_t maxLen, int timeout)
{
    const bool info = is_info(name_of(q));
    std::deque<std::string>& waiting = info ? queue_stub::stub().infos : queue_stub::stub().replies;
    if (waiting.empty()) {
        errno = timeout == ZN_NO_WAIT ? EAGAIN : ETIMEDOUT;
        return -1;
    }
    const std::string message = waiting.front();
    waiting.pop_front();
    const std::size_t len = std::min(message.size(), maxLen);
    std::memcpy(buf, message.data(), len);
    return static_cast<ssize_t>(len);
}

BOOL znMsgQEmpty(MSG_Q_ID q)
{
    return (is_info(name_of(q)) ? queue_stub::stub().infos : queue_stub::stub().replies).empty()
               ? TRUE
               : FALSE;
}

MSG_Q_ID znMsgQTakeOver(const char*, size_t, size_t)
{
    fuzz::require(false, "no queue is taken over");
    return ZN_MSG_Q_INVALID;
}

STATUS znMsgQClose(MSG_Q_ID q)
{
    static_cast<void>(name_of(q));
    queue_stub::stub().open[static_cast<std::size_t>(q - kFirstHandle)].clear();
    return OK;
}

STATUS znMsgQUnlink(const char* name)
{
    fuzz::require(may_be_opened(name), "no queue of others is removed");
    return OK;
}
