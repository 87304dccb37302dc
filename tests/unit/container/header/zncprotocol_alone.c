/* The header stands alone in C, twice. */
#include "zncprotocol.h"

_Static_assert(sizeof(zncMessage) == ZNC_MSG_MAX_LEN, "one message fills one queue message");
_Static_assert(offsetof(zncMessage, data) == ZNC_MSG_HEADER_LEN, "the header is not padded");
_Static_assert(ZNC_ALIVE == 9, "command ids are part of the wire format");
