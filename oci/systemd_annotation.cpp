// systemd_annotation.cpp - properties of units in annotations; see systemd_property.hpp.
#include "systemd_property.hpp"

#include "front/words.hpp"

#include <algorithm>
#include <array>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncrun {
namespace {

constexpr std::string_view kPrefix = "org.systemd.property.";

// Those that zncrun sets itself: they decide what the scope contains and who changes its groups.
constexpr std::array kOwn = {"PIDs",
                             "PIDFDs",
                             "Slice",
                             "Delegate",
                             "DelegateControllers",
                             "DefaultDependencies",
                             "DelegateSubgroup"};

// Reads the text of one value from left to right.
class ValueReader {
  public:
    explicit ValueReader(std::string_view text) : left_(text) {}

    std::optional<UnitValue> read()
    {
        std::optional<UnitValue> value;
        skip_blanks();
        if (left_.empty())
            return std::nullopt;
        if (left_.front() == '[')
            value = list();
        else if (is_quote(left_.front()))
            value = in_variant(quoted());
        else
            value = word();
        skip_blanks();
        return left_.empty() ? value : std::nullopt;
    }

  private:
    static bool is_quote(char one) { return one == '\'' || one == '"'; }
    template <class Value> static std::optional<UnitValue> in_variant(std::optional<Value> value)
    {
        return value ? std::optional<UnitValue>(*std::move(value)) : std::nullopt;
    }
    void skip_blanks()
    {
        left_.remove_prefix(std::min(left_.find_first_not_of(' '), left_.size()));
    }

    // The only escapes are of the quotation marks and of "\" itself.
    std::optional<std::string> quoted()
    {
        const char mark = left_.front();
        std::string text;
        for (std::size_t i = 1; i < left_.size(); i++) {
            if (left_[i] == mark) {
                left_.remove_prefix(i + 1);
                return text;
            }
            const bool isEscape = left_[i] == '\\';
            i += isEscape ? 1 : 0;
            if (i >= left_.size() || static_cast<unsigned char>(left_[i]) < ' ' ||
                (isEscape && !is_quote(left_[i]) && left_[i] != '\\'))
                return std::nullopt;
            text += left_[i];
        }
        return std::nullopt;
    }

    std::optional<UnitValue> list()
    {
        std::vector<std::string> texts;
        do {
            left_.remove_prefix(1);
            skip_blanks();
            const auto text = !left_.empty() && is_quote(left_.front()) ? quoted() : std::nullopt;
            if (!text)
                return std::nullopt;
            texts.push_back(*text);
            skip_blanks();
        } while (left_.starts_with(','));
        if (!left_.starts_with(']'))
            return std::nullopt;
        left_.remove_prefix(1);
        return texts;
    }

    std::string_view next_word()
    {
        const std::string_view word = left_.substr(0, left_.find(' '));
        left_.remove_prefix(word.size());
        skip_blanks();
        return word;
    }

    std::optional<UnitValue> word()
    {
        const std::string_view first = next_word();
        if (first == "true" || first == "false")
            return first == "true";
        if (first == "uint64")
            return in_variant(zncctl::to_number<std::uint64_t>(next_word()));
        if (first == "int64")
            return in_variant(zncctl::to_number<std::int64_t>(next_word()));
        if (first == "uint32")
            return in_variant(zncctl::to_number<std::uint32_t>(next_word()));
        return in_variant(zncctl::to_number<std::int32_t>(first == "int32" ? next_word() : first));
    }

    std::string_view left_;
};

// The number, if it is one and not negative.
std::optional<std::uint64_t> number_of(const UnitValue& value)
{
    return std::visit(
        [](const auto& held) -> std::optional<std::uint64_t> {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_integral_v<Held> && !std::is_same_v<Held, bool>)
                if (std::cmp_greater_equal(held, 0))
                    return static_cast<std::uint64_t>(held);
            return std::nullopt;
        },
        value);
}

bool is_property_name(const std::string& name)
{
    constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    return name.size() >= 3 && name.size() <= 64 && name.find_first_not_of(kLetters) == name.npos;
}

UnitProperty property_of(const std::string& key, const std::string& text)
{
    constexpr std::uint64_t kSecond = 1000000;
    const std::string name = key.substr(kPrefix.size());
    if (!is_property_name(name))
        throw Failure(fmt::format("annotations.{}: {:?} is not the name of a property", key, name));
    if (zncctl::is_among(name, kOwn))
        throw Failure(fmt::format("annotations.{}: zncrun sets this property itself", key));
    const auto value = ValueReader(text).read();
    if (!value)
        throw Failure(fmt::format("annotations.{}: {:?} is not true, false, a number, a string in "
                                  "quotation marks or a list of such strings",
                                  key, text));
    if (!name.ends_with("Sec") || name.ends_with("USec"))
        return {name, *value};
    const auto seconds = number_of(*value);
    if (!seconds || *seconds > kUnitInfinity / kSecond)
        throw Failure(fmt::format("annotations.{}: {:?} is not a number of seconds", key, text));
    return {name.substr(0, name.size() - 3) + "USec", *seconds * kSecond};
}

} // namespace

UnitProperties annotation_properties(const Json& annotations)
{
    UnitProperties properties;
    for (const auto& one : annotations.items())
        if (one.key().starts_with(kPrefix))
            properties.push_back(property_of(one.key(), one.value().get<std::string>()));
    return properties;
}

} // namespace zncrun
