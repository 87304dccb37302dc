// zncrun - the OCI runtime: the command line by which container engines (podman, containerd,
// docker, CRI-O) run containers. It serves one command and ends; no daemon is involved.
#include "context.hpp"
#include "front/files.hpp"
#include "front/parse.hpp"
#include "front/usage.hpp"
#include "log.hpp"
#include "zncontainer.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <span>
#include <unistd.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

using zncctl::Option;

struct Entry {
    zncctl::Command command;
    int (*run)(const Context& context, const Arguments& args);
};

constexpr Option kBundle = {'b', "bundle", "DIR", "the bundle (default: the working directory)"};
constexpr Option kConfig = {'f', "config", "FILE",
                            "the configuration, instead of config.json in the bundle"};
constexpr Option kConsole = {0, "console-socket", "SOCKET",
                             "socket that receives the master of the pseudo-terminal"};
constexpr Option kDetach = {'d', "detach", nullptr, "do not wait for the program"};
constexpr Option kPidFile = {0, "pid-file", "FILE", "file that gets the process id"};
constexpr Option kPreserve = {0, "preserve-fds", "N",
                              "descriptors from 3 up that the program gets"};
constexpr Option kNoPivot = {0, "no-pivot", nullptr,
                             "no effect: the root is always changed with pivot_root"};
constexpr Option kNoKeyring = {0, "no-new-keyring", nullptr,
                               "the program keeps the session keyring of the caller"};

constexpr Option kCreate[] = {
    kBundle, kConfig, kConsole, kPidFile, kPreserve, kNoPivot, kNoKeyring,
};
constexpr Option kRun[] = {
    kBundle,
    kConfig,
    kConsole,
    kDetach,
    {0, "keep", nullptr, "do not delete the container when the program has ended"},
    kPidFile,
    kPreserve,
    kNoPivot,
    kNoKeyring,
};
constexpr Option kExec[] = {
    {'p', "process", "FILE", "the program, as \"process\" in a configuration"},
    kDetach,
    kPidFile,
    kConsole,
    {'t', "tty", nullptr, "give the program a terminal"},
    kPreserve,
    {0, "ignore-paused", nullptr, "wait until a paused container continues"},
    {0, "cwd", "DIR", "the working directory"},
    {'e', "env", "NAME=VALUE", "an environment variable"},
    {'u', "user", "UID[:GID]", "the user"},
    {'g', "additional-gids", "GID", "a supplementary group"},
    {'c', "cap", "CAP", "a capability to add"},
    {0, "no-new-privs", nullptr, "set-user-ID programs have no effect"},
    {0, "process-label", "LABEL", "the SELinux label"},
    {0, "apparmor", "PROFILE", "the AppArmor profile"},
    {0, "cgroup", "[CONTROLLER:]PATH", "an existing group below that of the container"},
};
constexpr Option kKill[] = {{'a', "all", nullptr, "all processes of the container"}};
constexpr Option kDelete[] = {
    {'f', "force", nullptr, "kill a running container; ignore one that does not exist"},
    {'r', "regex", nullptr, "delete all containers whose id matches the regular expression"},
};
constexpr Option kUpdate[] = {
    {'r', "resources", "FILE", "limits as in linux.resources; - is the standard input"},
    {0, "memory", "BYTES", "limit of memory"},
    {0, "memory-reservation", "BYTES", "soft limit of memory (reservation)"},
    {0, "memory-swap", "BYTES", "limit of memory and swap space"},
    {0, "cpu-share", "N", "share of the processors"},
    {0, "cpu-shares", "N", "share of the processors"},
    {0, "cpu-quota", "MICROSECONDS", "processor time in each period"},
    {0, "cpu-period", "MICROSECONDS", "length of the period"},
    {0, "cpuset-cpus", "LIST", "processors"},
    {0, "cpuset-mems", "LIST", "memory nodes"},
    {0, "pids-limit", "N", "limit of processes"},
    {0, "blkio-weight", "N", "share of block devices"},
};
constexpr Option kFormat[] = {{'f', "format", "FORMAT", "json or table"}};
constexpr Option kList[] = {{'f', "format", "FORMAT", "json or table"},
                            {'q', "quiet", nullptr, "ids only"}};
constexpr Option kSpec[] = {
    {'b', "bundle", "DIR", "directory of the file (default: the working directory)"}};
