#include "command.hpp"

namespace zncctl {
namespace {

constexpr Option kCreateOptions[] = {
    {'b', "bundle", "BUNDLE", "the bundle directory (default: the current one)"},
};
constexpr Option kStartOptions[] = {
    {'d', "detach", nullptr, "return once the program runs"},
};
constexpr Option kKillOptions[] = {
    {'s', "signal", "SIG", "the signal (default: TERM)"},
    {'a', "all", nullptr, "signal every process of the container"},
};
constexpr Option kDeleteOptions[] = {
    {'f', "force", nullptr, "also when it runs: its processes are killed"},
};
constexpr Option kListOptions[] = {
    {'q', "quiet", nullptr, "ids only"},
    {'f', "format", "FORMAT", "\"table\" (default) or \"json\""},
};
constexpr Option kUnpackOptions[] = {
    {'t', "tag", "TAG", "the image's name in the layout (default: latest)"},
    {0, "os", "OS", "its operating system (default: zarnel)"},
    {0, "arch", "ARCH", "its architecture (default: amd64)"},
    {0, "flatten", nullptr, "one merged tree instead of shared layers"},
};

constexpr Command kCommands[] = {
    {"create", "ID [BUNDLE]", "create a container from a bundle", kCreateOptions, 1, 2, cmd_create},
    {"start", "ID", "run a created container and pass on its exit status", kStartOptions, 1, 1,
     cmd_start},
    {"kill", "ID [SIG]", "send a signal to a container's process", kKillOptions, 1, 2, cmd_kill},
    {"delete", "ID", "delete a container", kDeleteOptions, 1, 1, cmd_delete},
    {"state", "ID", "print the state of a container", {}, 1, 1, cmd_state},
    {"list", "", "list all containers", kListOptions, 0, 0, cmd_list},
    {"inspect", "ID", "print all about a container", {}, 1, 1, cmd_inspect},
    {"unpack", "LAYOUT BUNDLE", "make a bundle from an image", kUnpackOptions, 2, 2, cmd_unpack},
    {"image inspect",
     "LAYOUT",
     "print all about the images of a layout",
     {},
     1,
     1,
     cmd_image_inspect},
    {"ping", "", "ask whether the daemon answers", {}, 0, 0, cmd_ping},
};

} // namespace

std::span<const Command> commands()
{
    return kCommands;
}

} // namespace zncctl
