/* version.c - what the built library says of itself, also to strings(1): "znc: libzncontainer ...".
 */
#include "zncontainer.h"

#define IDENT "znc: libzncontainer "

static const char ident[] = IDENT ZNC_VERSION;

const char* zncVersionGet(void)
{
    return ident + sizeof IDENT - 1;
}
