#include "command.hpp"
#include "output.hpp"

#include "zncontainer.h"

int zncctl::cmd_create(const Arguments& args)
{
    if (args.has("bundle") && args.operands() > 1)
        return usage_failure("the bundle is given twice");
    const char* bundle = args.operand(1, args.value("bundle", "."));
    if (call_library([&] { return zncCreate(args.operand(0), bundle, 0, nullptr); }) != OK)
        return daemon_failure(errno);
    return kExitOk;
}
