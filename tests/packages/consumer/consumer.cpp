// consumer.cpp - uses both headers and calls into the library. Prints what it found.
#include <zncontainer.h>
#include <zncprotocol.h>

#include <cstdio>

int main()
{
    const zncMessage message = {};
    if (sizeof message != ZNC_MSG_MAX_LEN || zncUtilSignalNo("KILL") != 9)
        return 1;
    std::printf("C++: %s\n", zncUtilStateIdToString(STATE_STOPPED));
    return 0;
}
