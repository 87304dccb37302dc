#include "command.hpp"
#include "json.hpp"
#include "output.hpp"

#include "zncontainer.h"

int zncctl::cmd_image_inspect(const Arguments& args)
{
    const char* layout = args.operand(0);
    const znc::MallocPtr<char> text(call_library([&] { return zncImageInfoGet(layout); }));
    if (text == nullptr)
        return local_failure(errno, layout);
    const Json document = parse_json(text.get());
    if (document == nullptr)
        return local_failure(EBADMSG, layout);
    return print_result(pretty(document.get()));
}