constexpr Option kEvents[] = {
    {0, "stats", nullptr, "print the statistics once"},
    {0, "interval", "TIME", "time between statistics, such as 5s or 100ms"}};

constexpr zncctl::Command describe(const char* name, const char* arguments, const char* help,
                                   std::span<const Option> options, std::size_t least,
                                   std::size_t most, bool program = false)
{
    return {name,
            "",
            arguments,
            help,
            options,
            least,
            most,
            zncctl::Word::kAny,
            "",
            nullptr,
            program ? zncctl::ProgramWords::kAfterMark : zncctl::ProgramWords::kNone};
}

constexpr Entry kCommands[] = {
    {describe("create", "ID", "create a container", kCreate, 1, 1), run_create},
    {describe("start", "ID", "start the program of a created container", {}, 1, 1), run_start},
    {describe("run", "ID", "create and start a container", kRun, 1, 1), run_run},
    {describe("exec", "ID [PROGRAM [ARG]...]", "run a further program in a container", kExec, 1,
              zncctl::kMany, true),
     run_exec},
    {describe("state", "ID", "print the state of a container", {}, 1, 1), run_state},
    {describe("kill", "ID [SIGNAL]", "send a signal to a container", kKill, 1, 2), run_kill},
    {describe("delete", "ID", "delete a container", kDelete, 1, 1), run_delete},
    {describe("pause", "ID", "suspend all processes of a container", {}, 1, 1), run_pause},
    {describe("resume", "ID", "let the processes of a container continue", {}, 1, 1), run_resume},
    {describe("update", "ID", "change the limits of a container", kUpdate, 1, 1), run_update},
    {describe("ps", "ID", "list the processes of a container", kFormat, 1, zncctl::kMany, true),
     run_ps},
    {describe("events", "ID", "print what a container uses", kEvents, 1, 1), run_events},
    {describe("list", "", "list containers", kList, 0, 0), run_list},
    {describe("spec", "", "write a configuration to start from", kSpec, 0, 0), run_spec},
    {describe("features", "", "print what is supported", {}, 0, 0), run_features},
};

int print_version()
{
    std::fputs(fmt::format("zncrun version {}.{}.{}\nspec: {}\n", ZNC_VERSION_MAJOR,
                           ZNC_VERSION_MINOR, ZNC_VERSION_PATCH, kSpecification)
                   .c_str(),
               stdout);
    return 0;
}

constexpr Option kGlobal[] = {
    {0, "root", "DIR", "directory of the state directories"},
    {0, "log", "FILE", "file to which errors are appended"},
    {0, "log-format", "FORMAT", "text or json"},
    {0, "cgroup-manager", "NAME", "how control groups are created: cgroupfs, systemd or disabled"},
    {0, "systemd-cgroup", nullptr, "the same as --cgroup-manager=systemd"},
    {0, "rootless", "WORD", "no effect"},
    {0, "debug", nullptr, "log what is done, too; without --log to standard error"},
    {0, "version", nullptr, "print the version"},
    {0, "help", nullptr, "print this text"},
};

std::string option_rows(std::span<const Option> options)
{
    std::string text;
    for (const Option& option : options) {
        const std::string letter =
            option.letter != 0 ? fmt::format("-{}, ", option.letter) : "    ";
        const std::string value = option.value != nullptr ? fmt::format(" {}", option.value) : "";
        text +=
            zncctl::table_row(fmt::format("{}--{}{}", letter, option.name, value), option.help, 34);
    }
    return text;
}

int print_help()
{
    std::string text = "usage: zncrun [OPTION]... COMMAND [ARGUMENT]...\n\n";
    for (const Entry& entry : kCommands)
        text += zncctl::table_row(fmt::format("{} {}", entry.command.name, entry.command.arguments),
                                  entry.command.help, 34);
    text += "\n" + option_rows(kGlobal);
    std::fputs(text.c_str(), stdout);
    return 0;
}

int print_command_help(const zncctl::Command& command)
{
    std::fputs(fmt::format("usage: zncrun {} [OPTION]... {}\n\n{}.\n\n{}", command.name,
                           command.arguments, command.help, option_rows(command.options))
                   .c_str(),
               stdout);
    return 0;
}

// An option before the command, with its value in the same word or in the next one.
class GlobalOptions {
  public:
    GlobalOptions(Context& context, std::span<char* const> words) : context_(context), words_(words)
    {
    }

