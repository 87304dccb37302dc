#include "host_objects.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/keyctl.h>
#include <mqueue.h>
#include <sstream>
#include <stdexcept>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char kKeyText[] = "known to the host only";

std::string content_of(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void describe(const fs::path& path, std::ostream& out)
{
    struct stat st = {};
    if (::lstat(path.c_str(), &st) != 0)
        throw std::runtime_error("lstat " + path.string());
    out << path.string() << ' ' << std::oct << st.st_mode << std::dec << ' ' << st.st_uid << ' '
        << st.st_gid << ' ' << st.st_nlink << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.'
        << st.st_mtim.tv_nsec << ' ' << st.st_ctim.tv_sec << '.' << st.st_ctim.tv_nsec;
    if (S_ISREG(st.st_mode))
        out << ' ' << content_of(path);
    if (S_ISLNK(st.st_mode))
        out << " -> " << fs::read_symlink(path).string();
    out << '\n';
}

// A stream socket that listens on an abstract name.
znc::UniqueFd abstract_listener(const std::string& name)
{
    sockaddr_un address = {AF_UNIX, ""};
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    znc::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        ::listen(fd.get(), 8) != 0)
        throw std::runtime_error("abstract socket: " + std::string(std::strerror(errno)));
    return fd;
}

int made(int object, const char* what)
{
    if (object < 0)
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    return object;
}

} // namespace

std::string tree_text(const std::string& directory)
{
    std::vector<fs::path> paths = {directory};
    for (const auto& entry : fs::recursive_directory_iterator(directory))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::ostringstream out;
    for (const fs::path& path : paths)
        describe(path, out);
    return out.str();
}

HostObjects::HostObjects(const std::string& name)
    : name_(name), directory_("/tmp/" + name),
      queues_({"/" + name, "/znc-u-" + std::to_string(::getpid()) + "-77-" + name}),
      key_(static_cast<int>(std::hash<std::string>()(name) & 0x7fffff) + 1)
{
    fs::create_directories(directory_ + "/sub");
    std::ofstream(secret()) << "precious";
    std::ofstream(directory_ + "/sub/file") << "more";
    fs::permissions(secret(), fs::perms(0640));
    fs::create_symlink("secret", directory_ + "/link");
    for (const std::string& queue : queues_) {
        mq_attr attr = {};
        attr.mq_maxmsg = 1;
        attr.mq_msgsize = 16;
        const mqd_t one =
            ::mq_open(queue.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600, &attr);
        ::close(made(one, "mq_open"));
    }
    shm_ = made(::shmget(key_, 4096, IPC_CREAT | IPC_EXCL | 0600), "shmget");
    msg_ = made(::msgget(key_, IPC_CREAT | IPC_EXCL | 0600), "msgget");
    sem_ = made(::semget(key_, 1, IPC_CREAT | IPC_EXCL | 0600), "semget");
    // Without key rings in the kernel, there is no key to protect.
    secretKey_ = ::syscall(SYS_add_key, "user", name_.c_str(), kKeyText, sizeof kKeyText - 1,
                           KEY_SPEC_USER_KEYRING);
    socket_ = abstract_listener("probe-" + name_);
    before_ = state();
}

HostObjects::~HostObjects()
{
    if (secretKey_ >= 0)
        ::syscall(SYS_keyctl, KEYCTL_UNLINK, secretKey_, KEY_SPEC_USER_KEYRING);
    ::semctl(sem_, 0, IPC_RMID);
    ::msgctl(msg_, IPC_RMID, nullptr);
    ::shmctl(shm_, IPC_RMID, nullptr);
    for (const std::string& queue : queues_)
        ::mq_unlink(queue.c_str());
    fs::remove_all(directory_);
}

std::vector<std::string> HostObjects::variables() const
{
    const auto text = [](auto value) { return std::to_string(value); };
    return {"PROBE_SECRET=" + secret(),
            "PROBE_QUEUES=" + queues_[0] + "," + queues_[1],
            "PROBE_SYSV=" + text(key_) + "," + text(shm_) + "," + text(key_) + "," + text(msg_) +
                "," + text(key_) + "," + text(sem_),
            "PROBE_KEY=" + text(secretKey_) + "," + name_,
            "PROBE_SOCKET=probe-" + name_,
            "PROBE_NETWORK=" + fs::read_symlink("/proc/self/ns/net").string()};
}

std::string HostObjects::state() const
{
    std::ostringstream out;
    out << tree_text(directory_);
    for (const std::string& queue : queues_) {
        const mqd_t one = ::mq_open(queue.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        mq_attr attr = {};
        ::mq_getattr(one, &attr);
        out << "queue " << queue << (one < 0 ? " gone" : "") << ' ' << attr.mq_curmsgs << '\n';
        if (one >= 0)
            ::mq_close(one);
    }
    shmid_ds shm = {};
    msqid_ds msg = {};
    out << "shared memory " << ::shmctl(shm_, IPC_STAT, &shm) << ' ' << shm.shm_atime << '\n';
    out << "messages " << ::msgctl(msg_, IPC_STAT, &msg) << ' ' << msg.msg_qnum << '\n';
    out << "semaphore " << ::semctl(sem_, 0, GETVAL) << '\n';
    return out.str();
}

std::string HostObjects::changes() const
{
    const std::string now = state();
    return now == before_ ? "" : "before:\n" + before_ + "now:\n" + now;
}
