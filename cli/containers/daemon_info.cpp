#include "daemon_info.hpp"

#include "front/output.hpp"

#include "zarnel/daemon_file.h"
#include "zncontainer.h"

namespace zncctl {
namespace {

// Empty if no daemon answers: the file may have been left by a daemon that died.
znDaemonInfo daemon_info()
{
    znDaemonInfo info = {};
    if (call_library(&zncDaemonIsAlive) == FALSE || znDaemonInfoRead(&info) != OK)
        return {};
    return info;
}

} // namespace

pid_t daemon_pid()
{
    return daemon_info().pid;
}

std::string daemon_version()
{
    return daemon_info().version;
}

} // namespace zncctl
