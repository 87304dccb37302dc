#include "commands.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"

#include "zncontainer.h"

int zncctl::cmd_image_inspect(const Arguments& args)
{
    const char* layout = args.operand(0);
    std::string problem;
    bool refused = false;
    const auto images = read_layout(layout, problem, &refused);
    if (images)
        problem = size_problem(layout, *images);
    if (refused || (images && !problem.empty()))
        return failure(layout, problem);
    const znc::MallocPtr<char> text(call_library([&] { return zncImageInfoGet(layout); }));
    if (text == nullptr)
        return local_failure(errno, layout);
    const std::optional<Json> document = parse_json(text.get());
    if (!document)
        return local_failure(EBADMSG, layout);
    return print_json(pretty(*document));
}
