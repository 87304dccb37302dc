// Lists the images of the store.
#include "cli/images/image_list.hpp"
#include "cli/images/image_source.hpp"
#include "cli/images/reference.hpp"
#include "commands.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <set>
#include <stdexcept>

namespace zncctl {
namespace {

constexpr std::size_t kShortId = 12;

// Whether an image is one of those that the operand means: a name, or one without its tag.
bool is_meant(const ListedImage& image, const std::string& operand)
{
    const std::size_t colon = operand.rfind(':');
    const bool any_tag = colon == operand.npos || operand.find('/', colon) != operand.npos;
    const auto names = possible_references(operand);
    return std::any_of(names.begin(), names.end(), [&](const Reference& name) {
        return name.text() == image.entry.name || (any_tag && name.repository == image.repository);
    });
}

std::vector<ListedImage> wanted_images(const Arguments& args)
{
    std::vector<ListedImage> images = listed_images();
    if (args.operands() != 0)
        std::erase_if(images,
                      [&](const ListedImage& image) { return !is_meant(image, args.operand(0)); });
    return images;
}

std::string shown_id(const Arguments& args, const std::string& id)
{
    return args.has("no-trunc") ? id : std::string(id_digits(id).substr(0, kShortId));
}

int print_ids(const Arguments& args, const std::vector<ListedImage>& images)
{
    std::string text;
    std::set<std::string> seen; // an image may have several names
    for (const ListedImage& image : images)
        if (!image.id.empty() && seen.insert(image.id).second)
            text += shown_id(args, image.id) + "\n";
    return text.empty() ? static_cast<int>(kExitOk) : print_result(text);
}

int print_as_json(const std::vector<ListedImage>& images)
{
    Json list = Json::array();
    for (const ListedImage& image : images)
        list.push_back({{"name", image.entry.name},
                        {"repository", image.repository},
                        {"tag", image.tag},
                        {"id", image.id},
                        {"digest", image.entry.manifest.digest},
                        {"sourceDigest", image.entry.source},
                        {"os", image.entry.os},
                        {"architecture", image.entry.arch},
                        {"created", image.created},
                        {"size", image.size}});
    return print_json(compact(list));
}

int print_table(const Arguments& args, const std::vector<ListedImage>& images)
{
    std::vector<std::vector<std::string>> rows = {
        {"REPOSITORY", "TAG", "IMAGE ID", "CREATED", "SIZE"}};
    const std::time_t now = std::time(nullptr);
    for (const ListedImage& image : images)
        rows.push_back({image.repository, image.tag,
                        image.id.empty() ? "damaged" : shown_id(args, image.id),
                        age_text(image.created, now), size_text(image.size)});
    return print_result(table(rows, args.has("no-trunc")));
}

} // namespace

int cmd_images(const Arguments& args)
try {
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitFailure;
    const BundlesInUse in_use(image_area());
    const std::vector<ListedImage> images = wanted_images(args);
    if (args.has("quiet"))
        return print_ids(args, images);
    return as_json ? print_as_json(images) : print_table(args, images);
} catch (const std::runtime_error& error) {
    return failure("", error.what());
}

} // namespace zncctl
