// ns_spare.hpp - spare keepers: keepers in namespaces of their own with the usual mounts, made
// ahead so that creating a namespace need not wait for them. Used by the namespace service. Setting
// their number and making them is in zarnel/ns.h. No call here fails: without a spare, a keeper is
// started when it is needed.
#ifndef ZN_NS_SPARE_HPP
#define ZN_NS_SPARE_HPP

#include "keeper_link.hpp"

#include <cstdint>

namespace zn {

// Takes a spare whose new namespaces are those given (CLONE_NEW flags). False, and nothing has
// changed, if there is none that can be used. Preserves errno.
bool spare_take(Keeper& keeper, unsigned long namespaces);

// Ends all spares and their starter, and waits for their ends until `deadline`. Preserves errno.
void spares_end(std::int64_t deadline);

} // namespace zn

#endif
