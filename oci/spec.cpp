// spec.cpp - the command spec: a configuration to start from, which runs a shell.
#include "context.hpp"
#include "front/files.hpp"

#include <fcntl.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

// Few capabilities, no device but the standard ones, and no access to what the kernel does not
// separate by namespaces.
constexpr char kTemplate[] = R"({
    "ociVersion": "1.0.2",
    "process": {
        "terminal": true,
        "user": { "uid": 0, "gid": 0 },
        "args": ["sh"],
        "env": [
            "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "TERM=xterm"
        ],
        "cwd": "/",
        "capabilities": {
            "bounding": ["CAP_AUDIT_WRITE", "CAP_KILL", "CAP_NET_BIND_SERVICE"],
            "effective": ["CAP_AUDIT_WRITE", "CAP_KILL", "CAP_NET_BIND_SERVICE"],
            "permitted": ["CAP_AUDIT_WRITE", "CAP_KILL", "CAP_NET_BIND_SERVICE"]
        },
        "rlimits": [{ "type": "RLIMIT_NOFILE", "hard": 1024, "soft": 1024 }],
        "noNewPrivileges": true
    },
    "root": { "path": "rootfs", "readonly": true },
    "hostname": "zncrun",
    "mounts": [
        { "destination": "/proc", "type": "proc", "source": "proc" },
        {
            "destination": "/dev", "type": "tmpfs", "source": "tmpfs",
            "options": ["nosuid", "strictatime", "mode=755", "size=65536k"]
        },
        {
            "destination": "/dev/pts", "type": "devpts", "source": "devpts",
            "options": ["nosuid", "noexec", "newinstance", "ptmxmode=0666", "mode=0620", "gid=5"]
        },
        {
            "destination": "/dev/shm", "type": "tmpfs", "source": "shm",
            "options": ["nosuid", "noexec", "nodev", "mode=1777", "size=65536k"]
        },
        {
            "destination": "/dev/mqueue", "type": "mqueue", "source": "mqueue",
            "options": ["nosuid", "noexec", "nodev"]
        },
        {
            "destination": "/sys", "type": "sysfs", "source": "sysfs",
            "options": ["nosuid", "noexec", "nodev", "ro"]
        },
        {
            "destination": "/sys/fs/cgroup", "type": "cgroup", "source": "cgroup",
            "options": ["nosuid", "noexec", "nodev", "relatime", "ro"]
        }
    ],
    "linux": {
        "resources": { "devices": [{ "allow": false, "access": "rwm" }] },
        "namespaces": [
            { "type": "pid" },
            { "type": "network" },
            { "type": "ipc" },
            { "type": "uts" },
            { "type": "mount" }
        ],
        "maskedPaths": [
            "/proc/acpi", "/proc/asound", "/proc/dynamic_debug", "/proc/interrupts", "/proc/kcore",
            "/proc/keys", "/proc/kpagecgroup", "/proc/kpagecount", "/proc/kpageflags",
            "/proc/latency_stats", "/proc/sched_debug", "/proc/scsi", "/proc/timer_list",
            "/proc/timer_stats", "/sys/devices/virtual/powercap", "/sys/firmware",
            "/sys/fs/selinux"
        ],
        "readonlyPaths": ["/proc/bus", "/proc/fs", "/proc/irq", "/proc/sys", "/proc/sysrq-trigger"]
    }
}
)";

} // namespace

int run_spec(const Context& /*context*/, const Arguments& args)
{
    const std::string path = std::string(args.value("bundle", ".")) + "/config.json";
    // An existing configuration is kept.
    znc::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!file || !zncctl::write_all(file.get(), kTemplate) || file.close_checked() != 0)
        throw Failure(fmt::format("{}: {}", path, zncctl::error_text()));
    return 0;
}

} // namespace zncrun
