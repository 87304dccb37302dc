// raw_client.hpp - requests without the library's client: what a test that keeps no rules sends to
// the daemon, and the queues it gets its answers on.
#ifndef RAW_CLIENT_HPP
#define RAW_CLIENT_HPP

#include "zarnel/msgq.h"
#include "zarnel/task.h"
#include "zncprotocol.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>

namespace raw_client {

inline zncMessage request_of(int cmdId, const std::string& json, const std::string& name)
{
    zncMessage message = {};
    std::memcpy(message.name, name.data(), std::min(name.size(), sizeof message.name));
    message.msgLvl = 2;
    message.cmdId = cmdId;
    message.dataLen = static_cast<std::uint32_t>(json.size());
    std::memcpy(message.data, json.data(), std::min(json.size(), sizeof message.data));
    return message;
}

// A queue as an owner; the name goes with it if this made it.
class Queue {
  public:
    // An existing one.
    explicit Queue(const std::string& name)
        : queue_(znMsgQOpen(name.c_str(), 0, 0, 0, ZN_MSG_Q_OPEN_EXISTING))
    {
        check(name);
    }
    Queue(std::string name, std::size_t messages, std::size_t length)
        : made_(std::move(name)),
          queue_(znMsgQOpen(made_.c_str(), messages, length, 0, ZN_MSG_Q_CREATE_EXCLUSIVE))
    {
        check(made_);
    }
    ~Queue()
    {
        znMsgQClose(queue_);
        if (!made_.empty())
            znMsgQUnlink(made_.c_str());
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    [[nodiscard]] MSG_Q_ID get() const { return queue_; }
    bool send(const void* bytes, std::size_t length, int timeout = ZN_WAIT_FOREVER) const
    {
        return znMsgQSend(queue_, bytes, length, timeout, ZN_MSG_PRI_NORMAL) == OK;
    }
    // One message; empty if none comes in time.
    [[nodiscard]] std::string receive(int timeout) const
    {
        std::string bytes(ZNC_MSG_MAX_LEN, '\0');
        const ssize_t len = znMsgQReceive(queue_, bytes.data(), bytes.size(), timeout);
        bytes.resize(len > 0 ? static_cast<std::size_t>(len) : 0);
        return bytes;
    }

  private:
    void check(const std::string& name) const
    {
        if (queue_ < 0)
            throw std::runtime_error(name + ": " + std::strerror(errno));
    }

    std::string made_;
    MSG_Q_ID queue_;
};

// A reply queue's name like those of the library's clients, of no other call of this process.
inline std::string reply_name(unsigned long number)
{
    return ZNC_MSG_Q_NAME "-u-" + std::to_string(::getpid()) + "-" +
           std::to_string(1000000000UL + number);
}

// One request under the eyes of the test.
class Call {
  public:
    explicit Call(unsigned long number)
        : name_(reply_name(number)), reply_(name_, 1, ZNC_MSG_MAX_LEN),
          info_(name_ + "_info", 20, 255), daemon_(ZNC_MSG_Q_NAME)
    {
    }

    void send(int cmdId, const std::string& json) const
    {
        const zncMessage message = request_of(cmdId, json, name_);
        daemon_.send(&message, sizeof message);
    }

    // The whole reply's text; `between` runs before each piece. Empty if a piece does not come.
    template <class F> std::string reply(F between) const
    {
        between();
        std::string all = reply_.receive(seconds(10));
        if (all.size() < ZNC_MSG_HEADER_LEN)
            return {};
        std::uint32_t length = 0;
        std::memcpy(&length, all.data() + offsetof(zncMessage, dataLen), sizeof length);
        while (all.size() < ZNC_MSG_HEADER_LEN + length) {
            between();
            const std::string piece = reply_.receive(seconds(10));
            if (piece.empty())
                return {};
            all += piece;
        }
        return all.substr(ZNC_MSG_HEADER_LEN);
    }

    // What is there of a reply.
    [[nodiscard]] std::string reply_now() const { return reply_.receive(ZN_NO_WAIT); }

  private:
    static int seconds(int number) { return number * znSysClkRateGet(); }

    std::string name_;
    Queue reply_;
    Queue info_;
    Queue daemon_;
};

} // namespace raw_client

#endif
