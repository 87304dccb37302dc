// queue.cpp - the floor of a request: creates and removes a reply queue and an info queue and sends
// one message in each direction, with the sizes of the protocol. The server only answers. Prints
// the average time of a round in nanoseconds.
//
// usage: floor_queue CLIENTS ROUNDS
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mqueue.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kServer = "/znc-floor";
constexpr std::size_t kRequest = 2048;
constexpr std::size_t kReply = 320;

[[noreturn]] void die(const char* what)
{
    std::perror(what);
    std::exit(1);
}

mqd_t make(const char* name, long messages, long size)
{
    mq_attr attr = {};
    attr.mq_maxmsg = messages;
    attr.mq_msgsize = size;
    const mqd_t queue = ::mq_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attr);
    if (queue < 0)
        die(name);
    return queue;
}

[[noreturn]] void serve(mqd_t requests)
{
    char message[kRequest];
    for (;;) {
        if (::mq_receive(requests, message, sizeof message, nullptr) < 0)
            die("receive");
        const mqd_t reply = ::mq_open(message, O_WRONLY | O_CLOEXEC);
        if (reply < 0 || ::mq_send(reply, message, kReply, 0) != 0)
            die(message);
        ::mq_close(reply);
    }
}

void ask(mqd_t server, const char* name, const char* info)
{
    char message[kRequest] = {};
    std::strcpy(message, name);
    const mqd_t replies = make(name, 1, kRequest);
    const mqd_t infos = make(info, 20, 255);
    if (::mq_send(server, message, sizeof message, 0) != 0 ||
        ::mq_receive(replies, message, sizeof message, nullptr) < 0)
        die(name);
    ::mq_close(infos);
    ::mq_unlink(info);
    ::mq_close(replies);
    ::mq_unlink(name);
}

void client(int rounds)
{
    const std::string name = std::string(kServer) + "-" + std::to_string(::getpid());
    const std::string info = name + "-info";
    for (int i = 0; i < rounds; i++) {
        const mqd_t server = ::mq_open(kServer, O_WRONLY | O_CLOEXEC);
        ask(server, name.c_str(), info.c_str());
        ::mq_close(server);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int clients = argc == 3 ? std::atoi(argv[1]) : 0;
    const int rounds = argc == 3 ? std::atoi(argv[2]) : 0;
    if (clients < 1 || rounds < 1) {
        std::fputs("usage: floor_queue CLIENTS ROUNDS\n", stderr);
        return 64;
    }
    ::mq_unlink(kServer);
    const mqd_t requests = make(kServer, 32, kRequest);
    const pid_t server = ::fork();
    if (server == 0)
        serve(requests);
    const auto start = std::chrono::steady_clock::now();
    std::vector<pid_t> pids;
    for (int i = 0; i < clients; i++)
        if (pids.push_back(::fork()); pids.back() == 0) {
            client(rounds);
            ::_exit(0);
        }
    bool good = true;
    for (const pid_t pid : pids) {
        int status = 0;
        good = ::waitpid(pid, &status, 0) == pid && status == 0 && good;
    }
    const std::chrono::nanoseconds spent = std::chrono::steady_clock::now() - start;
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
    ::mq_unlink(kServer);
    std::printf("%lld\n", static_cast<long long>(spent.count() / (clients * rounds)));
    return good ? 0 : 1;
}
