// group.hpp - puts a new process into its container's control groups. Moving a running process
// makes the kernel wait for all processors (an RCU grace period, several milliseconds, more on an
// idle machine). A process that is created in its group (clone3, since Linux 5.7; cgroup v2 only)
// need not wait, nor need a thread that moves itself alone (since Linux 5.5; cgroup v1 only). The
// spawner itself is not created in the group: until it executes its program it shares the memory of
// its caller, which the kernel could kill if the container runs out of memory.
#ifndef ZN_HELPER_GROUP_HPP
#define ZN_HELPER_GROUP_HPP

#include "program.hpp"
#include "sys.hpp"

namespace zn {

// Moves this process into all groups of the rules.
void enter_groups(const Rules& rules);

// The groups of a process that this one is going to create.
class ProgramGroups {
  public:
    // None: the process stays in the groups of this one.
    ProgramGroups() = default;
    // Needs the host's files. Opens the group of the v2 hierarchy; enters the others, which the new
    // process inherits.
    explicit ProgramGroups(const Rules& rules);

    // Join the namespaces of the process (a pidfd): this process joins all but the cgroup
    // namespace, because a member of that may not create processes in groups outside of it; the
    // created process joins that one.
    static void join_namespaces(const Rules& rules, int process);
    static void join_last(const Rules& rules, int process);

    // Creates a process as clone() does, with these flags, in the groups. Returns the kernel's
    // result.
    [[nodiscard]] long create_process(unsigned long flags) const;

  private:
    sys::Fd v2_; // a directory; invalid: all groups have been entered
};

} // namespace zn

#endif
