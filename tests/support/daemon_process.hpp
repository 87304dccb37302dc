// daemon_process.hpp - a real zncd for a system test, started and stopped as a person would.
#ifndef DAEMON_PROCESS_HPP
#define DAEMON_PROCESS_HPP

#include <string>
#include <sys/types.h>

class DaemonProcess {
  public:
    // Starts zncd (the program that the environment variable ZNCD names) and waits until it
    // answers.
    explicit DaemonProcess(const std::string& storage);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    // Whether nothing of what it was asked is still to be done: it sleeps, and the keepers of
    // deleted containers are reaped.
    [[nodiscard]] bool is_idle() const;

    // Sends a host signal and waits for the end: the exit status, or 128 + signal. One that does
    // not end in time is killed.
    int stop(int hostSignal);

  private:
    pid_t pid_ = -1;
};

#endif
