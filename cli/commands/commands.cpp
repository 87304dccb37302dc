#include "commands.hpp"

#include "front/import_command.hpp"
#include "front/words.hpp"

namespace zncctl {
namespace {

// Options that several commands share.
constexpr Option kQuiet = {'q', "quiet", nullptr, "print no result lines"};
constexpr Option kFormat = {'f',           "format",    "FORMAT", "\"table\" (default) or \"json\"",
                            Word::kChoice, "table json"};
constexpr Option kBundle = {'b', "bundle", "BUNDLE", "the bundle directory (default: this one)",
                            Word::kDirectory};
constexpr Option kTag = {'t', "tag", "TAG", "the image's name in the layout (default: latest)"};
constexpr Option kOs = {0, "os", "OS", "its operating system (default: zarnel)"};
constexpr Option kArch = {0, "arch", "ARCH", "its architecture (default: amd64)"};
constexpr Option kProgress = {0,
                              "progress",
                              "HOW",
                              "how unpacking reports: \"auto\", \"plain\", \"json\" or \"none\"",
                              Word::kChoice,
                              "auto plain json none"};
constexpr Option kImageMounts = {0, "allow-image-mounts", nullptr,
                                 "keep mounts of the host's directories that the image asks for"};
constexpr Option kLogMax = {0, "log-max", "BYTES",
                            "size at which the log is rotated once (default: 1048576)"};
constexpr Option kSeconds = {0, "timeout", "SECONDS", "how long to wait (default: for ever)"};

constexpr Option kAttachOptions[] = {
    {0, "no-signals", nullptr, "pass no signals on to the program"},
};
constexpr Option kCreateOptions[] = {kBundle};
constexpr Option kStartOptions[] = {
    {'a', "attach", nullptr, "stay, and end as the program does"},
    {'d', "detach", nullptr, "return once the program runs (default)"},
    kLogMax,
};
constexpr Option kRunOptions[] = {
    {'d', "detach", nullptr, "print the id and return once the program runs; implies --keep"},
    {'t', "tty", nullptr, "give the program a terminal of its own"},
    {0, "keep", nullptr, "do not delete the container afterwards"},
    {'b', "bundle", "BUNDLE", "run this bundle, not an image", Word::kDirectory},
    kOs,
    kArch,
    kImageMounts,
    kProgress,
    kLogMax,
};
constexpr Option kLogsOptions[] = {
    {'f', "follow", nullptr, "go on until the program has ended"},
    {'n', "tail", "N", "only the last N lines"},
};
constexpr Option kWaitOptions[] = {kSeconds};
constexpr Option kKillOptions[] = {
    {'s', "signal", "SIG", "the signal, by name or number (default: TERM)", Word::kSignal},
    {'a', "all", nullptr, "signal every process of the container"},
    kQuiet,
};
constexpr Option kStopOptions[] = {
    {'t', "time", "SECONDS", "how long to wait before the signal KILL (default: 10)"},
    kQuiet,
};
constexpr Option kDeleteOptions[] = {
    {'f', "force", nullptr, "also when it runs: its processes are killed"},
    {0, "all-stopped", nullptr, "delete every stopped container"},
    kQuiet,
};
constexpr Option kListOptions[] = {
    {'q', "quiet", nullptr, "ids only"},
    kFormat,
    {0, "status", "STATUS", "only containers of this status", Word::kChoice,
     "created running stopped"},
    {0, "bundle", "BUNDLE", "only containers of this bundle", Word::kDirectory},
    {0, "no-trunc", nullptr, "cut nothing to the width of the terminal"},
};
constexpr Option kTopOptions[] = {kFormat};
constexpr Option kUnpackOptions[] = {
    kTag,         kOs,
    kArch,        {0, "flatten", nullptr, "one merged tree instead of shared layers"},
    kImageMounts, kProgress};
constexpr Option kImageLsOptions[] = {{'q', "quiet", nullptr, "tags only"}, kFormat};
constexpr Option kImageCheckOptions[] = {{'q', "quiet", nullptr, "exit status only"}, kFormat};
constexpr Option kSpecOptions[] = {
    {0, "image", "LAYOUT[:TAG]", "take over what the image says", Word::kDirectory},
    kOs,
    kArch,
    {'b', "bundle", "BUNDLE", "write config.json there instead of printing it", Word::kDirectory},
};
constexpr Option kCheckOptions[] = {kFormat};
constexpr Option kDfOptions[] = {kFormat};
constexpr Option kGcOptions[] = {
    {'n', "dry-run", nullptr, "only print what would be removed"},
    kQuiet,
};
constexpr Option kVersionOptions[] = {kFormat};
constexpr Option kInfoOptions[] = {kFormat};

constexpr Word kId = Word::kContainer;
constexpr Word kDir = Word::kDirectory;
constexpr Word kNone = Word::kAny;

constexpr Command kCommands[] = {
    {"create", "", "ID [BUNDLE]", "create a container from a bundle", kCreateOptions, 1, 2, kDir,
     "", cmd_create},
    {"start", "", "ID...", "start created containers", kStartOptions, 1, kMany, kId, "", cmd_start},
    {"run", "", "[LAYOUT[:TAG]] [ID]", "create and start a container; delete it when it has ended",
     kRunOptions, 0, 2, kDir, "", cmd_run},
    {"attach", "", "ID", "follow a detached container and end as its program does", kAttachOptions,
     1, 1, kId, "", cmd_attach},
    {"logs", "", "ID", "print what a detached container has printed", kLogsOptions, 1, 1, kId, "",
     cmd_logs},
    {"wait", "", "ID...", "wait for programs to end and print their exit codes", kWaitOptions, 1,
     kMany, kId, "", cmd_wait},
    {"kill", "", "ID...", "send a signal to the containers' processes", kKillOptions, 1, kMany, kId,
     "", cmd_kill},
    {"stop", "", "ID...", "end containers: signal TERM, and KILL when that is not enough",
     kStopOptions, 1, kMany, kId, "", cmd_stop},
    {"delete", "rm", "[ID...]", "delete containers", kDeleteOptions, 0, kMany, kId, "", cmd_delete},
    {"state", "", "ID", "print the state of a container", {}, 1, 1, kId, "", cmd_state},
    {"list", "ps ls", "", "list containers", kListOptions, 0, 0, kNone, "", cmd_list},
    {"inspect", "", "ID", "print all about a container", {}, 1, 1, kId, "", cmd_inspect},
    {"top", "", "ID", "list the processes of a container", kTopOptions, 1, 1, kId, "", cmd_top},
    {"unpack", "", "LAYOUT BUNDLE", "make a bundle from an image", kUnpackOptions, 2, 2, kDir, "",
     cmd_unpack},
    import_command(cmd_import),
    {"image inspect",
     "",
     "LAYOUT",
     "print all about the images of a layout",
     {},
     1,
     1,
     kDir,
     "",
     cmd_image_inspect},
    {"image ls", "", "LAYOUT", "list the images of a layout", kImageLsOptions, 1, 1, kDir, "",
     cmd_image_ls},
    {"image check", "", "LAYOUT", "tell whether the images of a layout can be unpacked",
     kImageCheckOptions, 1, 1, kDir, "", cmd_image_check},
    {"spec", "", "", "print a config.json to start from", kSpecOptions, 0, 0, kNone, "", cmd_spec},
    {"config check", "", "BUNDLE", "tell what of a bundle's config.json is refused or ignored",
     kCheckOptions, 1, 1, kDir, "", cmd_config_check},
    {"storage df", "", "", "tell what layers, trees and overlay devices use", kDfOptions, 0, 0,
     kNone, "", cmd_storage_df},
    {"storage gc", "", "[BUNDLE...]", "remove what no bundle and no container needs", kGcOptions, 0,
     kMany, kDir, "", cmd_storage_gc},
    {"ping", "", "", "ask whether the daemon answers", {}, 0, 0, kNone, "", cmd_ping},
    {"version", "", "", "print the versions of client, daemon and protocol", kVersionOptions, 0, 0,
     kNone, "", cmd_version},
    {"info", "", "", "print what the system offers", kInfoOptions, 0, 0, kNone, "", cmd_info},
    {"completion",
     "",
     "SHELL",
     "print the completions for a shell",
     {},
     1,
     1,
     Word::kChoice,
     "bash zsh fish",
     cmd_completion},
};

// How many of the words typed are the command's name; 0 if they are not.
std::size_t words_matched(std::string_view name, std::span<char* const> words)
{
    const std::vector<std::string> parts = split_words(name);
    if (parts.size() > words.size() || !std::equal(parts.begin(), parts.end(), words.begin()))
        return 0;
    return parts.size();
}

} // namespace

std::span<const Command> commands()
{
    return kCommands;
}

Found find_command(std::span<char* const> words)
{
    for (const Command& command : commands()) {
        if (const std::size_t count = words_matched(command.name, words); count != 0)
            return {&command, count};
        for (const std::string& alias : split_words(command.aliases))
            if (!words.empty() && alias == words[0])
                return {&command, 1};
    }
    return {};
}

} // namespace zncctl
