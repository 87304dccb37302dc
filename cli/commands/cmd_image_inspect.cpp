#include "cli/images/image_source.hpp"
#include "commands.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"

#include "zncontainer.h"

int zncctl::cmd_image_inspect(const Arguments& args)
{
    const auto shown = layout_of(args, args.operand(0));
    if (!shown)
        return kExitFailure;
    const std::string& layout = shown->path;
    const std::string& label = shown->label;
    std::string problem;
    bool refused = false;
    const auto images = read_layout(layout, problem, &refused);
    if (images)
        problem = size_problem(layout, *images);
    if (refused || (images && !problem.empty()))
        return failure(label, problem);
    const znc::MallocPtr<char> text(call_library([&] { return zncImageInfoGet(layout.c_str()); }));
    if (text == nullptr)
        return local_failure(errno, label);
    std::optional<Json> document = parse_json(text.get());
    if (!document)
        return local_failure(EBADMSG, label);
    // The library knows only what the manifest says, and a manifest does not contain names.
    if (shown->names && document->is_array())
        for (Json& image : *document)
            image["RepoTags"] = *shown->names;
    return print_json(pretty(*document));
}
