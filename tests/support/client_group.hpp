// client_group.hpp - client processes that start at the same moment, and shared memory in which
// they store results for the test.
#ifndef CLIENT_GROUP_HPP
#define CLIENT_GROUP_HPP

#include <cstddef>
#include <functional>
#include <new>
#include <span>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/types.h>
#include <vector>

// Zero-initialized records in memory shared between the test and forked processes.
template <class T> class SharedArray {
  public:
    explicit SharedArray(std::size_t count)
        : bytes_(count * sizeof(T)),
          data_(::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
          count_(count)
    {
        if (data_ == MAP_FAILED)
            throw std::bad_alloc();
    }
    ~SharedArray() { ::munmap(data_, bytes_); }
    SharedArray(const SharedArray&) = delete;
    SharedArray& operator=(const SharedArray&) = delete;

    T& operator[](std::size_t i) { return static_cast<T*>(data_)[i]; }
    [[nodiscard]] std::span<T> all() { return {static_cast<T*>(data_), count_}; }

  private:
    std::size_t bytes_;
    void* data_;
    std::size_t count_;
};

class ClientGroup {
  public:
    // Forks `count` processes; each runs `body` with its index, from 0, and exits with the result.
    // None starts before all have been forked.
    ClientGroup(int count, const std::function<int(int)>& body);
    // Kills the processes that are still running.
    ~ClientGroup();
    ClientGroup(const ClientGroup&) = delete;
    ClientGroup& operator=(const ClientGroup&) = delete;

    [[nodiscard]] pid_t pid(std::size_t i) const { return pids_[i]; }

    // Waits for all processes and returns the exit status of each, or 128 + signal.
    std::vector<int> wait();

  private:
    std::vector<pid_t> pids_;
};

#endif
