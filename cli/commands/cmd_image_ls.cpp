#include "front/escape.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"

#include "commands.hpp"

#include <fmt/format.h>

namespace zncctl {
namespace {

double layers_size(const Image& image)
{
    double sum = 0;
    for (const Descriptor& layer : image.layers)
        sum += layer.size > 0 ? layer.size : 0;
    return sum;
}

int print_as_json(const std::vector<Image>& images)
{
    const Json list(cJSON_CreateArray());
    for (const Image& image : images) {
        cJSON* entry = cJSON_CreateObject();
        cJSON_AddItemToArray(list.get(), entry);
        add_text(entry, "tag", image.tag);
        add_text(entry, "os", image.os);
        add_text(entry, "architecture", image.arch);
        add_text(entry, "digest", image.manifest.digest);
        add_number(entry, "layers", static_cast<double>(image.layers.size()));
        add_number(entry, "size", layers_size(image));
        add_text(entry, "created", text_of(image.config_document.get(), "created"));
    }
    return print_json(compact(list.get()));
}

} // namespace

int cmd_image_ls(const Arguments& args)
{
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitFailure;
    std::string problem;
    const auto images = read_layout(args.operand(0), problem);
    if (!images)
        return failure(args.operand(0), problem);
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
                        std::to_string(image.layers.size()),
                        fmt::format("{:.0f}", layers_size(image)), image.manifest.digest});
    return print_result(table(rows));
}

} // namespace zncctl
