#include "image_list.hpp"

#include "reference.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace zncctl {
namespace {

constexpr const char* kNone = "<none>";

// Negative and enormous numbers of a manifest do not make the sum wrong.
std::int64_t sum(std::int64_t a, std::int64_t b)
{
    return a + std::clamp<std::int64_t>(b, 0, INT64_MAX - a);
}

ListedImage listed(const std::string& area, StoredImage entry)
{
    const Image image = read_stored(area, entry);
    ListedImage listed;
    const auto name = parse_reference(entry.name, "");
    listed.repository = name ? name->repository : entry.name.empty() ? kNone : entry.name;
    listed.tag = name && !name->tag.empty() ? name->tag : kNone;
    listed.id = image.config.digest;
    listed.created = text_of(image.config_document, "created");
    listed.size = sum(sum(layers_size(image), image.config.size), image.manifest.size);
    listed.entry = std::move(entry);
    return listed;
}

} // namespace

std::vector<ListedImage> listed_images()
{
    const std::string area = image_area();
    std::vector<ListedImage> images;
    for (StoredImage& entry : stored_images())
        images.push_back(listed(area, std::move(entry)));
    return images;
}

std::int64_t layers_size(const Image& image)
{
    std::int64_t all = 0;
    for (const Descriptor& layer : image.layers)
        all = sum(all, layer.size);
    return all;
}

std::optional<std::time_t> time_of(const std::string& text)
{
    std::tm time = {};
    const char* rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &time);
    if (rest == nullptr)
        return std::nullopt;
    std::time_t seconds = ::timegm(&time);
    if (*rest == '.')
        for (rest++; *rest >= '0' && *rest <= '9'; rest++) {
        }
    if (*rest == 'Z' && rest[1] == '\0')
        return seconds;
    const std::string zone = rest;
    std::tm offset = {};
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') ||
        ::strptime(zone.c_str() + 1, "%H:%M", &offset) == nullptr)
        return std::nullopt;
    const std::time_t east = 60L * (60L * offset.tm_hour + offset.tm_min);
    seconds += zone[0] == '+' ? -east : east;
    return seconds;
}

std::string age_text(const std::string& created, std::time_t now)
{
    struct Unit {
        std::time_t seconds;
        const char* name;
    };
    constexpr std::time_t kDay = 24L * 60 * 60;
    constexpr std::array<Unit, 7> kUnits = {{{365 * kDay, "year"},
                                             {30 * kDay, "month"},
                                             {7 * kDay, "week"},
                                             {kDay, "day"},
                                             {3600, "hour"},
                                             {60, "minute"},
                                             {1, "second"}}};
    const auto time = time_of(created);
    if (!time)
        return "-";
    const std::time_t age = std::max<std::time_t>(now - *time, 0);
    for (const Unit& unit : kUnits)
        if (const std::time_t count = age / unit.seconds; count != 0)
            return fmt::format("{} {}{} ago", count, unit.name, count == 1 ? "" : "s");
    return "now";
}

std::string size_text(std::int64_t bytes)
{
    constexpr std::array kUnits = {"kB", "MB", "GB", "TB", "PB", "EB"};
    constexpr double kStep = 1000;
    if (bytes < 1000)
        return fmt::format("{} B", bytes);
    double value = static_cast<double>(bytes) / kStep;
    std::size_t unit = 0;
    while (value >= kStep && unit + 1 < kUnits.size()) {
        value /= kStep;
        unit++;
    }
    return fmt::format("{:.3g} {}", value, kUnits[unit]);
}

} // namespace zncctl
