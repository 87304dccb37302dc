// zncRuntimeCSLib.hpp - the internals shared by clients and the daemon: capacities of the message
// queues, queue handles, and helpers that build parameter tables.
//
// Used by zncRuntimeClient, zncRuntimeService and zncRuntimeApi. The message format and the
// marshalling functions are public (zncprotocol.h).
#ifndef ZNCRUNTIMECSLIB_HPP
#define ZNCRUNTIMECSLIB_HPP

#include "base/not_copied.hpp"
#include "zarnel/msgq.h"
#include "zncOwned.hpp"
#include "zncprotocol.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace znc {

static_assert(sizeof(zncMessage) == ZNC_MSG_MAX_LEN);
static_assert(offsetof(zncMessage, name) == 0);
static_assert(offsetof(zncMessage, msgLvl) == 192);
static_assert(offsetof(zncMessage, cmdId) == 196);
static_assert(offsetof(zncMessage, dataLen) == 200);
static_assert(offsetof(zncMessage, data) == ZNC_MSG_HEADER_LEN);
static_assert(sizeof(zncData) >= sizeof(void*));

inline constexpr std::uint8_t kVerbosityDefault = 2;
inline constexpr std::size_t kReplyTextLimit = 65536; // a reply's text must be shorter than this

struct QueueShape {
    std::size_t maxMsgs;
    std::size_t maxMsgLen;
};
inline constexpr QueueShape kDaemonQueue{ZN_MSG_Q_LONGEST, ZNC_MSG_MAX_LEN};
inline constexpr QueueShape kReplyQueue{1, ZNC_MSG_MAX_LEN};
inline constexpr QueueShape kInfoQueue{20, 255};

// Owns a queue handle and closes it.
class UniqueQueue {
  public:
    UniqueQueue() noexcept = default;
    explicit UniqueQueue(MSG_Q_ID queue) noexcept : queue_(queue) {}
    UniqueQueue(UniqueQueue&& other) noexcept
        : queue_(std::exchange(other.queue_, ZN_MSG_Q_INVALID))
    {
    }
    UniqueQueue& operator=(UniqueQueue&&) = delete;
    ~UniqueQueue()
    {
        if (queue_ >= 0) {
            const ErrnoSaver keep;
            znMsgQClose(queue_);
        }
    }

    [[nodiscard]] MSG_Q_ID get() const noexcept { return queue_; }
    explicit operator bool() const noexcept { return queue_ >= 0; }

  private:
    MSG_Q_ID queue_ = ZN_MSG_Q_INVALID;
};

[[nodiscard]] inline UniqueQueue open_queue(const char* name, QueueShape shape,
                                            int options) noexcept
{
    return UniqueQueue(
        znMsgQOpen(name, shape.maxMsgs, shape.maxMsgLen, options, ZN_MSG_Q_OPEN_EXISTING));
}

// Creates a queue under a name that only this process uses for queues. An existing queue of that
// name was left by a process that died and had the same process id; it is removed first.
[[nodiscard]] inline MSG_Q_ID make_own_queue(const char* name, QueueShape shape) noexcept
{
    constexpr int kTries = 3;
    MSG_Q_ID queue = ZN_MSG_Q_INVALID;
    for (int n = 0; n < kTries; n++) {
        queue = znMsgQOpen(name, shape.maxMsgs, shape.maxMsgLen, ZN_MSG_Q_FIFO,
                           ZN_MSG_Q_CREATE_EXCLUSIVE);
        if (queue >= 0 || errno != EEXIST || znMsgQDiscard(name) != OK)
            break;
    }
    return queue;
}

// A queue created for one call. The destructor closes it and removes its name. `name` must outlive
// the object.
class PrivateQueue : znc::NotCopied {
  public:
    PrivateQueue(const char* name, QueueShape shape) noexcept
        : name_(name), queue_(make_own_queue(name, shape))
    {
    }
    ~PrivateQueue()
    {
        if (queue_ >= 0) {
            const ErrnoSaver keep;
            znMsgQClose(queue_);
            znMsgQUnlink(name_);
        }
    }

    [[nodiscard]] MSG_Q_ID get() const noexcept { return queue_; }
    explicit operator bool() const noexcept { return queue_ >= 0; }

  private:
    const char* name_;
    MSG_Q_ID queue_;
};

// The data of a message. A long reply is in a larger buffer: its data extends past the end of the
// structure's array.
inline char* message_data(zncMessage* message) noexcept
{
    return reinterpret_cast<char*>(message) + ZNC_MSG_HEADER_LEN;
}

// Parameter table entries. The table's pointers are not const, but nothing is written through them.
inline zncParam integer_param(const char* name, zncData value) noexcept
{
    return {INTEGER, const_cast<char*>(name), value, 0};
}
inline zncParam string_param(const char* name, const char* value) noexcept
{
    return {STRING, const_cast<char*>(name), reinterpret_cast<std::intptr_t>(value), 0};
}
inline zncParam strings_param(const char* name, char** values, std::int32_t count) noexcept
{
    return {STRING_ARRAY, const_cast<char*>(name), reinterpret_cast<std::intptr_t>(values), count};
}
inline zncParam object_param(const char* name, cJSON* item) noexcept
{
    return {OBJECT, const_cast<char*>(name), reinterpret_cast<std::intptr_t>(item), 0};
}

// An entry of a table that zncParamObjGet fills in, with its default value.
constexpr zncParam template_param(paramType type, const char* name, zncData value = 0) noexcept
{
    return {type, const_cast<char*>(name), value, 0};
}

template <class T> T* param_pointer(const zncParam& param) noexcept
{
    return reinterpret_cast<T*>(static_cast<std::intptr_t>(param.value));
}

// Reads the members of `root` into a copy of `defaults`, a table of numbers and strings. Missing
// keys keep their defaults; so do all entries from the first value of a wrong type on.
template <std::size_t N>
std::array<zncParam, N> read_params(cJSON* root, const std::array<zncParam, N>& defaults) noexcept
{
    std::array<zncParam, N> params = defaults;
    static_cast<void>(zncParamObjGet(root, params.data(), static_cast<unsigned>(N)));
    return params;
}

} // namespace znc

#endif
