#include "fake_daemon.hpp"

#include "zarnel/task.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fake_daemon {

namespace {
constexpr std::chrono::minutes kLongest(1);
}

FakeDaemon::FakeDaemon(Handler handler, std::size_t maxMsgLen)
    : handler_(std::move(handler)),
      queue_(znMsgQOpen(ZNC_MSG_Q_NAME, 32, maxMsgLen, 1, ZN_MSG_Q_CREATE_EXCLUSIVE)),
      stop_(eventfd(0, EFD_CLOEXEC))
{
    if (queue_ < 0 || stop_ < 0)
        throw std::runtime_error(std::string("fake daemon: ") + std::strerror(errno));
    thread_ = std::thread([this] { serve(); });
}

FakeDaemon::~FakeDaemon()
{
    eventfd_write(stop_, 1);
    thread_.join();
    znMsgQClose(queue_);
    znMsgQUnlink(ZNC_MSG_Q_NAME);
    close(stop_);
}

std::vector<Request> FakeDaemon::requests(std::size_t atLeast)
{
    std::unique_lock lock(mutex_);
    if (!grown_.wait_for(lock, kLongest, [&] { return requests_.size() >= atLeast; }))
        throw std::runtime_error("a request did not come");
    return requests_;
}

void FakeDaemon::serve()
{
    znTaskStopFdSet(stop_);
    zncMessage message;
    for (;;) {
        const ssize_t len = znMsgQReceive(queue_, &message, sizeof message, ZN_WAIT_FOREVER);
        if (len < 0)
            return;
        {
            const std::lock_guard lock(mutex_);
            requests_.push_back({message, static_cast<std::size_t>(len)});
        }
        grown_.notify_all();
        handler_(message);
    }
}

std::string text_of(const zncMessage& request)
{
    return std::string(request.data, std::min<std::size_t>(request.dataLen, sizeof request.data));
}

Handler answering(std::string json)
{
    return [json = std::move(json)](const zncMessage& request) { reply(request, json); };
}

Handler answering_in_turn(std::vector<std::string> texts)
{
    auto next = std::make_shared<std::size_t>(0);
    return [texts = std::move(texts), next](const zncMessage& request) {
        reply(request, texts[std::min(*next, texts.size() - 1)]);
        ++*next;
    };
}

std::string reply_bytes(const zncMessage& request, const std::string& json)
{
    zncMessage header = {};
    std::memcpy(header.name, request.name, sizeof header.name);
    header.cmdId = request.cmdId;
    header.dataLen = static_cast<std::uint32_t>(json.size());
    return std::string(reinterpret_cast<const char*>(&header), ZNC_MSG_HEADER_LEN) + json;
}

void reply(const zncMessage& request, const std::string& json)
{
    send_bytes(request.name, reply_bytes(request, json));
}

bool send_bytes(const std::string& queue, const std::string& bytes)
{
    const MSG_Q_ID q = znMsgQOpen(queue.c_str(), 0, 0, 0, ZN_MSG_Q_OPEN_EXISTING);
    if (q < 0)
        return false;
    bool sent = true;
    for (std::size_t at = 0; at < bytes.size() && sent; at += ZNC_MSG_MAX_LEN) {
        const std::size_t piece = std::min<std::size_t>(bytes.size() - at, ZNC_MSG_MAX_LEN);
        sent = znMsgQSend(q, bytes.data() + at, piece, 10 * znSysClkRateGet(), 0) == OK;
    }
    znMsgQClose(q);
    return sent;
}

void post_info(const zncMessage& request, const std::string& text)
{
    const std::string name = std::string(request.name) + "_info";
    const MSG_Q_ID q = znMsgQOpen(name.c_str(), 0, 0, 0, ZN_MSG_Q_OPEN_EXISTING);
    if (q < 0)
        return;
    znMsgQSend(q, text.c_str(), text.size() + 1, ZN_NO_WAIT, 0);
    znMsgQClose(q);
}

std::vector<std::string> queue_names()
{
    // The mount disappears with the test, because the sandbox has its own /tmp.
    const char* place = "/tmp/queues";
    if (mkdir(place, 0700) == 0 && mount("mqueue", place, "mqueue", MS_NOSUID, nullptr) != 0)
        throw std::runtime_error(std::string("mount mqueue: ") + std::strerror(errno));
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(place))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace fake_daemon
