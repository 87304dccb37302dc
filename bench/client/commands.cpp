// commands.cpp - runs sequences of commands repeatedly and measures each round.
//
// usage: bench_commands ROUNDS COMMAND... [-- COMMAND...]...
//        bench_commands peak COMMAND...
//
// In every word "@" is replaced by an id that is new in each round. The command "wait" waits for a
// process that an earlier command left behind (this program is the subreaper). Output of commands
// is discarded; a failing command ends the run. Prints the nanoseconds of each round, or with
// "peak" the maximum memory of the command in KiB. A larger parent process could not measure this,
// because the kernel includes the memory that the process had before exec.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

using Command = std::vector<std::string>;

std::vector<Command> parse(char** words)
{
    std::vector<Command> commands(1);
    for (; *words != nullptr; words++) {
        if (std::string(*words) == "--")
            commands.emplace_back();
        else
            commands.back().emplace_back(*words);
    }
    return commands;
}

void substitute(std::string& word, const std::string& id)
{
    for (std::size_t at; (at = word.find('@')) != std::string::npos;)
        word.replace(at, 1, id);
}

bool wait_for(pid_t pid)
{
    int status = -1;
    return ::waitpid(pid, &status, 0) > 0 && status == 0;
}

bool run(Command command, const std::string& id, const posix_spawn_file_actions_t* actions)
{
    if (command.front() == "wait")
        return wait_for(-1);
    std::vector<char*> argv;
    for (std::string& word : command) {
        substitute(word, id);
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    return ::posix_spawnp(&pid, argv[0], actions, nullptr, argv.data(), environ) == 0 &&
           wait_for(pid);
}

} // namespace

int main(int argc, char** argv)
{
    const bool peak = argc > 2 && std::string_view(argv[1]) == "peak";
    const int rounds = peak ? 1 : argc > 2 ? std::atoi(argv[1]) : 0;
    if (rounds < 1) {
        std::fputs("usage: bench_commands ROUNDS COMMAND... [-- COMMAND...]...\n", stderr);
        return 64;
    }
    const std::vector<Command> commands = parse(argv + 2);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    for (int i = 0; i < rounds; i++) {
        const std::string id = "b" + std::to_string(::getpid()) + "n" + std::to_string(i);
        const auto start = std::chrono::steady_clock::now();
        for (const Command& command : commands)
            if (!run(command, id, &actions)) {
                std::fprintf(stderr, "bench_commands: %s failed\n", command.front().c_str());
                return 1;
            }
        const std::chrono::nanoseconds spent = std::chrono::steady_clock::now() - start;
        rusage usage = {};
        ::getrusage(RUSAGE_CHILDREN, &usage);
        std::printf("%lld\n", peak ? static_cast<long long>(usage.ru_maxrss)
                                   : static_cast<long long>(spent.count()));
    }
    return 0;
}
