// zncRuntimeSpec_members.hpp - the members of a bundle's "config.json": which members the reader
// looks up, and of which type their values must be. The reader and zncConfigCheck use the same
// table, so that both know the same members. Used by zncRuntimeSpec and zncContainerLib.
#ifndef ZNCRUNTIMESPEC_MEMBERS_HPP
#define ZNCRUNTIMESPEC_MEMBERS_HPP

#include "zncPath.hpp"
#include "zncontainer.h"

#include <cstring>

namespace znc {

enum class Need {
    kRequired,
    kOptional,
    kNoEffect, // read and shown by inspection only
    kPlatform, // read and applied by the platform
};

struct SpecMember {
    const char* name;
    ZNC_CONFIG_TYPE type;
    Need need = Need::kOptional;
    const SpecMember* members = nullptr; // of the object, or of each object of the array
    std::size_t count = 0;
};

template <std::size_t N>
constexpr SpecMember spec_object(const char* name, ZNC_CONFIG_TYPE type, Need need,
                                 const SpecMember (&members)[N])
{
    return {name, type, need, static_cast<const SpecMember*>(members), N};
}

enum ProcessMember { kArgs, kEnv, kCwd, kTerminal };
inline constexpr SpecMember kProcessMembers[] = {
    {"args", ZNC_CONFIG_PROGRAM, Need::kRequired},
    {"env", ZNC_CONFIG_STRINGS},
    {"cwd", ZNC_CONFIG_ABSOLUTE_PATH, Need::kRequired},
    {"terminal", ZNC_CONFIG_BOOLEAN, Need::kNoEffect},
    {"user", ZNC_CONFIG_ANY, Need::kPlatform},
    {"capabilities", ZNC_CONFIG_ANY, Need::kPlatform},
    {"noNewPrivileges", ZNC_CONFIG_ANY, Need::kPlatform},
    {"rlimits", ZNC_CONFIG_ANY, Need::kPlatform},
    {"oomScoreAdj", ZNC_CONFIG_ANY, Need::kPlatform},
    {"apparmorProfile", ZNC_CONFIG_ANY, Need::kPlatform},
    {"selinuxLabel", ZNC_CONFIG_ANY, Need::kPlatform},
};

enum RootMember { kRootPath, kReadonly };
inline constexpr SpecMember kRootMembers[] = {
    {"path", ZNC_CONFIG_PATH, Need::kRequired},
    {"readonly", ZNC_CONFIG_BOOLEAN, Need::kPlatform},
};

enum MountMember { kSource, kDestination, kMountType, kOptions };
inline constexpr SpecMember kMountMembers[] = {
    {"source", ZNC_CONFIG_STRING},
    {"destination", ZNC_CONFIG_STRING},
    {"type", ZNC_CONFIG_STRING},
    {"options", ZNC_CONFIG_STRINGS},
};

enum RtpMember { kRtpOptions, kRtpPriority, kRtpStackSize, kRtpTaskOptions };
inline constexpr SpecMember kRtpMembers[] = {
    {"rtpOptions", ZNC_CONFIG_NUMBER_STRING},
    {"rtpPriority", ZNC_CONFIG_NUMBER_STRING},
    {"rtpStackSize", ZNC_CONFIG_NUMBER_STRING},
    {"rtpTaskOptions", ZNC_CONFIG_NUMBER_STRING},
};

enum ZarnelMember { kRtp };
inline constexpr SpecMember kZarnelMembers[] = {
    spec_object("rtp", ZNC_CONFIG_OBJECT, Need::kOptional, kRtpMembers),
};

enum DocumentMember {
    kVersion,
    kHostname,
    kAnnotations,
    kProcess,
    kRoot,
    kMounts,
    kHooks,
    kZarnel
};
inline constexpr SpecMember kDocumentMembers[] = {
    {"ociVersion", ZNC_CONFIG_VERSION, Need::kRequired},
    {"hostname", ZNC_CONFIG_STRING, Need::kPlatform},
    {"annotations", ZNC_CONFIG_STRING_MAP},
    spec_object("process", ZNC_CONFIG_OBJECT, Need::kRequired, kProcessMembers),
    spec_object("root", ZNC_CONFIG_OBJECT, Need::kRequired, kRootMembers),
    spec_object("mounts", ZNC_CONFIG_OBJECTS, Need::kOptional, kMountMembers),
    {"hooks", ZNC_CONFIG_OBJECT, Need::kNoEffect},
    spec_object("zarnel", ZNC_CONFIG_OBJECT, Need::kOptional, kZarnelMembers),
    {"linux", ZNC_CONFIG_ANY, Need::kPlatform},
};

// The checks of strings that creating a container makes. Null is invalid.
inline bool is_spec_path(const char* text)
{
    return text != nullptr && text[0] != '\0';
}
inline bool is_spec_absolute_path(const char* text)
{
    return text != nullptr && pathIsSep(text[0]);
}
inline bool is_spec_version(const char* text)
{
    constexpr std::size_t kRoom = sizeof CONTAINER_STATE::ver;
    return is_spec_path(text) && ::strnlen(text, kRoom) < kRoom;
}

} // namespace znc

#endif