    // The words from the command on.
    std::span<char* const> read()
    {
        while (!words_.empty() && words_.front()[0] == '-') {
            const std::string word = words_.front();
            words_ = words_.subspan(1);
            const std::size_t equal = word.find('=');
            const std::string name =
                word.substr(word.find_first_not_of('-'), equal - word.find_first_not_of('-'));
            hasValue_ = equal != word.npos;
            value_ = hasValue_ ? word.substr(equal + 1) : "";
            take(name);
        }
        return words_;
    }
    [[nodiscard]] bool version() const { return version_; }
    [[nodiscard]] bool help() const { return help_; }

  private:
    void take(const std::string& name)
    {
        if (name == "root") {
            context_.root = value(name);
        } else if (name == "log") {
            context_.log = value(name);
        } else if (name == "log-format") {
            context_.log_json = one_of(name, {"text", "json"}) == "json";
        } else if (name == "debug") {
            context_.debug = flag();
        } else if (name == "systemd-cgroup") {
            context_.systemd = flag();
        } else if (name == "cgroup-manager") {
            const std::string manager = one_of(name, {"cgroupfs", "systemd", "disabled"});
            context_.systemd = manager == "systemd";
            context_.groups = manager != "disabled";
        } else if (name == "rootless") {
            static_cast<void>(one_of(name, {"false", "auto", "true"}));
        } else if (name == "version" || name == "v") {
            version_ = true;
        } else if (name == "help" || name == "h") {
            help_ = true;
        } else {
            throw Failure(fmt::format("unknown option {:?}", name));
        }
    }
    std::string value(const std::string& name)
    {
        if (hasValue_)
            return value_;
        if (words_.empty())
            throw Failure(fmt::format("option {:?} needs a value", name));
        std::string next = words_.front();
        words_ = words_.subspan(1);
        return next;
    }
    std::string one_of(const std::string& name, std::initializer_list<const char*> words)
    {
        std::string given = value(name);
        if (std::find(words.begin(), words.end(), given) == words.end())
            throw Failure(fmt::format("--{}: unknown word {:?}", name, given));
        return given;
    }
    [[nodiscard]] bool flag() const { return !hasValue_ || value_ != "false"; }

    Context& context_;
    std::span<char* const> words_;
    bool hasValue_ = false;
    std::string value_;
    bool version_ = false;
    bool help_ = false;
};

const Entry* find_command(std::string_view name)
{
    for (const Entry& entry : kCommands)
        if (name == entry.command.name)
            return &entry;
    return nullptr;
}

int run_command(const Context& context, std::span<char* const> words)
{
    const Entry* entry = words.empty() ? nullptr : find_command(words.front());
    if (entry == nullptr)
        throw Failure(words.empty() ? std::string("a command is missing")
                                    : fmt::format("unknown command {:?}", words.front()));
    const zncctl::Parsed parsed = zncctl::parse(entry->command, words.subspan(1));
    if (parsed.help)
        return print_command_help(entry->command);
    if (!parsed.problem.empty())
        throw Failure(fmt::format("{}: {}", entry->command.name, parsed.problem));
    debug_line(context, fmt::format("command {}, root {}", entry->command.name, context.root));
    const int status = entry->run(context, parsed.args);
    debug_line(context, fmt::format("command {}: exit status {}", entry->command.name, status));
    return status;
}

} // namespace
} // namespace zncrun

int main(int argc, char** argv)
{
    zncrun::Context context;
    int failed = 1;
    // With the caller's SIG_IGN, ends of children could not be waited for.
    std::signal(SIGCHLD, SIG_DFL);
    try {
        zncrun::GlobalOptions options(
            context,
            std::span<char* const>(argv + 1, static_cast<std::size_t>(argc > 0 ? argc - 1 : 0)));
        const std::span<char* const> words = options.read();
        if (options.version())
            return zncrun::print_version();
        if (options.help())
            return zncrun::print_help();
        zncrun::check_log(context);
        // Engines tell a failed exec from a program that ended with 1.
        if (!words.empty() && std::strcmp(words.front(), "exec") == 0)
            failed = zncrun::kExecFailed;
        return zncrun::run_command(context, words);
    } catch (const std::exception& failure) {
        zncrun::log_line(context, "error", failure.what());
        static_cast<void>(
            znc::write_all(STDERR_FILENO, std::string("zncrun: ") + failure.what() + "\n"));
    }
    return failed;
}
