#include "cli/containers/image_bundle.hpp"
#include "commands.hpp"
#include "front/output.hpp"

#include "zncontainer.h"

int zncctl::cmd_unpack(const Arguments& args)
{
    // With --tag the operand is the path of a layout, which may contain ":".
    const auto wanted = args.has("tag") ? wanted_image(args, {args.operand(0), args.value("tag")})
                                        : find_image(args, args.operand(0));
    if (!wanted)
        return kExitFailure;
    return unpack_image(args, *wanted, args.operand(1), args.has("flatten") ? ZNC_OPT_FLATTEN : 0);
}
