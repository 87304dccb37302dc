/* consumer.c - uses both headers and calls into the library. Prints what it found. */
#include <zncontainer.h>
#include <zncprotocol.h>

#include <stdio.h>

int main(void)
{
    zncMessage message = {0};
    if (sizeof message != ZNC_MSG_MAX_LEN || zncUtilSignalNo("KILL") != 9)
        return 1;
    printf("C: %s\n", zncUtilStateIdToString(STATE_RUNNING));
    return 0;
}
