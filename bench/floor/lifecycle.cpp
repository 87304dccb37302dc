// lifecycle.cpp - the floor of a container's life cycle: a process in the same namespaces pivots to
// its root, makes the same mounts, device nodes and masks, runs the program and waits for it. One
// process, no daemon, no checks and no state.
//
// usage: floor_lifecycle ROUNDS ROOT PROGRAM [STORAGE]
//
// Prints the nanoseconds of each round. With STORAGE the root is an overlay over ROOT with a new
// upper directory in STORAGE, mounted and unmounted in every round.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/mount.h>
#include <net/if.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr unsigned long kNamespaces =
    CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNET | CLONE_NEWCGROUP;
constexpr unsigned long kQuiet = MS_NOSUID | MS_NODEV | MS_NOEXEC;
constexpr std::size_t kStack = 64 * 1024;

const char* g_root;
const char* g_program;

void must(bool good, const char* what)
{
    if (good)
        return;
    std::perror(what);
    std::_Exit(1);
}

void mount_at(const char* type, const char* where, unsigned long flags, const char* data)
{
    must(::mount(type, where, type, flags, data) == 0, where);
}

void make_dev()
{
    mount_at("tmpfs", "dev", MS_NOSUID | MS_NOEXEC, "mode=755,size=65536k");
    static constexpr struct {
        const char* name;
        unsigned major;
        unsigned minor;
    } kNodes[] = {{"dev/null", 1, 3},   {"dev/zero", 1, 5},    {"dev/full", 1, 7},
                  {"dev/random", 1, 8}, {"dev/urandom", 1, 9}, {"dev/tty", 5, 0}};
    for (const auto& node : kNodes)
        must(::mknod(node.name, S_IFCHR | 0666, ::makedev(node.major, node.minor)) == 0, node.name);
    for (const char* name : {"dev/fd", "dev/stdin", "dev/stdout", "dev/stderr", "dev/ptmx"})
        must(::symlink("/proc/self/fd", name) == 0, name);
    for (const char* name : {"dev/pts", "dev/shm", "dev/mqueue"})
        must(::mkdir(name, 0755) == 0, name);
    mount_at("devpts", "dev/pts", MS_NOSUID | MS_NOEXEC, "ptmxmode=0666,mode=0620,gid=5");
    mount_at("tmpfs", "dev/shm", kQuiet, "mode=1777,size=65536k");
    mount_at("mqueue", "dev/mqueue", kQuiet, nullptr);
}

// Covers an existing path with /dev/null or an empty tmpfs, or makes it read-only.
void cover(const char* path)
{
    struct stat st;
    if (::stat(path, &st) != 0)
        return;
    if (S_ISDIR(st.st_mode))
        mount_at("tmpfs", path, kQuiet | MS_RDONLY, "size=4k,nr_inodes=1");
    else
        must(::mount("dev/null", path, nullptr, MS_BIND, nullptr) == 0, path);
}

void write_protect(const char* path)
{
    if (::access(path, F_OK) != 0)
        return;
    must(::mount(path, path, nullptr, MS_BIND, nullptr) == 0, path);
    must(::mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | kQuiet, nullptr) == 0,
         path);
}

void make_mounts()
{
    mount_at("proc", "proc", kQuiet, nullptr);
    make_dev();
    mount_at("sysfs", "sys", kQuiet | MS_RDONLY, nullptr);
    for (const char* path :
         {"proc/acpi", "proc/asound", "proc/interrupts", "proc/kcore", "proc/keys",
          "proc/latency_stats", "proc/sched_debug", "proc/scsi", "proc/timer_list",
          "proc/timer_stats", "sys/devices/virtual/powercap", "sys/firmware", "sys/fs/selinux"})
        cover(path);
    for (int cpu = 0; cpu < 10000; cpu++) {
        const std::string path = "sys/devices/system/cpu/cpu" + std::to_string(cpu);
        if (::access(path.c_str(), F_OK) != 0)
            break;
        cover((path + "/thermal_throttle").c_str());
    }
    for (const char* path : {"proc/bus", "proc/fs", "proc/irq", "proc/sys", "proc/sysrq-trigger"})
        write_protect(path);
}

void bring_up_loopback()
{
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    must(socket >= 0 && ::ioctl(socket, SIOCSIFFLAGS, &request) == 0, "loopback");
}

int contained(void*)
{
    must(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private");
    must(::mount(g_root, g_root, nullptr, MS_BIND, nullptr) == 0 && ::chdir(g_root) == 0, g_root);
    must(::mount(nullptr, ".", nullptr, MS_BIND | MS_REMOUNT | MS_NOSUID | MS_NODEV, nullptr) == 0,
         g_root);
    must(::syscall(SYS_pivot_root, ".", ".") == 0 && ::umount2(".", MNT_DETACH) == 0 &&
             ::chdir("/") == 0,
         "pivot_root");
    must(::sethostname("floor", 5) == 0, "sethostname");
    bring_up_loopback();
    make_mounts();
    char* const argv[] = {const_cast<char*>(g_program), nullptr};
    char* const envp[] = {const_cast<char*>("PATH=/bin"), nullptr};
    ::execve(g_program, argv, envp);
    must(false, g_program);
    return 1;
}

void overlay_up(const std::string& storage, const std::string& lower)
{
    fs::create_directories(storage + "/upper");
    fs::create_directories(storage + "/work");
    fs::create_directories(storage + "/root");
    const std::string data =
        "lowerdir=" + lower + ",upperdir=" + storage + "/upper,workdir=" + storage + "/work";
    mount_at("overlay", (storage + "/root").c_str(), MS_NOSUID | MS_NODEV, data.c_str());
}

void overlay_down(const std::string& storage)
{
    must(::umount2((storage + "/root").c_str(), MNT_DETACH) == 0, "umount");
    fs::remove_all(storage);
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc >= 4 ? std::atoi(argv[1]) : 0;
    if (rounds < 1 || argc > 5) {
        std::fputs("usage: floor_lifecycle ROUNDS ROOT PROGRAM [STORAGE]\n", stderr);
        return 64;
    }
    const std::string storage = argc == 5 ? std::string(argv[4]) + "/floor" : "";
    const std::string overlaid = storage + "/root";
    g_root = storage.empty() ? argv[2] : overlaid.c_str();
    g_program = argv[3];
    static char stack[kStack];
    for (int i = 0; i < rounds; i++) {
        const auto start = std::chrono::steady_clock::now();
        if (!storage.empty())
            overlay_up(storage, argv[2]);
        const int pid =
            ::clone(contained, stack + sizeof stack,
                    static_cast<int>(kNamespaces) | CLONE_VM | CLONE_VFORK | SIGCHLD, nullptr);
        int status = -1;
        must(pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0, "container");
        if (!storage.empty())
            overlay_down(storage);
        const std::chrono::nanoseconds spent = std::chrono::steady_clock::now() - start;
        std::printf("%lld\n", static_cast<long long>(spent.count()));
    }
    return 0;
}
