#include "command.hpp"
#include "output.hpp"

#include "zncontainer.h"

int zncctl::cmd_unpack(const Arguments& args)
{
    const ZNC_BUNDLE_ATTR attr = {args.value("os"), args.value("arch")};
    const unsigned option = args.has("flatten") ? ZNC_OPT_FLATTEN : 0;
    const char* layout = args.operand(0);
    const char* bundle = args.operand(1);
    const STATUS status =
        call_library([&] { return zncUnpack(bundle, layout, args.value("tag"), option, &attr); });
    if (status == OK)
        return kExitOk;
    return local_failure(errno, "A layer of the image is damaged or a path is too long");
}
