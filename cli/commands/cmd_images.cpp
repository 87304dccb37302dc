// Lists the images of the store.
#include "cli/images/image_list.hpp"
#include "cli/images/image_source.hpp"
#include "cli/images/reference.hpp"
#include "commands.hpp"
#include "front/output.hpp"
#include "front/row_format.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <set>
#include <stdexcept>

namespace zncctl {
namespace {

constexpr std::size_t kShortId = 12;
constexpr const char* kTable = "table {{.Repository}}\t{{.Tag}}\t{{.ID}}\t{{.Created}}\t{{.Size}}";
// The fields, and the headings of their columns.
constexpr const char* kColumns[][2] = {{"ID", "IMAGE ID"},
                                       {"Repository", "REPOSITORY"},
                                       {"Tag", "TAG"},
                                       {"Digest", "DIGEST"},
                                       {"Created", "CREATED"},
                                       {"CreatedAt", "CREATED AT"},
                                       {"CreatedSince", "CREATED"},
                                       {"Size", "SIZE"},
                                       {"Names", "NAMES"}};

// Whether an image matches the operand, a name with or without a tag.
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

// The values of the fields.
Json texts_of_row(const Arguments& args, const ListedImage& image, std::time_t now)
{
    const std::string age = age_text(image.created, now);
    return {{"ID", image.id.empty() ? "damaged" : shown_id(args, image.id)},
            {"Repository", image.repository},
            {"Tag", image.tag},
            {"Digest", image.entry.manifest.digest},
            {"Created", age},
            {"CreatedAt", image.created},
            {"CreatedSince", age},
            {"Size", size_text(image.size)},
            {"Names", image.entry.name}};
}

int print_rows(const Arguments& args, const std::vector<ListedImage>& images,
               const RowFormat& format)
{
    const std::time_t now = std::time(nullptr);
    std::vector<std::string> lines;
    lines.reserve(images.size());
    for (const ListedImage& image : images)
        lines.push_back(format.text(texts_of_row(args, image, now)));
    if (!format.is_table())
        return lines.empty() ? static_cast<int>(kExitOk)
                             : print_result(fmt::format("{}\n", fmt::join(lines, "\n")));
    Json heading = Json::object();
    for (const auto& [field, column] : kColumns)
        heading[field] = column;
    std::vector<std::vector<std::string>> rows = {split(format.text(heading), '\t')};
    for (const std::string& line : lines)
        rows.push_back(split(line, '\t'));
    return print_result(table(rows, args.has("no-trunc")));
}

// The format of the rows: the user's, or the usual columns.
RowFormat read_row_format(const Arguments& args)
{
    const std::string format = args.value("format", "table");
    std::vector<std::string> fields;
    for (const auto& [field, column] : kColumns)
        fields.emplace_back(field);
    return {format == "table" || format == "json" ? kTable : format, fields};
}

int list_images(const Arguments& args, const RowFormat& format)
try {
    const BundlesInUse in_use(image_area());
    const std::vector<ListedImage> images = wanted_images(args);
    if (args.has("quiet"))
        return print_ids(args, images);
    return std::string_view(args.value("format", "")) == "json" ? print_as_json(images)
                                                                : print_rows(args, images, format);
} catch (const std::runtime_error& error) {
    return failure("", error.what());
}

} // namespace

int cmd_images(const Arguments& args)
try {
    return list_images(args, read_row_format(args));
} catch (const std::runtime_error& error) {
    return usage_failure(error.what());
}

} // namespace zncctl
