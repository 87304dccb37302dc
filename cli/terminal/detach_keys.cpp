#include "detach_keys.hpp"

#include <algorithm>

namespace zncctl {
namespace {

constexpr std::string_view kControl = "ctrl-";

std::optional<char> key_of(std::string_view name)
{
    if (name.size() == 1)
        return name[0];
    if (!name.starts_with(kControl) || name.size() != kControl.size() + 1)
        return std::nullopt;
    const char key = name.back();
    if (key >= 'a' && key <= 'z')
        return static_cast<char>(key - 'a' + 1);
    return key == '@' || (key >= '[' && key <= '_') ? std::optional(static_cast<char>(key - '@'))
                                                    : std::nullopt;
}

} // namespace

std::optional<DetachKeys> DetachKeys::parse(std::string_view text)
{
    DetachKeys keys;
    if (text.empty())
        return keys;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find(',', start), text.size());
        const auto key = key_of(text.substr(start, end - start));
        if (!key)
            return std::nullopt;
        keys.keys_ += *key;
        start = end + 1;
    }
    return keys;
}

std::string DetachKeys::pass(std::string_view typed)
{
    if (keys_.empty())
        return std::string(typed);
    std::string passed;
    std::string held = keys_.substr(0, matched_); // typed earlier and not passed on yet
    for (const char c : typed) {
        if (matched_ == keys_.size())
            break;
        held += c;
        // Keep the longest suffix of the held bytes that is a prefix of the keys; pass the rest on.
        while (!held.empty() && !keys_.starts_with(held)) {
            passed += held.front();
            held.erase(0, 1);
        }
        matched_ = held.size();
    }
    return passed;
}

} // namespace zncctl
