// The processes of a container are those in the process namespace of its program, but for the
// keeper, which is the first there.
#include "cli/containers/container.hpp"
#include "commands.hpp"
#include "front/files.hpp"
#include "front/record.hpp"
#include "front/words.hpp"

#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncctl {
namespace {

struct Process {
    std::string pid;
    std::string inner_pid;
    std::string parent;
    std::string state;
    std::string memory; // kB
    std::string command;
};

std::string namespace_of(const std::string& pid)
{
    std::array<char, 64> text{};
    const ssize_t len = ::readlink(("/proc/" + pid + "/ns/pid").c_str(), text.data(), text.size());
    return len > 0 ? std::string(text.data(), static_cast<std::size_t>(len)) : "";
}

// The value of a line "Name:\tvalue" of a status file.
std::string line_of(const std::string& status, const std::string& name)
{
    const std::size_t at = ("\n" + status).find("\n" + name + ":");
    if (at == status.npos)
        return "";
    const std::size_t from = status.find_first_not_of(" \t", at + name.size() + 1);
    return status.substr(from, status.find('\n', from) - from);
}

std::string command_of(const std::string& pid, const std::string& status)
{
    std::string command = read_file("/proc/" + pid + "/cmdline").value_or("");
    for (char& c : command)
        c = c == '\0' ? ' ' : c;
    while (command.ends_with(' '))
        command.pop_back();
    return command.empty() ? "[" + line_of(status, "Name") + "]" : command;
}

std::vector<Process> processes_in(const std::string& pid_namespace)
{
    std::vector<Process> processes;
    std::error_code error;
    for (std::filesystem::directory_iterator it("/proc", error), end; it != end && !error;
         it.increment(error)) {
        const std::string pid = it->path().filename();
        if (!to_number<int>(pid) || namespace_of(pid) != pid_namespace)
            continue;
        const std::string status = read_file("/proc/" + pid + "/status").value_or("");
        const std::string ids = line_of(status, "NSpid");
        const std::string inner = ids.substr(ids.find_last_of(" \t") + 1);
        if (inner == "1")
            continue;
        const std::string memory = line_of(status, "VmRSS");
        processes.push_back({pid, inner, line_of(status, "PPid"), line_of(status, "State"),
                             memory.substr(0, memory.find(' ')), command_of(pid, status)});
    }
    return processes;
}

std::string json(const std::vector<Process>& processes)
{
    Json list = Json::array();
    for (const Process& process : processes)
        list.push_back({{"pid", to_number<int>(process.pid).value_or(0)},
                        {"containerPid", to_number<int>(process.inner_pid).value_or(0)},
                        {"parent", to_number<int>(process.parent).value_or(0)},
                        {"state", process.state.substr(0, 1)},
                        {"memoryKb", to_number<int>(process.memory).value_or(0)},
                        {"command", process.command}});
    return compact(list);
}

} // namespace

int cmd_top(const Arguments& args)
{
    const std::string id = args.operand(0);
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitFailure;
    const CONTAINER_STATUS status = status_of(id);
    if (status == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    if (status != STATE_RUNNING)
        return failure(id, "it does not run", kExitWrongState);
    const auto record = read_record(id);
    if (!record || record->pid_namespace.empty())
        return failure(id, "it was not started by zncctl", kExitWrongState);
    const std::vector<Process> processes = processes_in(record->pid_namespace);
    if (as_json)
        return print_json(json(processes));
    std::vector<std::vector<std::string>> rows = {{"PID", "INNER", "PARENT", "S", "KB", "COMMAND"}};
    for (const Process& process : processes)
        rows.push_back({process.pid, process.inner_pid, process.parent, process.state.substr(0, 1),
                        process.memory, process.command});
    return print_result(table(rows));
}

} // namespace zncctl
