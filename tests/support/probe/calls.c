/*
 * calls.c - system calls reserved for the host's root. None would change anything: values are set
 * to their current value, files do not exist, and each call is made in a child process.
 */
#include "probe.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/capability.h>
#include <linux/fs.h>
#include <linux/perf_event.h>
#include <linux/reboot.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/klog.h>
#include <sys/prctl.h>
#include <sys/quota.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/swap.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timex.h>
#include <time.h>
#include <unistd.h>

#define NOWHERE "/none/probe"
#define PLACE PROBE_PLACE

/* ---------------------------------------------------------------- the kernel */

static long load_module(void)
{
    return syscall(SYS_init_module, "", 0L, "");
}
static long load_module_file(void)
{
    return syscall(SYS_finit_module, 0, "", 0);
}
static long unload_module(void)
{
    return syscall(SYS_delete_module, "probe_none", O_NONBLOCK);
}
static long load_kernel(void)
{
    return syscall(SYS_kexec_load, 0L, 0L, NULL, 0L);
}
#ifdef SYS_kexec_file_load
static long load_kernel_file(void)
{
    return syscall(SYS_kexec_file_load, -1, -1, 1L, "", 4L);
}
#endif
static long restart(void)
{
    return syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2, LINUX_REBOOT_CMD_CAD_OFF,
                   NULL);
}
static long swap_on(void)
{
    return swapon(NOWHERE, 0);
}
static long swap_off(void)
{
    return swapoff(NOWHERE);
}
static long account(void)
{
    return acct(NOWHERE);
}
static long quota(void)
{
    const int root = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return syscall(SYS_quotactl_fd, root, QCMD(Q_SETINFO, USRQUOTA), 0, NULL);
}
static long hang_up(void)
{
    return vhangup();
}
static long read_log(void)
{
    static char text[256];
    return klogctl(3, text, sizeof text);
}
static long size_of_log(void)
{
    return klogctl(10, NULL, 0);
}
static long zone(void)
{
    struct timeval now;
    struct timezone tz = {0, 0};
    gettimeofday(&now, &tz);
    return settimeofday(NULL, &tz);
}
static long set_clock(void)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return clock_settime(CLOCK_REALTIME, &now);
}
static long shift_clock(void)
{
    struct timex shift = {.modes = ADJ_SETOFFSET};
    return adjtimex(&shift);
}
static long tune_clock(void)
{
    struct timex shift = {.modes = ADJ_SETOFFSET};
    return clock_adjtime(CLOCK_REALTIME, &shift);
}
static long load_program(void)
{
    const struct bpf_insn code[] = {{.code = BPF_ALU64 | BPF_MOV | BPF_K},
                                    {.code = BPF_JMP | BPF_EXIT}};
    union bpf_attr attr = {.prog_type = BPF_PROG_TYPE_TRACEPOINT,
                           .insn_cnt = 2,
                           .insns = (unsigned long)code,
                           .license = (unsigned long)"GPL"};
    return syscall(SYS_bpf, BPF_PROG_LOAD, &attr, sizeof attr);
}
static long list_programs(void)
{
    union bpf_attr attr = {.start_id = 0};
    return syscall(SYS_bpf, BPF_PROG_GET_NEXT_ID, &attr, sizeof attr);
}
static long watch_machine(void)
{
    struct perf_event_attr attr = {
        .type = PERF_TYPE_SOFTWARE, .size = sizeof attr, .config = PERF_COUNT_SW_CPU_CLOCK};
    return syscall(SYS_perf_event_open, &attr, -1, 0, -1, 0);
}
static long decide_on_opens(void)
{
    return fanotify_init(FAN_CLASS_CONTENT, O_RDONLY);
}

static const struct attempt kKernel[] = {
    {"load-module", load_module, {EPERM}},
    {"load-module-file", load_module_file, {EPERM}},
    {"unload-module", unload_module, {EPERM}},
    {"load-kernel", load_kernel, {EPERM}},
#ifdef SYS_kexec_file_load
    {"load-kernel-file", load_kernel_file, {EPERM}},
#endif
    {"restart", restart, {EPERM}},
    {"swap-on", swap_on, {EPERM}},
    {"swap-off", swap_off, {EPERM}},
    {"account", account, {EPERM}},
    {"quota", quota, {EPERM}},
    {"hang-up", hang_up, {EPERM}},
    {"read-log", read_log, {EPERM}},
    {"size-of-log", size_of_log, {EPERM}},
    {"set-time-zone", zone, {EPERM}},
    {"set-clock", set_clock, {EPERM}},
    {"shift-clock", shift_clock, {EPERM}},
    {"tune-clock", tune_clock, {EPERM}},
    {"load-kernel-program", load_program, {EPERM}},
    {"list-kernel-programs", list_programs, {EPERM}},
    {"watch-machine", watch_machine, {EPERM, EACCES}},
    {"decide-on-opens", decide_on_opens, {EPERM}},
};

