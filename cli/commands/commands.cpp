#include "commands.hpp"

#include "front/import_command.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <array>

namespace zncctl {
namespace {

// Options that several commands share.
constexpr Option kQuiet = {'q', "quiet", nullptr, "do not print the results"};
constexpr Option kFormat = {'f',           "format",    "FORMAT", "\"table\" (default) or \"json\"",
                            Word::kChoice, "table json"};
constexpr Option kBundle = {'b', "bundle", "BUNDLE",
                            "bundle directory (default: the working directory)", Word::kDirectory};
constexpr Option kTag = {'t', "tag", "TAG", "name of the image in the layout (default: latest)"};
constexpr Option kOs = {
    0, "os", "OS", "operating system of the image (default: that of the only image, or linux)"};
constexpr Option kArch = {0, "arch", "ARCH",
                          "architecture of the image (default: that of this machine)"};
constexpr Option kProgress = {
    0,
    "progress",
    "HOW",
    "how to show progress: \"auto\" (default), \"plain\", \"json\" or \"none\"",
    Word::kChoice,
    "auto plain json none"};
constexpr Option kImageMounts = {0, "allow-image-mounts", nullptr,
                                 "keep the mounts of host directories that the image requests"};
constexpr Option kLogMax = {0, "log-max", "BYTES",
                            "rotate the log at this size, keeping one old log (default: 1048576)"};
constexpr Option kNetwork = {
    0,
    "network",
    "KIND",
    "network of the container: \"none\", \"host\" or \"pasta\" (default for an image: pasta)",
    Word::kChoice,
    "none host pasta"};
constexpr Option kPublish = {'p', "publish", "[IP:]HOSTPORT:PORT[/udp]",
                             "forward a port of the host to the container; may be repeated"};
constexpr Option kSeconds = {0, "timeout", "SECONDS", "how long to wait (default: no limit)"};

// Options of run and create.
constexpr Option kContainerOptions[] = {
    {0, "name", "ID", "id of the container (default for run: a new one)"},
    {0, "rm", nullptr, "delete the container when its program has ended"},
    {'i', "interactive", nullptr, "pass standard input on to the program"},
    {'t', "tty", nullptr, "allocate a terminal for the program"},
    {'e', "env", "NAME[=VALUE]",
     "set an environment variable, by default to zncctl's own value; may be repeated"},
    {0, "env-file", "FILE", "set the variables in the lines of this file; may be repeated",
     Word::kFile},
    {'v', "volume", "SOURCE:DESTINATION[:ro]",
     "mount a directory or file of the host; may be repeated"},
    {0, "mount", "type=TYPE,...", "mount a \"bind\" or \"tmpfs\"; may be repeated"},
    {0, "tmpfs", "DESTINATION[:OPTIONS]", "mount an empty file system in memory; may be repeated"},
    {'w', "workdir", "DIR", "working directory in the container"},
    {'u', "user", "USER[:GROUP]", "names or numbers of user and group in the container"},
    {0, "entrypoint", "PROGRAM", "program to run instead of the image's entry point"},
    {'h', "hostname", "NAME", "host name (default for an image: the id)"},
    {0, "read-only", nullptr, "make the root read-only, with tmpfs at /run, /tmp and /var/tmp"},
    {'m', "memory", "SIZE", "memory in bytes, or with the suffix k, m or g"},
    {0, "memory-swap", "SIZE", "memory and swap together; -1: no limit"},
    {0, "cpus", "N", "number of processors, for example 1.5"},
    {0, "cpu-shares", "N", "weight when processors are scarce (2 to 262144, default: 1024)"},
    {0, "cpuset-cpus", "LIST", "processors to run on, for example 0-2,4"},
    {0, "pids-limit", "N", "number of processes (default: 4096)"},
    {0, "cap-add", "NAME",
     "add a capability (needs zncd --allow-privileged unless containers have it by default)"},
    {0, "cap-drop", "NAME", "drop a capability, or ALL; may be repeated"},
    {0, "security-opt", "OPTION",
     "\"seccomp=FILE\", \"seccomp=unconfined\" or \"no-new-privileges[=false]\""},
    {'l', "label", "NAME[=VALUE]", "set an annotation of the container; may be repeated"},
    {0, "cidfile", "FILE", "write the id into this file, which must not exist", Word::kFile},
    {0, "init", nullptr, "no effect: process 1 of each container reaps orphans"},
    {0, "restart", "POLICY", "only \"no\": nothing restarts containers", Word::kChoice, "no"},
    kNetwork,
    kPublish,
    kOs,
    kArch,
    kImageMounts,
    kProgress,
};

template <std::size_t kFirst, std::size_t kSecond>
constexpr std::array<Option, kFirst + kSecond> joined(const Option (&first)[kFirst],
                                                      const Option (&second)[kSecond])
{
    std::array<Option, kFirst + kSecond> all{};
    std::copy(first, first + kFirst, all.begin());
    std::copy(second, second + kSecond, all.begin() + kFirst);
    return all;
}

constexpr Option kOnlyCreate[] = {kBundle};
constexpr auto kCreateOptions = joined(kOnlyCreate, kContainerOptions);
constexpr Option kOnlyRun[] = {
    {'d', "detach", nullptr, "print the id and return as soon as the program runs"},
    {'b', "bundle", "BUNDLE", "run this bundle instead of an image", Word::kDirectory},
    kLogMax,
    {0, "keep", nullptr, "no effect: containers are kept unless --rm is given"},
};
constexpr auto kRunOptions = joined(kOnlyRun, kContainerOptions);

constexpr Option kAttachOptions[] = {
    {0, "no-signals", nullptr, "do not forward signals to the program"},
};
constexpr Option kStartOptions[] = {
    {'a', "attach", nullptr, "stay in the foreground and exit with the program's status"},
    {'d', "detach", nullptr, "return as soon as the program runs (default)"},
    kLogMax,
};
constexpr Option kExecOptions[] = {
    {'i', "interactive", nullptr, "pass standard input on to the program"},
    {'t', "tty", nullptr, "allocate a terminal for the program"},
    {'e', "env", "NAME[=VALUE]",
     "set an environment variable, by default to zncctl's own value; may be repeated"},
    {'w', "workdir", "DIR", "working directory in the container (default: as configured)"},
    {'u', "user", "USER[:GROUP]",
     "names or numbers of user and group (default: the container's own)"},
    {'d', "detach", nullptr, "return as soon as the program runs, and print nothing"},
};
constexpr Option kLogsOptions[] = {
    {'f', "follow", nullptr, "follow the log until the program has ended"},
    {'n', "tail", "N", "print only the last N lines (default: all)"},
    {'t', "timestamps", nullptr, "print before each line when it was written"},
    {0, "since", "TIME", "print only lines written since this time, or so long ago, such as 10m"},
};
constexpr Option kWaitOptions[] = {kSeconds};
constexpr Option kKillOptions[] = {
    {'s', "signal", "SIG", "name or number of the signal (default: TERM)", Word::kSignal},
    {'a', "all", nullptr, "signal all processes of the container"},
    kQuiet,
};
constexpr Option kStopOptions[] = {
    {'t', "time", "SECONDS", "how long to wait before sending KILL (default: 10)"},
    kQuiet,
};
constexpr Option kPauseOptions[] = {kQuiet};
constexpr Option kUpdateOptions[] = {
    {'m', "memory", "SIZE", "memory in bytes, or with the suffix k, m or g; -1: no limit"},
    {0, "memory-swap", "SIZE", "memory and swap together; -1: no limit"},
    {0, "cpus", "N", "number of processors, for example 1.5"},
    {0, "cpu-shares", "N", "weight when processors are scarce (2 to 262144, default: 1024)"},
    {0, "cpuset-cpus", "LIST", "processors to run on, for example 0-2,4"},
    {0, "pids-limit", "N", "number of processes; -1: no limit"},
    kQuiet,
};
constexpr Option kStatsOptions[] = {
    {'a', "all", nullptr, "show containers that are not running, too"},
    {0, "no-stream", nullptr, "print one sample instead of one each second"},
    kFormat,
};
constexpr Option kDeleteOptions[] = {
    {'f', "force", nullptr,
     "delete a running container too: kill its processes; ignore ids that do not exist"},
    {'a', "all", nullptr, "delete every container"},
    {0, "all-stopped", nullptr, "delete every stopped container"},
    {'v', "volumes", nullptr, "no effect: there are no anonymous volumes"},
    kQuiet,
};
constexpr Option kListOptions[] = {
    {'q', "quiet", nullptr, "print only the ids"},
    kFormat,
    {0, "status", "STATUS", "list only containers with this status", Word::kChoice,
     "created running paused stopped"},
    {0, "bundle", "BUNDLE", "list only containers made from this bundle", Word::kDirectory},
    {0, "no-trunc", nullptr, "do not truncate the output to the width of the terminal"},
};
constexpr Option kCpOptions[] = {
    {'a', "archive", nullptr, "no effect: the owner in a container is that of its program"},
};
constexpr Option kPsOptions[] = {
    {'a', "all", nullptr, "list containers that are not running, too"},
    {'q', "quiet", nullptr, "print only the ids"},
    {'f', "filter", "KEY=VALUE",
     "list only containers with this name, id, status, label, ancestor or exited; may be repeated"},
    {0, "format", "FORMAT", "\"table\", \"json\", or fields such as \"{{.ID}} {{.Status}}\""},
    {0, "no-trunc", nullptr, "do not truncate the output"},
};
constexpr Option kPruneOptions[] = {
    {'f', "force", nullptr, "no effect: it does not ask"},
    {0, "filter", "KEY=VALUE", "delete only containers that match, as for ps; may be repeated"},
};
constexpr Option kTopOptions[] = {kFormat};
constexpr Option kUnpackOptions[] = {
    kTag,         kOs,
    kArch,        {0, "flatten", nullptr, "merge the layers into one tree instead of sharing them"},
    kImageMounts, kProgress};
constexpr Option kImageLsOptions[] = {{'q', "quiet", nullptr, "print only the tags"}, kFormat};
constexpr Option kImageCheckOptions[] = {
    {'q', "quiet", nullptr, "print nothing; report by the exit status only"}, kFormat};
constexpr Option kSpecOptions[] = {
    {0, "image", "IMAGE", "start from the configuration of this image", Word::kImage},
    kOs,
    kArch,
    {'b', "bundle", "BUNDLE", "write config.json into this directory instead of printing it",
     Word::kDirectory},
};
constexpr Option kCheckOptions[] = {kFormat};
constexpr Option kDfOptions[] = {kFormat};
constexpr Option kGcOptions[] = {
    {'n', "dry-run", nullptr, "only print what would be removed"},
    kQuiet,
};
constexpr Option kVersionOptions[] = {kFormat};
constexpr Option kInfoOptions[] = {kFormat};

// The image store.
constexpr Option kImagesOptions[] = {
    {'q', "quiet", nullptr, "print only the ids"},
    kFormat,
    {0, "no-trunc", nullptr, "print whole ids, and lines longer than the terminal"},
};
constexpr Option kPullOptions[] = {
    {'q', "quiet", nullptr, "do not show progress"},
    {0, "platform", "OS/ARCH", "which of several images; a variant may follow: linux/arm/v7"},
    {0, "os", "OS", "the same by operating system only (default: linux)"},
    {0, "arch", "ARCH", "the same by architecture only (default: that of this machine)"},
    {0, "tls-verify", "BOOL", "\"false\": accept registries without TLS or with any certificate",
     Word::kChoice, "true false"},
    {0, "creds", "USER[:PASSWORD]", "credentials for the registry; other users can see them"},
    {0, "authfile", "FILE", "file with credentials (default: that of 'skopeo login')", Word::kFile},
    {0, "cert-dir", "DIR", "directory with certificates and keys", Word::kDirectory},
};
constexpr Option kLoadOptions[] = {
    {'i', "input", "FILE", "the archive (default: standard input)", Word::kFile},
    {'q', "quiet", nullptr, "do not print the names"},
};
constexpr Option kImagePruneOptions[] = {
    {'a', "all", nullptr, "also remove images with names that no container uses"},
    {'f', "force", nullptr, "do not ask"},
};
constexpr Option kRmiOptions[] = {
    {'f', "force", nullptr, "remove all names of the image and the containers made from it"},
};

constexpr Word kId = Word::kContainer;
constexpr Word kDir = Word::kDirectory;
constexpr Word kImage = Word::kImage;
constexpr Word kNone = Word::kAny;

constexpr Command kCommands[] = {
    {"create", "", "[ID|IMAGE] [BUNDLE|COMMAND] [ARG...]",
     "create a container from a bundle or, with --name, from an image", kCreateOptions, 0, kMany,
     kDir, "", cmd_create, ProgramWords::kAfterName},
    {"start", "", "ID...", "start created containers", kStartOptions, 1, kMany, kId, "", cmd_start},
    {"run", "", "[IMAGE] [COMMAND] [ARG...]", "create a container and start its program",
     kRunOptions, 0, kMany, kImage, "", cmd_run, ProgramWords::kAll},
    {"exec", "", "ID COMMAND [ARG...]",
     "start another program in a running container and exit with its status", kExecOptions, 2,
     kMany, kId, "", cmd_exec, ProgramWords::kAfterMark},
    {"attach", "", "ID", "follow a detached container and exit with its program's status",
     kAttachOptions, 1, 1, kId, "", cmd_attach},
    {"logs", "", "ID", "print the output of a detached container", kLogsOptions, 1, 1, kId, "",
     cmd_logs},
    {"wait", "", "ID...", "wait for programs to end and print their exit codes", kWaitOptions, 1,
     kMany, kId, "", cmd_wait},
    {"kill", "", "ID...", "send a signal to the processes of containers", kKillOptions, 1, kMany,
     kId, "", cmd_kill},
    {"stop", "", "ID...", "stop containers: send TERM, then KILL after a timeout", kStopOptions, 1,
     kMany, kId, "", cmd_stop},
    {"pause", "", "ID...", "suspend all processes of containers", kPauseOptions, 1, kMany, kId, "",
     cmd_pause},
    {"resume", "unpause", "ID...", "let the processes of paused containers continue", kPauseOptions,
     1, kMany, kId, "", cmd_resume},
    {"update", "", "ID...", "change the resource limits of containers", kUpdateOptions, 1, kMany,
     kId, "", cmd_update},
    {"cp", "", "SOURCE DESTINATION", "copy files between a container and the host", kCpOptions, 2,
     2, Word::kFile, "", cmd_cp},
    {"delete", "rm", "[ID...]", "delete containers", kDeleteOptions, 0, kMany, kId, "", cmd_delete},
    {"state", "", "ID", "print the state of a container", {}, 1, 1, kId, "", cmd_state},
    {"ps", "", "", "list running containers with their images and commands", kPsOptions, 0, 0,
     kNone, "", cmd_ps},
    {"container prune", "", "", "delete all containers whose program has ended", kPruneOptions, 0,
     0, kNone, "", cmd_container_prune},
    {"list", "ls", "", "list containers", kListOptions, 0, 0, kNone, "", cmd_list},
    {"inspect", "", "ID", "print all details of a container", {}, 1, 1, kId, "", cmd_inspect},
    {"top", "", "ID", "list the processes of a container", kTopOptions, 1, 1, kId, "", cmd_top},
    {"stats", "", "[ID...]", "show what containers use of processor, memory and devices",
     kStatsOptions, 0, kMany, kId, "", cmd_stats},
    {"unpack", "", "IMAGE BUNDLE", "create a bundle from an image", kUnpackOptions, 2, 2, kImage,
     "", cmd_unpack},
    import_command(cmd_import),
    {"image inspect",
     "",
     "IMAGE",
     "print all details of an image, or of the images in a layout",
     {},
     1,
     1,
     kImage,
     "",
     cmd_image_inspect},
    {"image ls", "", "[IMAGE]", "list the images of the store, or in a layout", kImageLsOptions, 0,
     1, kImage, "", cmd_image_ls},
    {"image check", "", "IMAGE", "check whether images can be unpacked", kImageCheckOptions, 1, 1,
     kImage, "", cmd_image_check},
    {"pull", "", "NAME...", "fetch images from a registry into the store", kPullOptions, 1, kMany,
     kNone, "", cmd_pull},
    {"load", "", "", "add the images of an archive to the store", kLoadOptions, 0, 0, kNone, "",
     cmd_load},
    {"images", "", "[NAME]", "list the images of the store", kImagesOptions, 0, 1, kImage, "",
     cmd_images},
    {"tag",
     "",
     "IMAGE NAME...",
     "give an image of the store more names",
     {},
     2,
     kMany,
     kNone,
     "",
     cmd_tag},
    {"rmi", "", "IMAGE...", "remove names and images from the store", kRmiOptions, 1, kMany, kImage,
     "", cmd_rmi},
    {"image prune", "", "", "remove images that no name and no container refers to",
     kImagePruneOptions, 0, 0, kNone, "", cmd_image_prune},
    {"spec", "", "", "print a template config.json", kSpecOptions, 0, 0, kNone, "", cmd_spec},
    {"config check", "", "BUNDLE", "report what in a bundle's config.json is refused or ignored",
     kCheckOptions, 1, 1, kDir, "", cmd_config_check},
    {"storage df", "", "", "report the disk usage of layers, trees and overlay devices", kDfOptions,
     0, 0, kNone, "", cmd_storage_df},
    {"storage gc", "", "[BUNDLE...]", "remove stored data that no bundle and no container needs",
     kGcOptions, 0, kMany, kDir, "", cmd_storage_gc},
    {"system df", "", "", "the same as storage df", kDfOptions, 0, 0, kNone, "", cmd_storage_df},
    {"system prune", "", "[BUNDLE...]", "the same as storage gc", kGcOptions, 0, kMany, kDir, "",
     cmd_storage_gc},
    {"ping", "", "", "check whether the daemon answers", {}, 0, 0, kNone, "", cmd_ping},
    {"version", "", "", "print the versions of client, daemon and protocol", kVersionOptions, 0, 0,
     kNone, "", cmd_version},
    {"info", "", "", "print information about the daemon and the system", kInfoOptions, 0, 0, kNone,
     "", cmd_info},
    {"completion",
     "",
     "SHELL",
     "print the completion script for a shell",
     {},
     1,
     1,
     Word::kChoice,
     "bash zsh fish",
     cmd_completion},
};

// Returns how many of the leading words form the command `name`; 0 if they do not match it.
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
