// keep_process.hpp - the process that holds descriptors of kept namespaces between two owners, if
// no service manager does (helper/store.cpp). Used by keep_store.
//
// It listens nowhere: an owner copies its end of the control socket, and what the process holds,
// out of it (pidfd_getfd), which the kernel allows root only. The process is recorded with its
// start time.
#ifndef ZN_KEEP_PROCESS_HPP
#define ZN_KEEP_PROCESS_HPP

#include "keeper_link.hpp"

namespace zn {

class KeepProcess {
  public:
    // Connects to the process of an earlier owner. 0, or an error number: ESRCH if there is none,
    // or if what the record names is not such a process.
    int find();
    // Starts and records a process. 0, or an error number: EPERM if this system does not allow
    // copying descriptors out of it.
    int start();

    // Calls `visit(number, descriptor, context)` for everything that the process holds. 0 or an
    // error number.
    int each(int (*visit)(int number, znc::UniqueFd descriptor, void* context), void* context);

    // The process holds `descriptor`, too, as `number`. 0 or an error number.
    int put(int descriptor, int& number);
    void drop(int number);

    // Whether there is no process.
    [[nodiscard]] bool ended() const { return link_.ended(0); }
    // Ends the process and removes its record.
    void end();

  private:
    int commit();
    int connect(pid_t pid, znc::UniqueFd pidfd);

    Keeper link_;
};

// Whether the process executes the helper of this or another build: a memory file that nobody can
// write to.
bool runs_helper(pid_t pid);

} // namespace zn

#endif
