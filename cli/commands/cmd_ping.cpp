#include "commands.hpp"
#include "front/output.hpp"

#include "zncontainer.h"

int zncctl::cmd_ping(const Arguments&)
{
    if (call_library(&zncDaemonIsAlive) != FALSE)
        return print_result("alive");
    // ENOENT means that the queue does not exist; other errors of the queue are reported as they
    // are.
    return daemon_failure(errno == ENOENT ? S_zncLib_DAEMON_NOT_RUNNING : errno, "");
}
