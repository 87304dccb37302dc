// command_options.hpp - the options of each command, for the table in commands.cpp.
#ifndef ZNC_CLI_COMMANDS_COMMAND_OPTIONS_HPP
#define ZNC_CLI_COMMANDS_COMMAND_OPTIONS_HPP

#include "front/command.hpp"

#include <algorithm>
#include <array>

namespace zncctl {

// Options that several commands share.
inline constexpr Option kQuiet = {'q', "quiet", nullptr, "do not print the results"};
inline constexpr Option kFormat = {
    'f', "format", "FORMAT", "\"table\" (default) or \"json\"", Word::kChoice, "table json"};
inline constexpr Option kBundle = {
    'b', "bundle", "BUNDLE", "bundle directory (default: the working directory)", Word::kDirectory};
inline constexpr Option kTag = {'t', "tag", "TAG",
                                "name of the image in the layout (default: latest)"};
inline constexpr Option kOs = {
    0, "os", "OS", "operating system of the image (default: that of the only image, or linux)"};
inline constexpr Option kArch = {0, "arch", "ARCH",
                                 "architecture of the image (default: that of this machine)"};
inline constexpr Option kPlatform = {0, "platform", "OS/ARCH",
                                     "platform of the image; a variant may follow: linux/arm/v7"};
inline constexpr Option kTlsVerify = {
    0,
    "tls-verify",
    "BOOL",
    "\"false\": accept registries without TLS or with any certificate",
    Word::kChoice,
    "true false"};
inline constexpr Option kAuthFile = {
    0, "authfile", "FILE", "file with credentials (default: that of 'skopeo login')", Word::kFile};
inline constexpr Option kProgress = {
    0,
    "progress",
    "HOW",
    "how to show progress: \"auto\" (default), \"plain\", \"json\" or \"none\"",
    Word::kChoice,
    "auto plain json none"};
inline constexpr Option kImageMounts = {
    0, "allow-image-mounts", nullptr,
    "keep the mounts of host directories that the image requests"};
inline constexpr Option kLogMax = {
    0, "log-max", "BYTES", "rotate the log at this size, keeping one old log (default: 1048576)"};
inline constexpr Option kNetwork = {
    0,
    "network",
    "KIND",
    "network of the container: \"none\", \"host\" or \"pasta\" (default for an image: pasta)",
    Word::kChoice,
    "none host pasta"};
inline constexpr Option kPublish = {'p', "publish", "[IP:]HOSTPORT:PORT[/udp]",
                                    "forward a port of the host to the container; may be repeated"};
inline constexpr Option kSeconds = {0, "timeout", "SECONDS",
                                    "how long to wait (default: no limit)"};

inline constexpr Option kDetachKeys = {
    0, "detach-keys", "KEYS",
    "keys that leave the program running, such as a,ctrl-b; \"\": none (default: ctrl-p,ctrl-q)"};

// Options of run and create.
inline constexpr Option kContainerOptions[] = {
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
    {0, "pull", "POLICY",
     "fetch the image if it is \"missing\" in the store (default), \"always\" or \"never\"",
     Word::kChoice, "missing always never"},
    kPlatform,
    kOs,
    kArch,
    kTlsVerify,
    kAuthFile,
    {'q', "quiet", nullptr, "do not show the progress of fetching the image"},
    kImageMounts,
    kProgress,
};

template <std::size_t kFirst, std::size_t kSecond>
inline constexpr std::array<Option, kFirst + kSecond> joined(const Option (&first)[kFirst],
                                                             const Option (&second)[kSecond])
{
    std::array<Option, kFirst + kSecond> all{};
    std::copy(first, first + kFirst, all.begin());
    std::copy(second, second + kSecond, all.begin() + kFirst);
    return all;
}

inline constexpr Option kOnlyCreate[] = {kBundle};
inline constexpr auto kCreateOptions = joined(kOnlyCreate, kContainerOptions);
inline constexpr Option kOnlyRun[] = {
    {'d', "detach", nullptr, "print the id and return as soon as the program runs"},
    {'b', "bundle", "BUNDLE", "run this bundle instead of an image", Word::kDirectory},
    kDetachKeys,
    kLogMax,
    {0, "keep", nullptr, "no effect: containers are kept unless --rm is given"},
};
inline constexpr auto kRunOptions = joined(kOnlyRun, kContainerOptions);

inline constexpr Option kAttachOptions[] = {
    kDetachKeys,
    {0, "no-signals", nullptr, "do not forward signals to the program"},
    {0, "no-stdin", nullptr, "do not pass standard input on to the program"},
};
inline constexpr Option kStartOptions[] = {
    {'a', "attach", nullptr, "stay in the foreground and exit with the program's status"},
    {'d', "detach", nullptr, "return as soon as the program runs (default)"},
    kDetachKeys,
    kLogMax,
};
inline constexpr Option kExecOptions[] = {
    {'i', "interactive", nullptr, "pass standard input on to the program"},
    {'t', "tty", nullptr, "allocate a terminal for the program"},
    {'e', "env", "NAME[=VALUE]",
     "set an environment variable, by default to zncctl's own value; may be repeated"},
    {'w', "workdir", "DIR", "working directory in the container (default: as configured)"},
    {'u', "user", "USER[:GROUP]",
     "names or numbers of user and group (default: the container's own)"},
    {'d', "detach", nullptr, "return as soon as the program runs, and print nothing"},
    kDetachKeys,
};
inline constexpr Option kLogsOptions[] = {
    {'f', "follow", nullptr, "follow the log until the program has ended"},
    {'n', "tail", "N", "print only the last N lines (default: all)"},
    {'t', "timestamps", nullptr, "begin each line with the time at which it was written"},
    {0, "since", "TIME",
     "print only lines since this time, or since a duration before now such as 10m"},
};
inline constexpr Option kWaitOptions[] = {kSeconds};
inline constexpr Option kKillOptions[] = {
    {'s', "signal", "SIG", "name or number of the signal (default: TERM)", Word::kSignal},
    {'a', "all", nullptr, "signal all processes of the container"},
    kQuiet,
};
inline constexpr Option kStopOptions[] = {
    {'t', "time", "SECONDS", "how long to wait before sending KILL (default: 10)"},
    kQuiet,
};
inline constexpr Option kPauseOptions[] = {kQuiet};
inline constexpr Option kUpdateOptions[] = {
    {'m', "memory", "SIZE", "memory in bytes, or with the suffix k, m or g; -1: no limit"},
    {0, "memory-swap", "SIZE", "memory and swap together; -1: no limit"},
    {0, "cpus", "N", "number of processors, for example 1.5"},
    {0, "cpu-shares", "N", "weight when processors are scarce (2 to 262144, default: 1024)"},
    {0, "cpuset-cpus", "LIST", "processors to run on, for example 0-2,4"},
    {0, "pids-limit", "N", "number of processes; -1: no limit"},
    kQuiet,
};
inline constexpr Option kStatsOptions[] = {
    {'a', "all", nullptr, "show containers that are not running, too"},
    {0, "no-stream", nullptr, "print one sample instead of one each second"},
    kFormat,
};
inline constexpr Option kDeleteOptions[] = {
    {'f', "force", nullptr,
     "also delete running containers, killing their processes; ignore unknown ids"},
    {'a', "all", nullptr, "delete every container"},
    {0, "all-stopped", nullptr, "delete every stopped container"},
    {'v', "volumes", nullptr, "no effect: there are no anonymous volumes"},
    kQuiet,
};
inline constexpr Option kListOptions[] = {
    {'q', "quiet", nullptr, "print only the ids"},
    kFormat,
    {0, "status", "STATUS", "list only containers with this status", Word::kChoice,
     "created running paused stopped"},
    {0, "bundle", "BUNDLE", "list only containers made from this bundle", Word::kDirectory},
    {0, "no-trunc", nullptr, "do not truncate the output to the width of the terminal"},
};
inline constexpr Option kCpOptions[] = {
    {'a', "archive", nullptr, "no effect: copies in a container belong to the user of its program"},
};
inline constexpr Option kDiffOptions[] = {kFormat};
inline constexpr Option kExportOptions[] = {
    {'o', "output", "FILE", "write this file (default: standard output)", Word::kFile},
};
inline constexpr Option kPsOptions[] = {
    {'a', "all", nullptr, "list containers that are not running, too"},
    {'q', "quiet", nullptr, "print only the ids"},
    {'f', "filter", "KEY=VALUE",
     "list only containers with this name, id, status, label, ancestor or exited; may be repeated"},
    {0, "format", "FORMAT", "\"table\", \"json\", or fields such as \"{{.ID}} {{.Status}}\""},
    {0, "no-trunc", nullptr, "do not truncate the output"},
};
inline constexpr Option kEventsOptions[] = {
    {'f', "filter", "KEY=VALUE",
     "print only events with this container, event, image or type; may be repeated"},
    {0, "format", "FORMAT", "\"json\", or fields such as \"{{.ID}} {{.Status}}\""},
    {0, "since", "TIME",
     "begin with events since this time, or since a duration before now such as 10m"},
    {0, "until", "TIME", "end at this time, or after a duration such as 10m"},
    {0, "no-stream", nullptr, "print the events until now, and do not wait for more"},
};
inline constexpr Option kPruneOptions[] = {
    {'f', "force", nullptr, "no effect: the command does not ask"},
    {0, "filter", "KEY=VALUE", "delete only containers that match, as for ps; may be repeated"},
};
inline constexpr Option kTopOptions[] = {kFormat};
inline constexpr Option kUnpackOptions[] = {
    kTag,         kOs,
    kArch,        {0, "flatten", nullptr, "merge the layers into one tree instead of sharing them"},
    kImageMounts, kProgress};
inline constexpr Option kImageLsOptions[] = {{'q', "quiet", nullptr, "print only the tags"},
                                             kFormat};
inline constexpr Option kImageCheckOptions[] = {
    {'q', "quiet", nullptr, "print nothing; report by the exit status only"}, kFormat};
inline constexpr Option kSpecOptions[] = {
    {0, "image", "IMAGE", "start from the configuration of this image", Word::kImage},
    kOs,
    kArch,
    {'b', "bundle", "BUNDLE", "write config.json into this directory instead of printing it",
     Word::kDirectory},
};
inline constexpr Option kCheckOptions[] = {kFormat};
inline constexpr Option kDfOptions[] = {kFormat};
inline constexpr Option kGcOptions[] = {
    {'n', "dry-run", nullptr, "only print what would be removed"},
    kQuiet,
};
inline constexpr Option kVersionOptions[] = {kFormat};
inline constexpr Option kInfoOptions[] = {kFormat};

// The image store.
inline constexpr Option kImagesOptions[] = {
    {'q', "quiet", nullptr, "print only the ids"},
    {'f', "format", "FORMAT",
     "\"table\" (default), \"json\", or fields such as \"{{.ID}} {{.Size}}\"", Word::kChoice,
     "table json"},
    {0, "no-trunc", nullptr, "print whole ids, and lines longer than the terminal"},
};
inline constexpr Option kPullOptions[] = {
    {'q', "quiet", nullptr, "do not show progress"},
    kPlatform,
    {0, "os", "OS", "operating system of the image (default: linux)"},
    {0, "arch", "ARCH", "architecture of the image (default: that of this machine)"},
    kTlsVerify,
    {0, "creds", "USER[:PASSWORD]", "credentials for the registry; other users can see them"},
    kAuthFile,
    {0, "cert-dir", "DIR", "directory with certificates and keys", Word::kDirectory},
};
inline constexpr Option kLoadOptions[] = {
    {'i', "input", "FILE", "the archive (default: standard input)", Word::kFile},
    {'q', "quiet", nullptr, "do not print the names"},
};
inline constexpr Option kImagePruneOptions[] = {
    {'a', "all", nullptr, "also remove images with names that no container uses"},
    {'f', "force", nullptr, "do not ask"},
};
inline constexpr Option kRmiOptions[] = {
    {'f', "force", nullptr, "remove all names of the image and the containers made from it"},
};

} // namespace zncctl

#endif
