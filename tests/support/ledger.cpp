#include "ledger.hpp"

#include "spare_processes.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string link_of(const fs::path& path)
{
    std::error_code error;
    return fs::read_symlink(path, error).string();
}

bool is_number(const std::string& name)
{
    return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

// Returns the state letter of a process, 0 if it does not exist.
char state_of(const std::string& pid)
{
    const std::string stat = read_file("/proc/" + pid + "/stat");
    const std::size_t end = stat.rfind(')');
    return end == std::string::npos || end + 2 >= stat.size() ? '\0' : stat[end + 2];
}

// Returns the queues of this IPC namespace. They can be listed only by mounting the mqueue
// filesystem.
std::set<std::string> queues()
{
    const char* point = "/tmp/ledger-mqueue";
    fs::create_directories(point);
    if (::mount("mqueue", point, "mqueue", 0, nullptr) != 0)
        throw std::runtime_error("cannot mount mqueue");
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(point))
        names.insert(entry.path().filename());
    ::umount2(point, MNT_DETACH);
    fs::remove(point);
    return names;
}

// Whether the descriptor `number` of the daemon is a pidfd of one of its spare processes.
bool refers_to_spare(pid_t daemon, const std::string& number)
{
    std::ifstream info("/proc/" + std::to_string(daemon) + "/fdinfo/" + number);
    pid_t pid = -1;
    for (std::string line; pid < 0 && std::getline(info, line);)
        if (line.rfind("Pid:", 0) == 0)
            pid = std::stoi(line.substr(line.find_first_of("-0123456789")));
    return pid > 0 && spare_processes::is_one(pid);
}

} // namespace

Ledger Ledger::take(const std::string& storage, pid_t daemon)
{
    Ledger ledger;
    auto& entries = ledger.entries_;
    for (const std::string& name : queues())
        entries["queue " + name] = "";
    std::istringstream mounts(read_file("/proc/self/mountinfo"));
    for (std::string line; std::getline(mounts, line);)
        entries["mount " + line] = "";
    // Counts descendants of the daemon and of this test, and processes in PID namespaces other than
    // ours.
    const std::string own = link_of("/proc/self/ns/pid");
    std::set<std::string> family = {std::to_string(::getpid()), std::to_string(daemon)};
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string pid = entry.path().filename();
        if (!is_number(pid))
            continue;
        const std::string ns = link_of(entry.path() / "ns/pid");
        std::istringstream status(read_file(entry.path() / "status"));
        std::string parent;
        for (std::string line; std::getline(status, line);)
            if (line.rfind("PPid:", 0) == 0)
                parent = line.substr(line.find_first_of("0123456789"));
        const bool ours = family.count(parent) != 0;
        if (parent == std::to_string(daemon) && spare_processes::is_one(std::stoi(pid)))
            continue;
        if (ours && family.count(pid) == 0)
            entries["process " + pid] = read_file(entry.path() / "comm") + state_of(pid);
        if (ours && !ns.empty() && ns != own)
            entries["namespace " + ns] = "";
    }
    for (const std::string& dir :
         {storage, std::string("/overlay"), std::string("/run/zarnel/ns")}) {
        std::error_code error;
        for (auto it = fs::recursive_directory_iterator(dir, error);
             !error && it != fs::recursive_directory_iterator(); it.increment(error))
            entries["file " + it->path().string()] = "";
    }
    // Count descriptors by target, not by number: the numbers differ in another daemon.
    std::map<std::string, int> kinds;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(daemon) + "/fd")) {
        std::error_code error;
        const std::string target = fs::read_symlink(entry.path(), error).string();
        const size_t end = std::min(target.find('['), target.find(" (deleted)"));
        kinds[target.substr(0, end)]++;
        // The daemon has a pidfd and a socket of each spare process.
        if (refers_to_spare(daemon, entry.path().filename())) {
            kinds[target.substr(0, end)]--;
            kinds["socket:"]--;
        }
    }
    for (const auto& [kind, count] : kinds)
        for (int n = 1; n <= count; n++)
            entries["daemon descriptor " + kind + " " + std::to_string(n)] = "";
    return ledger;
}

std::string Ledger::compared_with(const Ledger& before) const
{
    std::string text;
    for (const auto& [key, value] : entries_)
        if (before.entries_.count(key) == 0)
            text += "new: " + key + " " + value + "\n";
    for (const auto& [key, value] : before.entries_)
        if (entries_.count(key) == 0)
            text += "gone: " + key + " " + value + "\n";
    return text;
}
