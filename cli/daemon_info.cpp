#include "daemon_info.hpp"

#include "files.hpp"
#include "output.hpp"
#include "runtime_dir.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>

#include "zncontainer.h"

namespace zncctl {

pid_t daemon_pid()
{
    if (call_library(&zncDaemonIsAlive) == FALSE)
        return 0;
    const auto text = read_file(std::string(zncd::kRuntimeDir) + "/zncd.lock");
    return text ? static_cast<pid_t>(std::strtol(text->c_str(), nullptr, 10)) : 0;
}

namespace {

// What a program prints when it is run with one argument, up to 128 bytes; empty when it cannot be.
std::string output_of(const std::string& program, const char* argument)
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return "";
    const znc::UniqueFd reader(ends[0]);
    znc::UniqueFd writer(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDWR, 0);
    ::posix_spawn_file_actions_adddup2(&actions, writer.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, STDIN_FILENO, STDERR_FILENO);
    std::string name = program;
    std::string word = argument;
    std::array<char*, 3> words = {name.data(), word.data(), nullptr};
    pid_t pid = -1;
    const int error =
        ::posix_spawn(&pid, program.c_str(), &actions, nullptr, words.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    writer.reset();
    if (error != 0)
        return "";
    std::string text(128, '\0');
    const ssize_t n = ::read(reader.get(), text.data(), text.size());
    text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return text;
}

} // namespace

// The program the daemon was started from, also when a newer one has taken its place on disk.
std::string daemon_version()
{
    const pid_t pid = daemon_pid();
    if (pid <= 0)
        return "";
    const std::string text = output_of(fmt::format("/proc/{}/exe", pid), "--version");
    const std::size_t blank = text.find(' ');
    const std::size_t end = text.find('\n');
    return blank == text.npos ? "" : text.substr(blank + 1, end - blank - 1);
}

} // namespace zncctl
