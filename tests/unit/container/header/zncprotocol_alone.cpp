// The header stands alone in C++, twice.
#include "zncprotocol.h"

static_assert(sizeof(zncData) == 8, "an integer parameter is 64-bit everywhere");
