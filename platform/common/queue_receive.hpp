// queue_receive.hpp - receives one message of a POSIX queue, as znMsgQReceive does.
#ifndef ZN_PLATFORM_QUEUE_RECEIVE_HPP
#define ZN_PLATFORM_QUEUE_RECEIVE_HPP

#include <cstddef>
#include <mqueue.h>
#include <sys/types.h>

namespace zn {

// What exceeds `maxLen` bytes is discarded. Returns the number of bytes copied, or -1 with the
// error of mq_receive or ENOMEM.
ssize_t queue_receive(mqd_t queue, void* buf, std::size_t maxLen);

} // namespace zn

#endif
