// service_client.hpp - a client of the daemon's request processing, played by the test: its queues,
// its messages, and the fixture for tests with the fake registry.
#ifndef SERVICE_CLIENT_HPP
#define SERVICE_CLIENT_HPP

#include "fake_daemon.hpp"
#include "fake_registry.hpp"
#include "raw_client.hpp"
#include "zncRuntimeService.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace service_client {

inline const std::string kReplyName = "/znc-u-1-1";
inline const std::string kSuccess = R"({"errno":0,"body":[]})";

inline zncMessage request_of(int cmdId, const std::string& json,
                             const std::string& name = kReplyName)
{
    return raw_client::request_of(cmdId, json, name);
}

// A client's reply queue, with room for several pieces, and its info queue.
class ClientQueues {
  public:
    explicit ClientQueues(std::string name = kReplyName, std::size_t maxMsgs = 40)
        : name_(std::move(name)), info_(name_ + "_info"),
          reply_(znMsgQOpen(name_.c_str(), maxMsgs, ZNC_MSG_MAX_LEN, 0, ZN_MSG_Q_CREATE_EXCLUSIVE)),
          infos_(znMsgQOpen(info_.c_str(), 20, 255, 0, ZN_MSG_Q_CREATE_EXCLUSIVE))
    {
        EXPECT_GE(reply_, 0) << strerror(errno);
        EXPECT_GE(infos_, 0) << strerror(errno);
    }
    ~ClientQueues()
    {
        znMsgQClose(reply_);
        znMsgQClose(infos_);
        znMsgQUnlink(name_.c_str());
        znMsgQUnlink(info_.c_str());
    }
    ClientQueues(const ClientQueues&) = delete;
    ClientQueues& operator=(const ClientQueues&) = delete;

    // Returns all pieces that have arrived.
    std::vector<std::string> pieces(int timeout = ZN_NO_WAIT) { return drain(reply_, timeout); }
    std::vector<std::string> progress() { return drain(infos_, ZN_NO_WAIT); }

    // Returns the text of the only reply that has arrived, or "(none)".
    std::string reply_text(int timeout = ZN_NO_WAIT)
    {
        std::string all;
        for (const std::string& piece : pieces(timeout))
            all += piece;
        return all.size() < ZNC_MSG_HEADER_LEN ? "(none)" : all.substr(ZNC_MSG_HEADER_LEN);
    }
    void fill()
    {
        while (znMsgQSend(reply_, "x", 1, ZN_NO_WAIT, 0) == OK) {
        }
    }

  private:
    static std::vector<std::string> drain(MSG_Q_ID queue, int timeout)
    {
        std::vector<std::string> all;
        char buf[ZNC_MSG_MAX_LEN];
        ssize_t len = 0;
        while ((len = znMsgQReceive(queue, buf, sizeof buf, timeout)) >= 0) {
            all.emplace_back(buf, static_cast<std::size_t>(len));
            timeout = ZN_NO_WAIT;
        }
        return all;
    }

    std::string name_;
    std::string info_;
    MSG_Q_ID reply_;
    MSG_Q_ID infos_;
};

class Service : public testing::Test {
  protected:
    void SetUp() override
    {
        fake_registry::reset();
        zncMsgLvlSet(2);
    }
    void TearDown() override
    {
        fake_registry::reset();
        EXPECT_EQ(fake_daemon::queue_names(), std::vector<std::string>())
            << "a queue was left behind";
    }

    // Processes one request on this thread and returns the reply.
    static std::string answer(int cmdId, const std::string& json)
    {
        ClientQueues client;
        zncMessage message = request_of(cmdId, json);
        EXPECT_TRUE(znc::decode_request(&message, sizeof message));
        EXPECT_EQ(zncMessageProcess(&message), OK);
        return client.reply_text();
    }
    static fake_registry::Call last_call()
    {
        const auto calls = fake_registry::calls();
        return calls.empty() ? fake_registry::Call() : calls.back();
    }
};

} // namespace service_client

#endif
