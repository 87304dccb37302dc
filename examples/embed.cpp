// embed.cpp - a program with an embedded container daemon: it serves clients until SIGTERM or
// SIGINT, then ends all containers. It is a minimal zncd, without the cleanup after a daemon that
// was killed. Run it as root:
//
//     c++ -std=c++17 -o embed embed.cpp $(pkg-config --cflags --libs zncontainer) -pthread
//     ./embed & zncctl list
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <mqueue.h>
#include <thread>
#include <zncprotocol.h>

namespace {

// Owns the daemon thread and the name of its queue. Only one daemon can run per machine.
class Daemon {
  public:
    Daemon()
    {
        mq_unlink(ZNC_MSG_Q_NAME); // a daemon that died leaves its queue behind
        // The thread ends with the process; nothing stops it in the middle of a request before.
        std::thread([] { zncDaemonTask(); }).detach();
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon() { mq_unlink(ZNC_MSG_Q_NAME); }

    bool answers() const
    {
        using namespace std::chrono_literals;
        for (int i = 0; i < 500 && zncDaemonIsAlive() == FALSE; i++)
            std::this_thread::sleep_for(10ms);
        return zncDaemonIsAlive() != FALSE;
    }

    // Sends requests, like any client: only the daemon thread can access running containers.
    bool end_all() const
    {
        bool all = true;
        std::array<char, 256> id{};
        while (zncContainerNext(id.data()) != FALSE)
            all = zncDelete(id.data(), ZNC_OPT_WHOLE_NAMESPACE) == OK && all;
        return all;
    }
};

} // namespace

int main()
{
    // Block the signals before any other thread is created, so that only sigwait receives them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    if (zncDaemonIsAlive() != FALSE) {
        std::fputs("embed: a daemon is running already\n", stderr);
        return 1;
    }
    const Daemon daemon;
    if (!daemon.answers()) {
        std::fputs("embed: the daemon does not answer\n", stderr);
        return 1;
    }
    std::puts("serving");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
    return daemon.end_all() ? 0 : 1;
}
