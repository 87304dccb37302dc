#include "cli/images/image_list.hpp"
#include "cli/images/image_source.hpp"
#include "commands.hpp"
#include "front/escape.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"

#include <stdexcept>

namespace zncctl {
namespace {

int print_as_json(const std::vector<Image>& images)
{
    Json list = Json::array();
    for (const Image& image : images)
        list.push_back({{"tag", image.tag},
                        {"os", image.os},
                        {"architecture", image.arch},
                        {"digest", image.manifest.digest},
                        {"layers", image.layers.size()},
                        {"size", layers_size(image)},
                        {"created", text_of(image.config_document, "created")}});
    return print_json(compact(list));
}

int print_names()
try {
    std::string names;
    for (const StoredImage& image : stored_images())
        names += image.name.empty() ? "" : image.name + "\n";
    return names.empty() ? static_cast<int>(kExitOk) : print_result(names);
} catch (const std::runtime_error& error) {
    return failure("", error.what());
}

} // namespace

int cmd_image_ls(const Arguments& args)
{
    // The tags in the store are full names.
    if (args.operands() == 0 && !args.has("quiet"))
        return cmd_images(args);
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    if (args.operands() == 0)
        return print_names();
    const auto shown = layout_of(args, args.operand(0));
    if (!shown)
        return kExitFailure;
    std::string problem;
    const auto images = read_layout(shown->path, problem);
    if (!images)
        return failure(shown->label, problem);
    if (args.has("quiet")) {
        std::string tags;
        for (const Image& image : *images)
            tags += printable(image.tag) + "\n";
        return tags.empty() ? static_cast<int>(kExitOk) : print_result(tags);
    }
    if (as_json)
        return print_as_json(*images);
    std::vector<std::vector<std::string>> rows = {
        {"TAG", "OS", "ARCH", "LAYERS", "SIZE", "DIGEST"}};
    for (const Image& image : *images)
        rows.push_back({image.tag.empty() ? "-" : image.tag, image.os, image.arch,
                        std::to_string(image.layers.size()), std::to_string(layers_size(image)),
                        image.manifest.digest});
    return print_result(table(rows));
}

} // namespace zncctl
