#include "cli/containers/image_bundle.hpp"
#include "commands.hpp"
#include "front/output.hpp"

#include "zncontainer.h"

int zncctl::cmd_unpack(const Arguments& args)
{
    const ImageName image = {args.operand(0), args.value("tag", kDefaultTag)};
    const unsigned option = args.has("flatten") ? ZNC_OPT_FLATTEN : 0;
    return unpack_image(args, wanted_image(args, image), args.operand(1), option);
}
