// confinement.hpp - the confinement of programs as the helper reads it (helper/wire.hpp). Used by
// the namespace service and by engines' containers.
#ifndef ZN_CONFINEMENT_HPP
#define ZN_CONFINEMENT_HPP

#include "helper/wire.hpp"
#include "settings/settings_reader.hpp"

#include <span>

namespace zn {

// `rules` with the user, capabilities (if they are given), limits, mappings, groups and labels of
// the settings, the filter, and the files through which the control group is entered behind it, in
// memory of `size` bytes; null with errno set.
znc::MallocPtr<char[]> confinement_pack(wire::Confinement rules, const Settings& settings,
                                        std::span<const wire::FilterCode> filter,
                                        List<Text> entries, std::size_t& size);

// Whether the kernel has what the settings need to give labels. 0, or ENOTSUP with `fault` set.
int labels_check(const Settings& settings, SettingsFault& fault);

} // namespace zn

#endif
