// running_daemon.hpp - runs the real daemon task on a thread of the test, and ends it with a stop
// request.
#ifndef RUNNING_DAEMON_HPP
#define RUNNING_DAEMON_HPP

#include "eventually.hpp"
#include "zarnel/task.h"
#include "zncprotocol.h"

#include <atomic>
#include <cerrno>
#include <pthread.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

class RunningDaemon {
  public:
    // Returns as soon as requests are answered.
    RunningDaemon() : stop_(eventfd(0, EFD_CLOEXEC))
    {
        thread_ = std::thread([this] {
            znTaskStopFdSet(stop_);
            status_ = zncDaemonTask();
            errorNumber_ = errno;
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &cancelState_);
            ended_ = true;
        });
        if (!eventually([this] { return ended_ || zncDaemonIsAlive() == TRUE; }) || ended_) {
            stop();
            throw std::runtime_error("the daemon task does not serve");
        }
    }
    ~RunningDaemon() { stop(); }
    RunningDaemon(const RunningDaemon&) = delete;
    RunningDaemon& operator=(const RunningDaemon&) = delete;

    void stop()
    {
        if (!thread_.joinable())
            return;
        eventfd_write(stop_, 1);
        thread_.join();
        close(stop_);
    }

    // The result of the daemon task, valid after it has stopped.
    [[nodiscard]] STATUS status() const { return status_; }
    [[nodiscard]] int error_number() const { return errorNumber_; }
    [[nodiscard]] int cancel_state_after() const { return cancelState_; }

  private:
    int stop_;
    STATUS status_ = OK;
    int errorNumber_ = 0;
    int cancelState_ = -1;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

#endif
