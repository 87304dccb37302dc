// The header compiles alone in C++, and may be included twice.
#include "zncontainer.h"

static_assert(STATE_CREATING == 0 && STATE_UNKNOWN == 4, "state numbers are part of the interface");
