// ns_network.cpp - there are no networks of namespaces.
#include "zarnel/ns_network.h"

#include "base/failure.hpp"

STATUS znnsNetConnect(nsid_t, const char*, const char* const*, int, char* problem, size_t size)
{
    if (size != 0)
        problem[0] = '\0';
    return znc::fail(ENOTSUP);
}
