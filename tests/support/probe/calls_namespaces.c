/* calls_namespaces.c - mounts and namespaces. Each attempt runs in a child process. */
#include "probe.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/mount.h>
#include <linux/sched.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

/* <sys/mount.h> conflicts with the kernel's header. */
int mount(const char*, const char*, const char*, unsigned long, const void*);
int umount2(const char*, int);
enum { kRemount = 32, kBind = 4096, kMove = 8192, kDetach = 2 };

#define PLACE PROBE_PLACE

/* ---------------------------------------------------------------- mounts */

static long mount_tmpfs(void)
{
    return mount("none", PLACE, "tmpfs", 0, NULL);
}
static long mount_proc(void)
{
    return mount("none", PLACE, "proc", 0, NULL);
}
static long mount_sysfs(void)
{
    return mount("none", PLACE, "sysfs", 0, NULL);
}
static long mount_cgroup(void)
{
    return mount("none", PLACE, "cgroup2", 0, NULL);
}
static long mount_devices(void)
{
    return mount("none", PLACE, "devtmpfs", 0, NULL);
}
static long mount_bind(void)
{
    return mount("/", PLACE, NULL, kBind, NULL);
}
static long mount_root_again(void)
{
    return mount(NULL, "/", NULL, kRemount | kBind, NULL);
}
static long mount_sys_again(void)
{
    return mount(NULL, "/proc/sys", NULL, kRemount | kBind, NULL);
}
static long mount_moved(void)
{
    return mount("/proc", PLACE, NULL, kMove, NULL);
}
static long mount_shared(void)
{
    return mount(NULL, "/", NULL, 1UL << 20, NULL);
}
static long unmount_proc(void)
{
    return umount2("/proc", kDetach);
}
static long unmount_proc_sys(void)
{
    return umount2("/proc/sys", kDetach);
}
static long unmount_dev(void)
{
    return umount2("/dev", kDetach);
}
static long unmount_root(void)
{
    return umount2("/", kDetach);
}
static long new_root(void)
{
    return chdir("/") != 0 ? -1 : syscall(SYS_pivot_root, ".", ".");
}
static long copy_tree(void)
{
    return syscall(SYS_open_tree, AT_FDCWD, "/", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC);
}
static long new_filesystem(void)
{
    return syscall(SYS_fsopen, "tmpfs", FSOPEN_CLOEXEC);
}
static long pick_filesystem(void)
{
    return syscall(SYS_fspick, AT_FDCWD, "/", FSPICK_CLOEXEC);
}
static long move_tree(void)
{
    return syscall(SYS_move_mount, AT_FDCWD, "/proc", AT_FDCWD, PLACE, 0);
}
static long set_attributes(void)
{
    struct mount_attr attr = {.attr_clr = MOUNT_ATTR_NOSUID};
    return syscall(SYS_mount_setattr, AT_FDCWD, "/", 0, &attr, sizeof attr);
}

static const struct attempt kMounts[] = {
    {"mount-tmpfs", mount_tmpfs, {EPERM}},
    {"mount-proc", mount_proc, {EPERM}},
    {"mount-sysfs", mount_sysfs, {EPERM}},
    {"mount-control-groups", mount_cgroup, {EPERM}},
    {"mount-devices", mount_devices, {EPERM}},
    {"mount-bind", mount_bind, {EPERM}},
    {"mount-root-again", mount_root_again, {EPERM}},
    {"mount-proc-sys-writable", mount_sys_again, {EPERM}},
    {"mount-move", mount_moved, {EPERM}},
    {"mount-share", mount_shared, {EPERM}},
    {"unmount-proc", unmount_proc, {EPERM}},
    {"unmount-proc-sys", unmount_proc_sys, {EPERM}},
    {"unmount-dev", unmount_dev, {EPERM}},
    {"unmount-root", unmount_root, {EPERM}},
    {"pivot-root", new_root, {EPERM}},
    {"open-tree", copy_tree, {EPERM}},
    {"fsopen", new_filesystem, {EPERM}},
    {"fspick", pick_filesystem, {EPERM}},
    {"move-mount", move_tree, {EPERM}},
    {"mount-setattr", set_attributes, {EPERM}},
};

/* ---------------------------------------------------------------- namespaces */

static long unshare_mounts(void)
{
    return unshare(CLONE_NEWNS);
}
static long unshare_processes(void)
{
    return unshare(CLONE_NEWPID);
}
static long unshare_network(void)
{
    return unshare(CLONE_NEWNET);
}
static long unshare_names(void)
{
    return unshare(CLONE_NEWUTS);
}
static long unshare_ipc(void)
{
    return unshare(CLONE_NEWIPC);
}
static long unshare_groups(void)
{
    return unshare(CLONE_NEWCGROUP);
}
static long unshare_time(void)
{
    return unshare(CLONE_NEWTIME);
}
static long unshare_users(void)
{
    return unshare(CLONE_NEWUSER);
}

static long ended(long pid)
{
    if (pid == 0)
        _exit(0);
    return pid;
}
static long clone_users(void)
{
    return ended(syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0));
}
static long clone3_users(void)
{
    struct clone_args args = {.flags = CLONE_NEWUSER, .exit_signal = SIGCHLD};
    return ended(syscall(SYS_clone3, &args, sizeof args));
}
/*
 * With all capabilities in a new user namespace, this process could write to the host's control
 * groups, because they are owned by its user.
 */
static long control_groups_as_own_root(void)
{
    const int all = CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWCGROUP;
    return unshare(all) != 0 ? -1 : mount("none", PLACE, "cgroup2", 0, NULL);
}
static long join_own(void)
{
    const int fd = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    return setns(fd, CLONE_NEWNS);
}
static long host_name(void)
{
    struct utsname name;
    uname(&name);
    return sethostname(name.nodename, strlen(name.nodename));
}
static long domain_name(void)
{
    struct utsname name;
    uname(&name);
    return setdomainname(name.domainname, strlen(name.domainname));
}
static long chosen_pid(void)
{
    pid_t wanted = 12345;
    struct clone_args args = {
        .exit_signal = SIGCHLD, .set_tid = (unsigned long)&wanted, .set_tid_size = 1};
    return ended(syscall(SYS_clone3, &args, sizeof args));
}

static const struct attempt kNamespaces[] = {
    {"unshare-mounts", unshare_mounts, {EPERM}},
    {"unshare-processes", unshare_processes, {EPERM}},
    {"unshare-network", unshare_network, {EPERM}},
    {"unshare-names", unshare_names, {EPERM}},
    {"unshare-ipc", unshare_ipc, {EPERM}},
    {"unshare-control-groups", unshare_groups, {EPERM}},
    {"unshare-time", unshare_time, {EPERM}},
    {"unshare-users", unshare_users, {EPERM}},
    {"clone-users", clone_users, {EPERM}},
    {"clone3-users", clone3_users, {EPERM}},
    {"control-groups-as-own-root", control_groups_as_own_root, {EPERM}},
    {"setns", join_own, {EPERM}},
    {"set-host-name", host_name, {EPERM}},
    {"set-domain-name", domain_name, {EPERM}},
    {"choose-process-id", chosen_pid, {EPERM}},
};

void check_namespace_calls(void)
{
    refused_each(kNamespaces, sizeof kNamespaces / sizeof *kNamespaces);
}

void check_mount_calls(void)
{
    refused_each(kMounts, sizeof kMounts / sizeof *kMounts);
}
