// embed.cpp - a program with a container daemon in it: it serves any client until SIGTERM or
// SIGINT, then ends all containers. It does what zncd does in few lines, without clearing away
// what a daemon that was killed has left. As root:
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

// Owns the daemon task and the name of its queue. There is one per machine.
class Daemon {
  public:
    Daemon()
    {
        mq_unlink(ZNC_MSG_Q_NAME); // one that died has left its queue
        // The task ends with the process: nothing stops it in the middle of a request before.
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

    // By requests, like any client: a running container is known to the daemon task alone.
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
    // Before any other thread is there, so that all of them leave the signals to sigwait.
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
        std::fputs("embed: the daemon task does not answer\n", stderr);
        return 1;
    }
    std::puts("serving");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stop, &signal);
    return daemon.end_all() ? 0 : 1;
}
