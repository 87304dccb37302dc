// Lists the processes in the PID namespace of a container, whatever started them.
#include "cli/containers/container.hpp"
#include "cli/containers/pause.hpp"
#include "commands.hpp"

#include <array>
#include <nlohmann/json.hpp>
#include <system_error>

#include "zarnel/process_list.h"

namespace zncctl {
namespace {

struct Process {
    ZN_PROCESS_INFO info; // info.command points to memory that is no longer valid; use `command`
    std::string command;
};

// All processes except process 1 of the namespace, which is the keeper.
std::vector<Process> processes_in(const std::string& pid_namespace)
{
    std::vector<Process> processes;
    const auto add = [](const ZN_PROCESS_INFO* process, void* to) {
        if (process->innerPid != 1)
            static_cast<std::vector<Process>*>(to)->push_back({*process, process->command});
    };
    if (znProcessEach(pid_namespace.c_str(), add, &processes) != OK)
        throw std::system_error(errno, std::generic_category());
    return processes;
}

std::string json(const std::vector<Process>& processes)
{
    Json list = Json::array();
    for (const Process& process : processes)
        list.push_back({{"pid", process.info.pid},
                        {"containerPid", process.info.innerPid},
                        {"parent", process.info.parent},
                        {"state", std::string(1, process.info.state)},
                        {"memoryKb", process.info.memoryKb},
                        {"command", process.command}});
    return compact(list);
}

// The PID namespace of a container; "" with errno set.
std::string pid_namespace(const std::string& id)
{
    std::array<char, 64> name{};
    const nsid_t ns = namespace_of(id);
    const pid_t holder = ns >= 0 ? znnsHolder(ns) : -1;
    if (holder < 0 || znProcessNamespace(holder, name.data(), name.size()) != OK)
        return "";
    return name.data();
}

} // namespace

int cmd_top(const Arguments& args)
{
    const std::string id = args.operand(0);
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    const CONTAINER_STATUS status = status_of(id);
    if (status == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    if (status != STATE_RUNNING)
        return failure(id, "it is not running", kExitWrongState);
    const std::string pid_namespace_name = pid_namespace(id);
    if (pid_namespace_name.empty() && errno != ESRCH && errno != ENOENT)
        return local_failure(errno, id);
    if (pid_namespace_name.empty())
        return failure(id, "it has ended", kExitWrongState);
    const std::vector<Process> processes = processes_in(pid_namespace_name);
    if (as_json)
        return print_json(json(processes));
    std::vector<std::vector<std::string>> rows = {{"PID", "CPID", "PARENT", "S", "KB", "COMMAND"}};
    for (const Process& process : processes)
        rows.push_back({std::to_string(process.info.pid), std::to_string(process.info.innerPid),
                        std::to_string(process.info.parent), std::string(1, process.info.state),
                        std::to_string(process.info.memoryKb), process.command});
    return print_result(table(rows));
}

} // namespace zncctl
