// queue_receive.cpp - see queue_receive.hpp.
#include "queue_receive.hpp"

#include "base/owned.hpp"

#include <cstring>

namespace {

constexpr size_t kUsualMessageSize = 4096;

// mq_receive requires a buffer of the queue's message size; a shorter one is filled through a
// temporary buffer.
ssize_t receive_truncated(mqd_t queue, void* buf, size_t maxLen)
{
    struct mq_attr attr;
    if (mq_getattr(queue, &attr) != 0)
        return -1;
    const size_t size = static_cast<size_t>(attr.mq_msgsize);
    char stackBuffer[kUsualMessageSize]; // no allocation for ordinary message sizes
    znc::MallocPtr<char[]> heapBuffer;
    if (size > sizeof stackBuffer && !(heapBuffer = znc::malloc_array<char>(size)))
        return -1;
    char* const whole = heapBuffer ? heapBuffer.get() : stackBuffer;
    const ssize_t got = mq_receive(queue, whole, size, nullptr);
    if (got <= 0)
        return got;
    const size_t len = static_cast<size_t>(got) < maxLen ? static_cast<size_t>(got) : maxLen;
    if (len != 0)
        memcpy(buf, whole, len);
    return static_cast<ssize_t>(len);
}

} // namespace

ssize_t zn::queue_receive(mqd_t queue, void* buf, size_t maxLen)
{
    if (buf == nullptr)
        return receive_truncated(queue, nullptr, 0);
    const ssize_t got = mq_receive(queue, static_cast<char*>(buf), maxLen, nullptr);
    return got < 0 && errno == EMSGSIZE ? receive_truncated(queue, buf, maxLen) : got;
}
