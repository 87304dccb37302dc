/* The header stands alone in C, twice. */
#include "zncontainer.h"

_Static_assert(sizeof(STATUS) == 4 && OK == 0 && ERROR == -1, "results are 32-bit");
_Static_assert(sizeof(BOOL) == 4 && sizeof(OBJ_HANDLE) == 4 && sizeof(nsid_t) == 4,
               "32-bit handles");
_Static_assert(S_zncLib_LAYOUT_NOT_FOUND == 0xdf0001, "first library code");
_Static_assert(S_zncLib_SIGNATURE_VERIFY_FAILED == 0xdf0021, "last library code");
