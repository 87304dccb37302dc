// seccomp_calls.hpp - the system calls that the default filter allows, by subject. Names that the
// machine does not have (older calls on newer architectures) are skipped.
//
// A call is left out for one of three reasons: namespaces do not confine what it gives access to;
// it is a large part of the kernel that ordinary programs do not need and through which processes
// have escaped from containers before; or the kernel permits it only with a capability. In the last
// case it is in kWithCapability: the filter is then a second barrier in case the kernel's own check
// is faulty.
#ifndef ZN_SECCOMP_CALLS_HPP
#define ZN_SECCOMP_CALLS_HPP

#include <cstdint>
#include <linux/capability.h>

namespace zn {

// Allowed whatever their arguments.
inline constexpr const char* kAllowed[] = {
    // Reading and writing. Not vmsplice: the kernel keeps references to pages that the program can
    // still modify, which has been exploited, and few programs use it.
    "close", "close_range", "copy_file_range", "dup", "dup2", "dup3", "fallocate", "fadvise64",
    "fcntl", "fdatasync", "flock", "fsync", "ftruncate", "ioctl", "lseek", "pipe", "pipe2",
    "pread64", "preadv", "preadv2", "pwrite64", "pwritev", "pwritev2", "read", "readahead", "readv",
    "sendfile", "splice", "sync", "sync_file_range", "syncfs", "tee", "truncate", "write", "writev",

    // Files and directories by path. Not name_to_handle_at and open_by_handle_at (see below), and
    // not what sets up mounts.
    "access", "chdir", "chmod", "chown", "creat", "faccessat", "faccessat2", "fchdir", "fchmod",
    "fchmodat", "fchown", "fchownat", "fstat", "fstatfs", "futimesat", "getcwd", "getdents",
    "getdents64", "lchown", "link", "linkat", "lstat", "mkdir", "mkdirat", "mknod", "mknodat",
    "newfstatat", "open", "openat", "openat2", "readlink", "readlinkat", "rename", "renameat",
    "renameat2", "rmdir", "stat", "statfs", "statx", "symlink", "symlinkat", "umask", "unlink",
    "unlinkat", "utime", "utimensat", "utimes",

    // Extended attributes.
    "fgetxattr", "flistxattr", "fremovexattr", "fsetxattr", "getxattr", "lgetxattr", "listxattr",
    "llistxattr", "lremovexattr", "lsetxattr", "removexattr", "setxattr",

    // Waiting for descriptors; events as descriptors. fanotify_mark is useless without
    // fanotify_init, which is conditional.
    "epoll_create", "epoll_create1", "epoll_ctl", "epoll_ctl_old", "epoll_pwait", "epoll_pwait2",
    "epoll_wait", "epoll_wait_old", "eventfd", "eventfd2", "fanotify_mark", "inotify_add_watch",
    "inotify_init", "inotify_init1", "inotify_rm_watch", "poll", "ppoll", "pselect6", "select",
    "signalfd", "signalfd4", "timerfd_create", "timerfd_gettime", "timerfd_settime",

    // Asynchronous reading and writing by the older interface. Not io_uring: it has a history of
    // vulnerabilities and performs operations that no filter sees.
    "io_cancel", "io_destroy", "io_getevents", "io_pgetevents", "io_setup", "io_submit",

    // Sockets. Two families are excluded, see seccomp_default.cpp.
    "accept", "accept4", "bind", "connect", "getpeername", "getsockname", "getsockopt", "listen",
    "recvfrom", "recvmmsg", "recvmsg", "sendmmsg", "sendmsg", "sendto", "setsockopt", "shutdown",
    "socket", "socketpair",

    // Memory. Not userfaultfd: it can suspend the kernel in the middle of a copy.
    "brk", "get_mempolicy", "madvise", "membarrier", "memfd_create", "memfd_secret", "mincore",
    "mlock", "mlock2", "mlockall", "mmap", "mprotect", "mremap", "msync", "munlock", "munlockall",
    "munmap", "pkey_alloc", "pkey_free", "pkey_mprotect", "remap_file_pages",

    // Processes. clone, unshare and personality depend on arguments. Not clone3, whose arguments
    // are in memory, where a filter cannot see them.
    "arch_prctl", "execve", "execveat", "exit", "exit_group", "fork", "get_thread_area", "getpgid",
    "getpgrp", "getpid", "getppid", "getsid", "gettid", "modify_ldt", "pidfd_open", "prctl",
    "process_mrelease", "restart_syscall", "rseq", "set_thread_area", "set_tid_address", "setpgid",
    "setsid", "vfork", "wait4", "waitid",

    // Debugging of the container's own processes. The kernel checks user, capabilities and the PID
    // namespace; filters stay in effect for a traced process since Linux 4.8. Calls that reach a
    // process by a descriptor or without stopping it need CAP_SYS_PTRACE.
    "ptrace",

    // Threads and synchronization.
    "futex", "futex_waitv", "get_robust_list", "set_robust_list",

    // Signals.
    "alarm", "kill", "pause", "pidfd_send_signal", "rt_sigaction", "rt_sigpending",
    "rt_sigprocmask", "rt_sigqueueinfo", "rt_sigreturn", "rt_sigsuspend", "rt_sigtimedwait",
    "rt_tgsigqueueinfo", "sigaltstack", "tgkill", "tkill",

    // Users and privileges; restricting oneself.
    "capget", "capset", "getegid", "geteuid", "getgid", "getgroups", "getresgid", "getresuid",
    "getuid", "landlock_add_rule", "landlock_create_ruleset", "landlock_restrict_self", "seccomp",
    "setfsgid", "setfsuid", "setgid", "setgroups", "setregid", "setresgid", "setresuid", "setreuid",
    "setuid",

    // Scheduling, limits and usage.
    "getcpu", "getpriority", "getrlimit", "getrusage", "ioprio_get", "ioprio_set", "prlimit64",
    "sched_get_priority_max", "sched_get_priority_min", "sched_getaffinity", "sched_getattr",
    "sched_getparam", "sched_getscheduler", "sched_rr_get_interval", "sched_setaffinity",
    "sched_setattr", "sched_setparam", "sched_setscheduler", "sched_yield", "setpriority",
    "setrlimit", "sysinfo", "times", "uname",

    // Clocks and timers. adjtimex and clock_adjtime can also read; the kernel permits changes only
    // with CAP_SYS_TIME.
    "adjtimex", "clock_adjtime", "clock_getres", "clock_gettime", "clock_nanosleep", "getitimer",
    "gettimeofday", "nanosleep", "setitimer", "time", "timer_create", "timer_delete",
    "timer_getoverrun", "timer_gettime", "timer_settime",

    // Queues, semaphores and shared memory, which the IPC namespace confines.
    "mq_getsetattr", "mq_notify", "mq_open", "mq_timedreceive", "mq_timedsend", "mq_unlink",
    "msgctl", "msgget", "msgrcv", "msgsnd", "semctl", "semget", "semop", "semtimedop", "shmat",
    "shmctl", "shmdt", "shmget",

    // Random numbers.
    "getrandom"};

constexpr std::uint64_t capability(unsigned number)
{
    return std::uint64_t{1} << number;
}

// Allowed if the bounding set contains one of these capabilities.
struct WithCapability {
    std::uint64_t capabilities;
    const char* name;
};
inline constexpr std::uint64_t kAdmin = capability(CAP_SYS_ADMIN);
inline constexpr WithCapability kWithCapability[] = {
    // Files of a file system by number, also those outside the root.
    {capability(CAP_DAC_READ_SEARCH), "name_to_handle_at"},
    {capability(CAP_DAC_READ_SEARCH), "open_by_handle_at"},
    // Mounts. The mounts of a container are made by its keeper.
    {kAdmin, "fsconfig"},
    {kAdmin, "fsmount"},
    {kAdmin, "fsopen"},
    {kAdmin, "fspick"},
    {kAdmin, "mount"},
    {kAdmin, "mount_setattr"},
    {kAdmin, "move_mount"},
    {kAdmin, "open_tree"},
    {kAdmin, "pivot_root"},
    {kAdmin, "umount2"},
    {capability(CAP_SYS_CHROOT), "chroot"},
    // Namespaces and their names.
    {kAdmin, "setdomainname"},
    {kAdmin, "sethostname"},
    {kAdmin, "setns"},
    // What happens on the whole machine.
    {kAdmin, "fanotify_init"},
    {kAdmin, "quotactl"},
    {kAdmin, "quotactl_fd"},
    {kAdmin | capability(CAP_BPF), "bpf"},
    {kAdmin | capability(CAP_PERFMON), "perf_event_open"},
    {kAdmin | capability(CAP_SYSLOG), "syslog"}, // the kernel log is not namespaced
    // Memory and descriptors of other processes, which may be outside the container: a pidfd can be
    // received over a Unix socket. kcmp compares kernel addresses.
    {capability(CAP_SYS_PTRACE), "kcmp"},
    {capability(CAP_SYS_PTRACE), "pidfd_getfd"},
    {capability(CAP_SYS_PTRACE), "process_madvise"},
    {capability(CAP_SYS_PTRACE), "process_vm_readv"},
    {capability(CAP_SYS_PTRACE), "process_vm_writev"},
    // Placement of memory on nodes.
    {capability(CAP_SYS_NICE), "mbind"},
    {capability(CAP_SYS_NICE), "migrate_pages"},
    {capability(CAP_SYS_NICE), "move_pages"},
    {capability(CAP_SYS_NICE), "set_mempolicy"},
    {capability(CAP_SYS_NICE), "set_mempolicy_home_node"},
    // Control of the machine. Never: kexec_load, kexec_file_load, swapon, swapoff.
    {capability(CAP_SYS_BOOT), "reboot"},
    {capability(CAP_SYS_MODULE), "delete_module"},
    {capability(CAP_SYS_MODULE), "finit_module"},
    {capability(CAP_SYS_MODULE), "init_module"},
    {capability(CAP_SYS_PACCT), "acct"},
    {capability(CAP_SYS_RAWIO), "ioperm"},
    {capability(CAP_SYS_RAWIO), "iopl"},
    {capability(CAP_SYS_TIME), "clock_settime"},
    {capability(CAP_SYS_TIME), "settimeofday"},
    {capability(CAP_SYS_TTY_CONFIG), "vhangup"},
};

// Never allowed, whatever the capabilities, in addition to what is named above: keyrings (add_key,
// keyctl, request_key), which belong to user ids, and root in a container is root on the host;
// obsolete calls (_sysctl, afs_syscall, create_module, get_kernel_syms, getpmsg, lookup_dcookie,
// nfsservctl, putpmsg, query_module, security, sysfs, tuxcall, uselib, ustat, vserver).

} // namespace zn

#endif
