#include "command.hpp"
#include "output.hpp"

#include "zncontainer.h"

int zncctl::cmd_delete(const Arguments& args)
{
    const unsigned option = args.has("force") ? ZNC_OPT_WHOLE_NAMESPACE : 0;
    if (call_library([&] { return zncDelete(args.operand(0), option); }) != OK)
        return daemon_failure(errno);
    return kExitOk;
}
