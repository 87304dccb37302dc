#include "command.hpp"
#include "output.hpp"

#include "zncontainer.h"

int zncctl::cmd_image_inspect(const Arguments& args)
{
    const znc::MallocPtr<char> document(
        call_library([&] { return zncImageInfoGet(args.operand(0)); }));
    if (document == nullptr)
        return local_failure(errno);
    return print_result(document.get());
}
