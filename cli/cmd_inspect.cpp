#include "command.hpp"
#include "output.hpp"

#include "zncontainer.h"

int zncctl::cmd_inspect(const Arguments& args)
{
    const znc::MallocPtr<char> document(
        call_library([&] { return zncContainerInfoGet(args.operand(0)); }));
    if (document == nullptr)
        return daemon_failure(errno);
    return print_result(document.get());
}
