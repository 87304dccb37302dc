#include "commands.hpp"

#include "command_options.hpp"
#include "front/import_command.hpp"
#include "front/words.hpp"

#include <algorithm>

namespace zncctl {
namespace {

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
    {"attach", "", "ID", "follow a running container and exit with its program's status",
     kAttachOptions, 1, 1, kId, "", cmd_attach},
    {"logs", "", "ID", "print the output of a container", kLogsOptions, 1, 1, kId, "", cmd_logs},
    {"wait", "", "ID...", "wait for programs to end and print their exit codes", kWaitOptions, 1,
     kMany, kId, "", cmd_wait},
    {"kill", "", "ID...", "send a signal to the processes of containers", kKillOptions, 1, kMany,
     kId, "", cmd_kill},
    {"stop", "", "ID...", "stop containers: send TERM, then KILL after a timeout", kStopOptions, 1,
     kMany, kId, "", cmd_stop},
    {"pause", "", "ID...", "suspend all processes of containers", kPauseOptions, 1, kMany, kId, "",
     cmd_pause},
    {"resume", "unpause", "ID...", "resume paused containers", kPauseOptions, 1, kMany, kId, "",
     cmd_resume},
    {"update", "", "ID...", "change the resource limits of containers", kUpdateOptions, 1, kMany,
     kId, "", cmd_update},
    {"cp", "", "SOURCE DESTINATION",
     "copy files between a container and the host, or an archive (\"-\")", kCpOptions, 2, 2,
     Word::kFile, "", cmd_cp},
    {"diff", "", "ID", "list what a container changed in its root", kDiffOptions, 1, 1, kId, "",
     cmd_diff},
    {"export", "", "ID", "write the root filesystem of a container as a tar archive",
     kExportOptions, 1, 1, kId, "", cmd_export},
    {"delete", "rm", "[ID...]", "delete containers", kDeleteOptions, 0, kMany, kId, "", cmd_delete},
    {"state", "", "ID", "print the state of a container", {}, 1, 1, kId, "", cmd_state},
    {"ps", "", "", "list running containers with their images and commands", kPsOptions, 0, 0,
     kNone, "", cmd_ps},
    {"container prune", "", "", "delete all containers whose program has ended", kPruneOptions, 0,
     0, kNone, "", cmd_container_prune},
    {"list", "ls", "", "list containers", kListOptions, 0, 0, kNone, "", cmd_list},
    {"inspect", "", "ID", "print all details of a container", {}, 1, 1, kId, "", cmd_inspect},
    {"top", "", "ID", "list the processes of a container", kTopOptions, 1, 1, kId, "", cmd_top},
    {"stats", "", "[ID...]", "show the processor, memory and I/O usage of containers",
     kStatsOptions, 0, kMany, kId, "", cmd_stats},
    {"events", "", "", "print the events of containers", kEventsOptions, 0, 0, kNone, "",
     cmd_events},
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
     "add names to an image of the store",
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
    {"config check", "", "BUNDLE", "report what is refused or ignored in a bundle's config.json",
     kCheckOptions, 1, 1, kDir, "", cmd_config_check},
    {"storage df", "", "", "report the disk usage of images, layers, flattened trees and bundles",
     kDfOptions, 0, 0, kNone, "", cmd_storage_df},
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

// Names that container engines use for commands which have another name here.
struct OtherName {
    std::string_view words;
    std::string_view command;
};
constexpr OtherName kOtherNames[] = {
    {"image rm", "rmi"},    {"image list", "image ls"}, {"image tag", "tag"},
    {"image load", "load"}, {"image pull", "pull"},     {"image import", "import"},
};

// Commands of engines that cannot be had here.
struct AbsentCommand {
    std::string_view name;
    std::string_view reason;
};
constexpr std::string_view kUseBuilder = "build images with a tool such as buildah or umoci";
constexpr AbsentCommand kAbsentCommands[] = {
    {"rename", "the name of a container is its id, which does not change; 'zncctl run --name NAME' "
               "or 'zncctl create --name NAME' creates one with the wanted name"},
    {"restart", "a program can be started once; delete the container and run it anew"},
    {"build", kUseBuilder},
    {"commit", kUseBuilder},
    {"push", "copy images to registries with skopeo"},
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

std::string_view reason_for_absence(std::span<char* const> words)
{
    for (const AbsentCommand& absent : kAbsentCommands)
        if (absent.name == words[0])
            return absent.reason;
    return "";
}

Found find_command(std::span<char* const> words)
{
    for (const Command& command : commands()) {
        if (const std::size_t count = words_matched(command.name, words); count != 0)
            return {&command, count};
        for (const std::string& alias : split_words(command.aliases))
            if (!words.empty() && alias == words[0])
                return {&command, 1};
        for (const OtherName& other : kOtherNames)
            if (other.command == command.name)
                if (const std::size_t count = words_matched(other.words, words); count != 0)
                    return {&command, count};
    }
    return {};
}

} // namespace zncctl
