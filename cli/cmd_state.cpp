#include "command.hpp"
#include "output.hpp"

#include "zncontainer.h"

int zncctl::cmd_state(const Arguments& args)
{
    const znc::MallocPtr<char> state(call_library([&] { return zncState(args.operand(0)); }));
    if (state == nullptr)
        return daemon_failure(errno);
    return print_result(state.get());
}
