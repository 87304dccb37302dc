// fake_daemon.hpp - a daemon whose answers the test writes, on the real daemon queue of the
// sandbox.
//
// For tests of the client's side. It notes every request, then runs the test's handler, which may
// reply with the functions below. Left out: any sense of what a request means.
#ifndef FAKE_DAEMON_HPP
#define FAKE_DAEMON_HPP

#include "zarnel/msgq.h"
#include "zncprotocol.h"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fake_daemon {

using Handler = std::function<void(const zncMessage&)>;

struct Request {
    zncMessage message;
    std::size_t length; // of the queue message it came in
};

class FakeDaemon {
  public:
    // `maxMsgLen` below 2048 makes a queue that takes no request.
    explicit FakeDaemon(Handler handler, std::size_t maxMsgLen = ZNC_MSG_MAX_LEN);
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    // What has come in so far, waiting until that is at least `atLeast` requests; throws if they do
    // not come.
    std::vector<Request> requests(std::size_t atLeast = 0);

  private:
    void serve();

    Handler handler_;
    MSG_Q_ID queue_;
    int stop_;
    std::mutex mutex_;
    std::condition_variable grown_;
    std::vector<Request> requests_;
    std::thread thread_; // last: it uses all of the above
};

std::string text_of(const zncMessage& request);

// A handler that answers everything with this JSON text.
Handler answering(std::string json);

// A handler that answers each request with the next of these texts, then with the last one.
Handler answering_in_turn(std::vector<std::string> texts);

// A whole reply as bytes: header and text.
std::string reply_bytes(const zncMessage& request, const std::string& json);

// Send a reply to its client, in pieces.
void reply(const zncMessage& request, const std::string& json);

// Send bytes to a queue, as messages of at most 2048 bytes. False if there is no such queue.
bool send_bytes(const std::string& queue, const std::string& bytes);

// Post a progress text, with its NUL, to the client of a request.
void post_info(const zncMessage& request, const std::string& text);

// The names of all queues of this IPC namespace, without the slash, sorted.
std::vector<std::string> queue_names();

} // namespace fake_daemon

#endif
