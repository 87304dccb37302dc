/* version.c - the version of the library, which strings(1) also finds: "znc: libzncontainer ...".
 */
#include "zncontainer.h"

#define IDENT "znc: libzncontainer "

static const char ident[] = IDENT ZNC_VERSION;

const char* zncVersionGet(void)
{
    return ident + sizeof IDENT - 1;
}
