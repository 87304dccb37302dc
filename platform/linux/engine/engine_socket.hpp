// engine_socket.hpp - the socket by which a container is started, and the arguments and descriptors
// of its processes. Used by the files of this folder.
#ifndef ZN_ENGINE_SOCKET_HPP
#define ZN_ENGINE_SOCKET_HPP

#include "base/list.hpp"
#include "helper/wire.hpp"
#include "launch.hpp"
#include "zarnel/engine.h"

#include <array>

namespace zn {

// A listening socket in the directory; an old one is replaced. Invalid with errno set.
znc::UniqueFd start_socket_make(int directory);
void start_socket_remove(int directory);

// Connects to it. Invalid with errno set: EAGAIN if a container waits but its queue is full.
znc::UniqueFd start_connect(int directory);

// A pidfd of the process; invalid with ESRCH if it has ended.
znc::UniqueFd engine_process_open(const ZN_ENGINE_PROCESS& process);

// Of the program's terminal, as the helper takes it: rows << 16 | columns.
std::uint64_t terminal_size(const ZN_ENGINE_PROGRAM& program);

// The helper's argument vector: its own arguments, then the program's.
class ProgramArguments {
  public:
    bool make(const char* name, const ZN_ENGINE_PROGRAM& program, bool unconfined = false);
    [[nodiscard]] char* const* argv() const { return argv_.get(); }

  private:
    char name_[16];
    char descriptors_[16];
    char flags_[16];
    char size_[16];
    znc::MallocPtr<char*[]> argv_;
};

// Descriptors of the helper's own, from kInitSocket to kInitPid.
inline constexpr int kHelperFds = wire::kInitFdEnd - wire::kInitSocket;

// The helper's descriptors: the standard streams, its own, those of the program.
class ProgramDescriptors {
  public:
    // EINVAL if the program gets too many. -1: none.
    bool make(const ZN_ENGINE_PROGRAM& program, std::array<int, kHelperFds> own);
    [[nodiscard]] std::span<const LaunchFd> all() const { return {fds_.data(), count_}; }

  private:
    std::array<LaunchFd, kLaunchFdsMax> fds_;
    std::size_t count_ = 0;
    znc::UniqueFd null_;
};

} // namespace zn

#endif
