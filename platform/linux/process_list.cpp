// process_list.cpp - processes from /proc; see process_list.h.
#include "zarnel/process_list.h"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "base/owned.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::size_t kStatusMax = 8192;
constexpr std::size_t kCommandMax = std::size_t{64} * 1024; // longer ones are truncated
constexpr std::size_t kNameMax = 64;

// Reads up to size - 1 bytes of a file in /proc/PID and terminates them. Returns the length; 0 on
// error.
std::size_t read_start(pid_t pid, const char* name, char* buffer, std::size_t size)
{
    char path[kNameMax];
    std::snprintf(path, sizeof path, "/proc/%d/%s", pid, name);
    const znc::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    std::size_t len = 0;
    while (file && len < size - 1) {
        const ssize_t n = ::read(file.get(), buffer + len, size - 1 - len);
        if (n <= 0)
            break;
        len += static_cast<std::size_t>(n);
    }
    buffer[len] = '\0';
    return len;
}

// The text after "Name:" in a status file; empty if there is no such line.
const char* line_of(const char* status, const char* name)
{
    const std::size_t len = std::strlen(name);
    for (const char* line = status; line != nullptr; line = std::strchr(line, '\n')) {
        line += *line == '\n' ? 1 : 0;
        if (std::strncmp(line, name, len) == 0 && line[len] == ':')
            return line + len + 1 + std::strspn(line + len + 1, " \t");
    }
    return "";
}

pid_t last_number(const char* line)
{
    long number = 0;
    char* end = nullptr;
    for (const char* at = line; *at != '\n' && *at != '\0'; at = end) {
        const long next = std::strtol(at, &end, 10);
        if (end == at)
            break;
        number = next;
        end += std::strspn(end, " \t");
    }
    return static_cast<pid_t>(number);
}

void read_command(pid_t pid, const char* status, char* command)
{
    std::size_t len = read_start(pid, "cmdline", command, kCommandMax);
    for (std::size_t i = 0; i < len; i++)
        if (command[i] == '\0')
            command[i] = ' ';
    while (len > 0 && command[len - 1] == ' ')
        command[--len] = '\0';
    if (len == 0) {
        const char* name = line_of(status, "Name");
        std::snprintf(command, kCommandMax, "[%.*s]", static_cast<int>(std::strcspn(name, "\n")),
                      name);
    }
}

// Reads the target of a link, truncated to `size` bytes.
ssize_t read_link(const char* path, char* target, std::size_t size)
{
    const ssize_t len = ::readlink(path, target, size - 1);
    target[len > 0 ? len : 0] = '\0';
    return len;
}

} // namespace

STATUS znProcessNamespace(pid_t pid, char* name, size_t size)
{
    char path[kNameMax];
    std::snprintf(path, sizeof path, "/proc/%d/ns/pid", pid);
    return read_link(path, name, size) > 0 ? OK : ERROR;
}

STATUS znProcessEach(const char* nameSpace,
                     void (*visit)(const ZN_PROCESS_INFO* process, void* context), void* context)
{
    const znc::UniqueDir dir(::opendir("/proc"));
    const auto command = znc::malloc_array<char>(kCommandMax);
    if (!dir || !command)
        return ERROR;
    char status[kStatusMax];
    char name[kNameMax];
    while (const dirent* entry = znc::next_entry(dir.get())) {
        const pid_t pid = std::atoi(entry->d_name); // 0 if not a number
        if (pid <= 0 || znProcessNamespace(pid, name, sizeof name) != OK ||
            std::strcmp(name, nameSpace) != 0 ||
            read_start(pid, "status", status, sizeof status) == 0)
            continue;
        read_command(pid, status, command.get());
        const ZN_PROCESS_INFO info = {pid,
                                      last_number(line_of(status, "NSpid")),
                                      last_number(line_of(status, "PPid")),
                                      *line_of(status, "State"),
                                      std::strtoull(line_of(status, "VmRSS"), nullptr, 10),
                                      command.get()};
        visit(&info, context);
    }
    return errno == 0 ? OK : ERROR;
}

STATUS znProgramPath(char* path, size_t size)
{
    const ssize_t len = read_link("/proc/self/exe", path, size);
    if (len < 0)
        return ERROR;
    if (static_cast<std::size_t>(len) < size - 1)
        return OK;
    return znc::fail(ENAMETOOLONG);
}
