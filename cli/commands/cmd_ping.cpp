#include "commands.hpp"
#include "front/output.hpp"

#include "zncontainer.h"

int zncctl::cmd_ping(const Arguments&)
{
    if (call_library(&zncDaemonIsAlive) != FALSE)
        return print_result("alive");
    // The queue's own number says more only when there is a queue.
    return daemon_failure(errno == ENOENT ? S_zncLib_DAEMON_NOT_RUNNING : errno, "");
}