/* ---------------------------------------------------------------- rights and hardware */

static long open_by_handle(void)
{
    struct {
        struct file_handle handle;
        unsigned char bytes[128];
        /* inode 2: the root directory of a filesystem */
    } file = {{.handle_bytes = 8, .handle_type = 1}, {2}};
    int id;
    name_to_handle_at(AT_FDCWD, "/tmp", &file.handle, &id, 0);
    const int mount = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return open_by_handle_at(mount, &file.handle, O_RDONLY | O_CLOEXEC);
}
static long more_capabilities(void)
{
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct sets[2] = {{0, 0, 0}, {0, 0, 0}};
    syscall(SYS_capget, &header, sets);
    sets[0].effective |= 1U << CAP_SYS_ADMIN;
    sets[0].permitted |= 1U << CAP_SYS_ADMIN;
    return syscall(SYS_capset, &header, sets);
}
static long more_privileges(void)
{
    errno = EINVAL;
    const bool taken = prctl(PR_SET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0;
    return taken || prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0 ? 0 : -1;
}
static long be_urgent(void)
{
    return setpriority(PRIO_PROCESS, 0, -20);
}
static long be_real_time(void)
{
    const struct sched_param priority = {1};
    return sched_setscheduler(0, SCHED_FIFO, &priority);
}
static long disk_real_time(void)
{
    return syscall(SYS_ioprio_set, 1, 0, 1 << 13);
}
static long set_immutable(void)
{
    int flags = FS_IMMUTABLE_FL;
    const int fd = open(PLACE, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const long set = syscall(SYS_ioctl, fd, FS_IOC_SETFLAGS, &flags);
    flags = 0;
    if (set == 0)
        syscall(SYS_ioctl, fd, FS_IOC_SETFLAGS, &flags);
    return set;
}
static long trusted_attribute(void)
{
    return syscall(SYS_setxattr, PLACE, "trusted.probe", "x", 1L, 0);
}
#ifdef __x86_64__
static long all_ports(void)
{
    return syscall(SYS_iopl, 3);
}
static long one_port(void)
{
    return syscall(SYS_ioperm, 0x80L, 1L, 1);
}

/* The system call entry for 32-bit programs, which has its own call numbers. */
static long small_call(long number, long argument)
{
    long result;
    __asm__ volatile("int $0x80" : "=a"(result) : "a"(number), "b"(argument) : "memory");
    if (result < 0)
        errno = (int)-result;
    return result < 0 ? -1 : result;
}
static long small_unshare(void)
{
    return small_call(310, CLONE_NEWUSER);
}
static long small_keys(void)
{
    return small_call(288, 0);
}
static long third_unshare(void)
{
    return syscall(SYS_unshare | 0x40000000, CLONE_NEWUSER);
}
static long third_keys(void)
{
    return syscall(SYS_keyctl | 0x40000000, 0, -3, 1);
}
#endif

static const struct attempt kRights[] = {
    {"open-by-handle", open_by_handle, {EPERM}},
    {"more-capabilities", more_capabilities, {EPERM}},
    {"more-privileges", more_privileges, {EINVAL}},
    {"be-urgent", be_urgent, {EPERM, EACCES}},
    {"be-real-time", be_real_time, {EPERM}},
    {"disk-real-time", disk_real_time, {EPERM}},
    {"set-immutable", set_immutable, {EPERM, ENOTTY, EOPNOTSUPP}},
    {"trusted-attribute", trusted_attribute, {EPERM}},
#ifdef __x86_64__
    {"all-ports", all_ports, {EPERM}},
    {"one-port", one_port, {EPERM}},
    /* the call kills the child; without support for 32-bit programs the processor faults */
    {"unshare-users-32", small_unshare, {128 + SIGSYS, 128 + SIGSEGV}},
    {"keys-32", small_keys, {128 + SIGSYS, 128 + SIGSEGV}},
    {"unshare-users-x32", third_unshare, {EPERM}},
    {"keys-x32", third_keys, {EPERM}},
#endif
};

void check_calls(void)
{
    mkdir(PLACE, 0700);
    check_namespace_calls();
    check_filtered_calls();
    refused_each(kKernel, sizeof kKernel / sizeof *kKernel);
    refused_each(kRights, sizeof kRights / sizeof *kRights);
    check_mount_calls(); /* last: if one succeeds, the tree has changed */
    rmdir(PLACE);
}
