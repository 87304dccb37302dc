#include "log_lines.hpp"

#include "front/duration.hpp"
#include "front/words.hpp"

namespace zncctl {
namespace {

constexpr std::int64_t kNanoseconds = 1000000000;

std::optional<std::time_t> read_duration(std::string_view text)
{
    constexpr std::time_t kMax = 1000000000;
    std::time_t sum = 0;
    while (!text.empty()) {
        const std::size_t unit = text.find_first_not_of("0123456789");
        const auto number =
            unit != text.npos ? to_number<std::uint32_t>(text.substr(0, unit)) : std::nullopt;
        if (!number || *number > kMax)
            return std::nullopt;
        const char letter = text[unit];
        if (letter != 'h' && letter != 'm' && letter != 's')
            return std::nullopt;
        sum += std::time_t{*number} * (letter == 'h' ? 3600 : letter == 'm' ? 60 : 1);
        text.remove_prefix(unit + 1);
    }
    return sum;
}

// A point in time; nullopt also for a duration.
std::optional<std::time_t> read_point(std::string_view text)
{
    if (const auto seconds = to_number<std::int64_t>(text); seconds && *seconds >= 0)
        return *seconds;
    const std::time_t time = time_of_text(std::string(text));
    return time != 0 ? std::optional(time) : std::nullopt;
}

} // namespace

std::optional<std::time_t> read_past_time(std::string_view text, std::time_t now)
{
    const auto time = read_point(text);
    const auto duration = time || text.empty() ? std::nullopt : read_duration(text);
    return duration ? std::optional(now - *duration) : time;
}

std::optional<std::time_t> read_future_time(std::string_view text, std::time_t now)
{
    const auto time = read_point(text);
    const auto duration = time || text.empty() ? std::nullopt : read_duration(text);
    return duration ? std::optional(now + *duration) : time;
}

std::string LogLines::add(const std::vector<LogPart>& parts)
{
    std::string text;
    for (const LogPart& part : parts)
        for (std::string_view rest = part.text; !rest.empty();) {
            if (at_start_) {
                wanted_ = since_ == 0 || part.time / kNanoseconds >= since_;
                if (wanted_ && timestamps_)
                    text += precise_time_text(part.time, 'T', "Z ");
            }
            const std::size_t end = rest.find('\n');
            const std::string_view piece = rest.substr(0, end == rest.npos ? end : end + 1);
            if (wanted_)
                text += piece;
            at_start_ = end != rest.npos;
            rest.remove_prefix(piece.size());
        }
    return text;
}

} // namespace zncctl
