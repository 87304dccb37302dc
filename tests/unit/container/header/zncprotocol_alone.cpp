// The header compiles alone in C++, and may be included twice.
#include "zncprotocol.h"

static_assert(sizeof(zncData) == 8, "an integer parameter is 64-bit everywhere");
