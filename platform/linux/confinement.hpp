// confinement.hpp - the confinement of programs as the helper reads it (helper/wire.hpp). Used by
// the namespace service and by engines' containers.
#ifndef ZN_CONFINEMENT_HPP
#define ZN_CONFINEMENT_HPP

#include "helper/wire.hpp"
#include "settings/settings_reader.hpp"

#include <linux/filter.h>
#include <span>

namespace zn {

// Returns `rules`, completed with the user and capabilities (if given) of the settings, followed by
// the arrays of the record: limits, mappings, filter, groups, the files through which the control
// group is entered, and labels. The memory has `size` bytes; null with errno set.
znc::MallocPtr<char[]> confinement_pack(wire::Confinement rules, const Settings& settings,
                                        std::span<const wire::FilterCode> filter,
                                        List<Text> entries, std::size_t& size);

// Copies a filter to the form that the record holds. 0, or ENOMEM; then `to` is unchanged.
int copy_filter(const List<sock_filter>& from, List<wire::FilterCode>& to);

// Checks whether the kernel supports the labels in the settings. 0, or ENOTSUP with `fault` set.
int labels_check(const Settings& settings, SettingsFault& fault);

} // namespace zn

#endif
