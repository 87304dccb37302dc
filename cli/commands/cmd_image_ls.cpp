#include "front/escape.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"

#include "commands.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace zncctl {
namespace {

// A layout of strangers can say anything: sums stay below the largest number.
std::int64_t layers_size(const Image& image)
{
    std::int64_t sum = 0;
    for (const Descriptor& layer : image.layers)
        sum += std::clamp<std::int64_t>(layer.size, 0, INT64_MAX - sum);
    return sum;
}

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
                        std::to_string(image.layers.size()), std::to_string(layers_size(image)),
                        image.manifest.digest});
    return print_result(table(rows));
}

} // namespace zncctl
