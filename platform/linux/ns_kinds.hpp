// ns_kinds.hpp - what a configuration says about the kinds of namespaces and about security labels.
#ifndef ZN_NS_KINDS_HPP
#define ZN_NS_KINDS_HPP

#include "settings/settings.hpp"

#include <array>
#include <cstring>
#include <sched.h>

namespace zn {

struct Kind {
    NsKind kind;
    unsigned long flag;
    const char* name;
};
// Without the mount and PID namespaces, which every keeper has: it makes the mounts and is the
// first process.
inline constexpr std::array<Kind, 4> kKinds = {{{NsKind::kIpc, CLONE_NEWIPC, "ipc"},
                                                {NsKind::kUts, CLONE_NEWUTS, "uts"},
                                                {NsKind::kCgroup, CLONE_NEWCGROUP, "cgroup"},
                                                {NsKind::kNetwork, CLONE_NEWNET, "network"}}};

inline const NsChoice& choice(const Settings& settings, NsKind kind)
{
    return settings.namespaces[static_cast<unsigned>(kind)];
}

// Whether programs are to have a label of their own.
inline bool has_label(const Text& label)
{
    return label && label[0] != '\0' && std::strcmp(label.get(), "unconfined") != 0;
}

} // namespace zn

#endif
