/*
 * calls_filter.c - system calls that need no capability, so that only the seccomp filter prevents a
 * container's program from making them. Each is made in a way that the kernel permits to everybody.
 */
#include "probe.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/io_uring.h>
#include <linux/kcmp.h>
#include <linux/perf_event.h>
#include <linux/userfaultfd.h>
#include <sched.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/personality.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#ifndef UFFD_USER_MODE_ONLY
#define UFFD_USER_MODE_ONLY 1
#endif
#define ANY_X32 0x40000000

static long child_of_parent(void)
{
    const long pid = syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0L, 0L, 0L, 0L);
    if (pid == 0)
        _exit(0);
    return pid;
}
static long own_descriptor(void)
{
    return syscall(SYS_pidfd_getfd, syscall(SYS_pidfd_open, getpid(), 0), 0, 0);
}
static long read_self(void)
{
    char from = 'x';
    char to;
    const struct iovec here = {&to, 1};
    const struct iovec there = {&from, 1};
    return process_vm_readv(getpid(), &here, 1, &there, 1, 0);
}
static long write_self(void)
{
    char from = 'x';
    char to;
    const struct iovec here = {&from, 1};
    const struct iovec there = {&to, 1};
    return process_vm_writev(getpid(), &here, 1, &there, 1, 0);
}
static long compare_self(void)
{
    return syscall(SYS_kcmp, getpid(), getpid(), KCMP_FILES, 0, 0);
}
static long file_handle(void)
{
    struct {
        struct file_handle handle;
        unsigned char bytes[128];
    } file = {{.handle_bytes = sizeof file.bytes}, {0}};
    int id;
    return name_to_handle_at(AT_FDCWD, "/tmp", &file.handle, &id, 0);
}
static long ring(void)
{
    struct io_uring_params params = {0};
    return syscall(SYS_io_uring_setup, 1, &params);
}
/* The descriptor is invalid: EBADF from the kernel would show that the call passed the filter. */
static long ring_enter(void)
{
    const long result = syscall(SYS_io_uring_enter, -1, 0, 0, 0, NULL, 0L);
    return result < 0 && errno == EBADF ? 0 : result;
}
static long ring_register(void)
{
    const long result = syscall(SYS_io_uring_register, -1, 0, NULL, 0);
    return result < 0 && (errno == EBADF || errno == EINVAL) ? 0 : result;
}
static long page_faults(void)
{
    return syscall(SYS_userfaultfd, O_CLOEXEC | UFFD_USER_MODE_ONLY);
}
static long count_own_work(void)
{
    struct perf_event_attr attr = {.type = PERF_TYPE_SOFTWARE,
                                   .size = sizeof attr,
                                   .config = PERF_COUNT_SW_TASK_CLOCK,
                                   .exclude_kernel = 1,
                                   .exclude_hv = 1};
    return syscall(SYS_perf_event_open, &attr, 0, -1, -1, 0);
}
static long watch_files(void)
{
    return fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_FID, O_RDONLY);
}
static long see_tree(void)
{
    return syscall(SYS_open_tree, AT_FDCWD, "/", 0);
}
static long known_addresses(void)
{
    return personality(ADDR_NO_RANDOMIZE);
}
static long executable_data(void)
{
    return personality(READ_IMPLIES_EXEC);
}
static long hypervisor(void)
{
    return socket(AF_VSOCK, SOCK_STREAM, 0);
}
#ifdef __x86_64__
static long small_call(void)
{
    long result;
    __asm__ volatile("int $0x80" : "=a"(result) : "a"(20L) : "memory"); /* getpid */
    return result;
}
static long third_call(void)
{
    return syscall(SYS_getpid | ANY_X32);
}
#endif

static const struct attempt kFiltered[] = {
    {"child-of-the-parent", child_of_parent, {EPERM}},
    {"take-own-descriptor", own_descriptor, {EPERM}},
    {"read-own-memory", read_self, {EPERM}},
    {"write-own-memory", write_self, {EPERM}},
    {"compare-self", compare_self, {EPERM}},
    {"file-handle", file_handle, {EPERM}},
    {"ring", ring, {EPERM}},
    {"ring-enter", ring_enter, {EPERM}},
    {"ring-register", ring_register, {EPERM}},
    {"page-faults", page_faults, {EPERM}},
    {"count-own-work", count_own_work, {EPERM}},
    {"watch-files", watch_files, {EPERM}},
    {"see-tree", see_tree, {EPERM}},
    {"known-addresses", known_addresses, {EPERM}},
    {"executable-data", executable_data, {EPERM}},
    {"hypervisor-socket", hypervisor, {EAFNOSUPPORT}},
#ifdef __x86_64__
    /* without support for 32-bit programs the processor faults */
    {"call-32", small_call, {128 + SIGSYS, 128 + SIGSEGV}},
    {"call-x32", third_call, {ENOSYS}},
#endif
};

void check_filtered_calls(void)
{
    refused_each(kFiltered, sizeof kFiltered / sizeof *kFiltered);
}
