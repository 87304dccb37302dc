// daemon_process.hpp - starts and stops a real zncd for system tests.
#ifndef DAEMON_PROCESS_HPP
#define DAEMON_PROCESS_HPP

#include <cstddef>
#include <string>
#include <sys/types.h>

class DaemonProcess {
  public:
    // Starts zncd (the program that the environment variable ZNCD names), with an option if it is
    // not null, and waits until it answers.
    explicit DaemonProcess(const std::string& storage, const char* option = nullptr);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    // Returns whether the daemon has finished all work: it sleeps, the keepers of deleted
    // containers have been reaped, and no thread deletes what was too large to be deleted during a
    // request.
    [[nodiscard]] bool is_idle() const;

    // Sends a host signal and waits until the daemon ends; returns the exit status, or 128 +
    // signal. A daemon that does not end within the time limit is killed.
    int stop(int hostSignal);

  private:
    [[nodiscard]] std::ptrdiff_t threads() const;

    pid_t pid_ = -1;
    std::ptrdiff_t ownThreads_ = 0; // when it began to serve; a sanitizer has threads, too
};

#endif
