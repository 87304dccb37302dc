// other_queue.hpp - a queue that was not created by the client library, removed at the end of the
// test.
#ifndef OTHER_QUEUE_HPP
#define OTHER_QUEUE_HPP

#include "zarnel/msgq.h"
#include "zarnel/task.h"
#include "zncprotocol.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>

class OtherQueue {
  public:
    explicit OtherQueue(std::string name, std::size_t maxMsgs = 1)
        : name_(std::move(name)),
          queue_(znMsgQOpen(name_.c_str(), maxMsgs, ZNC_MSG_MAX_LEN, 0, ZN_MSG_Q_CREATE_EXCLUSIVE))
    {
        EXPECT_GE(queue_, 0) << name_ << ": " << strerror(errno);
    }
    ~OtherQueue()
    {
        znMsgQClose(queue_);
        znMsgQUnlink(name_.c_str());
    }
    OtherQueue(const OtherQueue&) = delete;
    OtherQueue& operator=(const OtherQueue&) = delete;
    [[nodiscard]] MSG_Q_ID get() const { return queue_; }
    [[nodiscard]] const std::string& name() const { return name_; }

    void put(const std::string& bytes) const
    {
        EXPECT_EQ(znMsgQSend(queue_, bytes.data(), bytes.size(), 100 * znSysClkRateGet(), 0), OK);
    }

  private:
    std::string name_;
    MSG_Q_ID queue_;
};

#endif
