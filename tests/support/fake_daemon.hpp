// fake_daemon.hpp - a daemon whose replies are written by the test, on the real daemon queue of the
// sandbox.
//
// For tests of the client side. It records every request and runs the test's handler, which may
// reply with the functions below. It does not interpret requests.
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
    std::size_t length; // of the queue message that contained it
};

class FakeDaemon {
  public:
    // With `maxMsgLen` below 2048 the queue accepts no requests.
    explicit FakeDaemon(Handler handler, std::size_t maxMsgLen = ZNC_MSG_MAX_LEN);
    ~FakeDaemon();
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    // Returns the requests received so far, after waiting for at least `atLeast` of them; throws if
    // they do not arrive.
    std::vector<Request> requests(std::size_t atLeast = 0);

  private:
    void serve();

    Handler handler_;
    MSG_Q_ID queue_;
    int stop_;
    std::mutex mutex_;
    std::condition_variable grown_;
    std::vector<Request> requests_;
    std::thread thread_; // must be last: the thread uses all members above
};

std::string text_of(const zncMessage& request);

// A handler that answers every request with this JSON text.
Handler answering(std::string json);

// A handler that answers each request with the next of these texts, then with the last one.
Handler answering_in_turn(std::vector<std::string> texts);

// Returns the bytes of a complete reply: header and text.
std::string reply_bytes(const zncMessage& request, const std::string& json);

// Sends a reply to the client, in pieces.
void reply(const zncMessage& request, const std::string& json);

// Sends bytes to a queue, as messages of at most 2048 bytes. Returns false if there is no such
// queue.
bool send_bytes(const std::string& queue, const std::string& bytes);

// Posts a progress text, including its NUL, to the client of a request.
void post_info(const zncMessage& request, const std::string& text);

// Returns the names of all queues of this IPC namespace, without the slash, sorted.
std::vector<std::string> queue_names();

} // namespace fake_daemon

#endif
