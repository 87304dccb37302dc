// Lists the processes in the PID namespace of a container's program.
#include "cli/containers/container.hpp"
#include "commands.hpp"
#include "front/record.hpp"

#include <system_error>

#include "zarnel/process_list.h"

namespace zncctl {
namespace {

struct Process {
    ZN_PROCESS_INFO info; // info.command points to memory that is no longer valid; use `command`
    std::string command;
};

// All processes except process 1 of the namespace, which belongs to the container system.
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
    const Json list(cJSON_CreateArray());
    for (const Process& process : processes) {
        cJSON* entry = cJSON_CreateObject();
        cJSON_AddItemToArray(list.get(), entry);
        add_number(entry, "pid", process.info.pid);
        add_number(entry, "containerPid", process.info.innerPid);
        add_number(entry, "parent", process.info.parent);
        add_text(entry, "state", std::string(1, process.info.state));
        add_number(entry, "memoryKb", static_cast<double>(process.info.memoryKb));
        add_text(entry, "command", process.command);
    }
    return compact(list.get());
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
        return failure(id, "it is not running", kExitWrongState);
    const auto record = read_record(id);
    if (!record || record->pid_namespace.empty())
        return failure(id, "it was not started by zncctl", kExitWrongState);
    const std::vector<Process> processes = processes_in(record->pid_namespace);
    if (as_json)
        return print_json(json(processes));
    std::vector<std::vector<std::string>> rows = {{"PID", "INNER", "PARENT", "S", "KB", "COMMAND"}};
    for (const Process& process : processes)
        rows.push_back({std::to_string(process.info.pid), std::to_string(process.info.innerPid),
                        std::to_string(process.info.parent), std::string(1, process.info.state),
                        std::to_string(process.info.memoryKb), process.command});
    return print_result(table(rows));
}

} // namespace zncctl
