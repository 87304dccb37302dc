#include "daemon_info.hpp"

#include "files.hpp"
#include "output.hpp"
#include "runtime_dir.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <memory>

#include "zncontainer.h"

namespace zncctl {

pid_t daemon_pid()
{
    if (call_library(&zncDaemonIsAlive) == FALSE)
        return 0;
    const auto text = read_file(std::string(zncd::kRuntimeDir) + "/zncd.lock");
    return text ? static_cast<pid_t>(std::strtol(text->c_str(), nullptr, 10)) : 0;
}

// The program the daemon was started from, also when a newer one has taken its place on disk.
std::string daemon_version()
{
    const pid_t pid = daemon_pid();
    if (pid <= 0)
        return "";
    struct PipeCloser {
        void operator()(FILE* pipe) const { ::pclose(pipe); }
    };
    const std::string command = fmt::format("/proc/{}/exe --version 2>/dev/null </dev/null", pid);
    const std::unique_ptr<FILE, PipeCloser> pipe(::popen(command.c_str(), "re"));
    std::array<char, 128> line{};
    if (!pipe || std::fgets(line.data(), line.size(), pipe.get()) == nullptr)
        return "";
    const std::string text = line.data();
    const std::size_t blank = text.find(' ');
    const std::size_t end = text.find('\n');
    return blank == text.npos ? "" : text.substr(blank + 1, end - blank - 1);
}

} // namespace zncctl
