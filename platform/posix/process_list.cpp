// process_list.cpp - POSIX cannot list processes.
#include "zarnel/process_list.h"

#include "base/failure.hpp"

STATUS znProcessNamespace(pid_t, char*, size_t)
{
    return znc::fail(ENOTSUP);
}

STATUS znProcessEach(const char*, void (*)(const ZN_PROCESS_INFO*, void*), void*)
{
    return znc::fail(ENOTSUP);
}

STATUS znProgramPath(char*, size_t)
{
    return znc::fail(ENOTSUP);
}
