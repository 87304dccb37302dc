// exchange.hpp - exchanges the names of two directories where the system cannot do it atomically.
// Used by znDirExchange.
#ifndef ZN_PLATFORM_EXCHANGE_HPP
#define ZN_PLATFORM_EXCHANGE_HPP

#include "zarnel/types.h"

namespace zn {

// By three renames: `b` does not exist for a moment. ERROR with errno set and both names unchanged.
STATUS exchange_by_renames(const char* a, const char* b);

} // namespace zn

#endif
