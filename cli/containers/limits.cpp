#include "limits.hpp"

#include "front/words.hpp"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncctl {
namespace {

constexpr std::int64_t kMillion = 1000000;
constexpr std::int64_t kCpuPeriod = 100000; // microseconds; the kernel's default
constexpr std::int64_t kUnlimited = -1;

bool all_digits(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

std::optional<std::int64_t> to_count(std::string_view text)
{
    return all_digits(text) ? to_number<std::int64_t>(text) : std::nullopt;
}

// "-1" or, if `parse` says so, another number.
template <class Parse> std::optional<std::int64_t> to_limit(std::string_view text, Parse parse)
{
    return text == "-1" ? std::optional(kUnlimited) : parse(text);
}

class LimitReader {
  public:
    LimitReader(const Arguments& args, std::string& problem) : args_(args), problem_(problem) {}

    std::optional<Json> read()
    {
        problem_.clear();
        const auto limit_bytes = [](std::string_view text) { return to_limit(text, to_bytes); };
        add("memory", "memory", "limit", limit_bytes);
        add("memory-swap", "memory", "swap", limit_bytes);
        add_processors();
        add("cpu-shares", "cpu", "shares", to_count);
        if (const char* cpus = args_.value("cpuset-cpus"))
            limits_["cpu"]["cpus"] = cpus; // checked by the platform
        add("pids-limit", "pids", "limit",
            [](std::string_view text) { return to_limit(text, to_count); });
        return problem_.empty() ? std::optional(std::move(limits_)) : std::nullopt;
    }

  private:
    template <class Parse>
    void add(const char* option, const char* group, const char* name, Parse parse)
    {
        if (const auto number = value(option, parse))
            limits_[group][name] = *number;
    }

    void add_processors()
    {
        const auto millionths = value("cpus", to_processors);
        if (!millionths)
            return;
        limits_["cpu"]["quota"] = *millionths * kCpuPeriod / kMillion;
        limits_["cpu"]["period"] = kCpuPeriod;
    }

    template <class Parse> std::optional<std::int64_t> value(const char* option, Parse parse)
    {
        const char* text = args_.value(option);
        const auto number = text != nullptr ? parse(text) : std::nullopt;
        if (text != nullptr && !number && problem_.empty())
            problem_ = fmt::format("'{}' is not a valid value of --{}", text, option);
        return number;
    }

    const Arguments& args_;
    std::string& problem_;
    Json limits_ = Json::object();
};

} // namespace

std::optional<std::int64_t> to_processors(std::string_view text)
{
    constexpr std::size_t kWholeMax = 4;
    constexpr std::size_t kDecimals = 6;
    const std::size_t point = std::min(text.find('.'), text.size());
    std::string decimals(text.substr(std::min(point + 1, text.size())));
    const bool good = point <= kWholeMax && all_digits(text.substr(0, point)) &&
                      decimals.size() <= kDecimals &&
                      (point == text.size() || all_digits(decimals));
    if (!good)
        return std::nullopt;
    decimals.resize(kDecimals, '0');
    const std::int64_t millionths =
        *to_count(text.substr(0, point)) * kMillion + *to_count(decimals);
    return millionths > 0 ? std::optional(millionths) : std::nullopt;
}

std::optional<Json> limits_of(const Arguments& args, std::string& problem)
{
    return LimitReader(args, problem).read();
}

} // namespace zncctl
