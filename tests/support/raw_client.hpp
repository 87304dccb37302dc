// raw_client.hpp - requests sent without the library's client: for tests that violate the protocol,
// and their reply queues.
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

// Owns a queue; removes its name if this object created it.
class Queue {
  public:
    // Opens an existing queue.
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
    // Receives a message; returns "" after the timeout.
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

// Returns a reply queue name in the form used by the library, different from those of other calls
// of this process.
inline std::string reply_name(unsigned long number)
{
    return ZNC_MSG_Q_NAME "-u-" + std::to_string(::getpid()) + "-" +
           std::to_string(1000000000UL + number);
}

// One request, with access to its reply queue.
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

    // Returns the text of the whole reply; `between` runs before each piece. Returns "" if a piece
    // does not arrive.
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

    // Returns the piece of the reply that has arrived, if any.
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
