#include "json.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

namespace zncctl {
namespace {

std::string position(std::string_view text, std::size_t at)
{
    const std::string_view before = text.substr(0, std::min(at, text.size()));
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const std::size_t start = before.rfind('\n') + 1; // npos wraps to 0
    return fmt::format("line {}, column {}", line, before.size() - start + 1);
}

std::string lower_case(std::string_view text)
{
    std::string result(text);
    for (char& c : result)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return result;
}

// Objects whose keys are data, which are compared exactly: "Maintainer" and "maintainer" are
// different keys.
bool has_free_keys(std::string_view name)
{
    constexpr std::array<std::string_view, 4> kNames = {"annotations", "labels", "exposedports",
                                                        "volumes"};
    return std::find(kNames.begin(), kNames.end(), lower_case(name)) != kNames.end();
}

// An iterator over the text that records how far the parser has read.
class Cursor {
  public:
    using difference_type = std::ptrdiff_t;
    using value_type = char;
    using pointer = const char*;
    using reference = const char&;
    using iterator_category = std::input_iterator_tag;

    Cursor(const char* at, const char** furthest) : at_(at), furthest_(furthest) {}
    reference operator*() const { return *at_; }
    Cursor& operator++()
    {
        *furthest_ = ++at_;
        return *this;
    }
    bool operator==(const Cursor& other) const { return at_ == other.at_; }
    bool operator!=(const Cursor& other) const { return at_ != other.at_; }

  private:
    const char* at_;
    const char** furthest_;
};

// Builds the document. The parser's own builder compares each key with all members before it, which
// takes quadratic time.
class Builder {
  public:
    using number_integer_t = Json::number_integer_t;
    using number_unsigned_t = Json::number_unsigned_t;
    using number_float_t = Json::number_float_t;
    using string_t = Json::string_t;
    using binary_t = Json::binary_t;

    Builder(JsonNotes& notes, Annotations annotations, std::size_t depth)
        : notes_(notes), annotations_(annotations), depth_(depth)
    {
    }

    Json take() { return std::move(root_); }

    bool null() { return add(nullptr); }
    bool boolean(bool value) { return add(value); }
    bool number_integer(number_integer_t value) { return add(value); }
    bool number_unsigned(number_unsigned_t value) { return add(value); }
    bool number_float(number_float_t value, const string_t& written)
    {
        constexpr number_float_t kWhole = 9007199254740992.0; // 2^53: integers up to it are exact
        constexpr auto kDigits = 15;                          // decimal digits that a double keeps
        const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
        if (std::count_if(written.begin(), written.end(), is_digit) > kDigits)
            notes_.inexact = true;
        if (std::fabs(value) <= kWhole && value == std::floor(value))
            return add(static_cast<number_integer_t>(value));
        return add(value);
    }
    bool string(string_t& value) { return good_text(value) && add(std::move(value)); }
    bool binary(binary_t& /*value*/) { return false; }

    bool start_object(std::size_t /*count*/)
    {
        const bool free = !open_.empty() && open_.back().json->is_object() && has_free_keys(key_);
        return begin(Json::object(), free);
    }
    bool key(string_t& value)
    {
        key_ = std::move(value);
        return good_text(key_);
    }
    bool end_object() { return has_unique_keys(open_.back()) && end(); }
    bool start_array(std::size_t /*count*/) { return begin(Json::array(), false); }
    bool end_array() { return end(); }

    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& error)
    {
        constexpr int kTooLarge = 406;
        notes_.problem = error.id == kTooLarge ? "a number that is too large" : "no JSON";
        return false;
    }

  private:
    struct Open {
        Json* json;
        bool free_keys;
    };

    bool refuse(std::string problem)
    {
        notes_.problem = std::move(problem);
        return false;
    }
    // The library's strings end at a NUL.
    bool good_text(std::string_view text)
    {
        return text.find('\0') == text.npos || refuse("a NUL in a text");
    }
    // The form in which the library compares keys.
    [[nodiscard]] static std::string comparable(const std::string& key, bool free)
    {
        std::string lower = lower_case(key);
        return free && lower != kRefName ? key : lower; // the library looks up kRefName
    }
    bool has_unique_keys(const Open& object)
    {
        if (object.free_keys && annotations_ == Annotations::kMayRepeat)
            return true;
        const auto& members = object.json->get_ref<const Json::object_t&>();
        std::vector<std::pair<std::string, std::size_t>> keys;
        keys.reserve(members.size());
        for (const auto& [key, value] : members)
            keys.emplace_back(comparable(key, object.free_keys), keys.size());
        std::sort(keys.begin(), keys.end());
        std::size_t second = 1; // index of the second of two equal keys
        while (second < keys.size() && keys[second - 1].first != keys[second].first)
            second++;
        if (second >= keys.size())
            return true;
        const auto at = members.begin() + static_cast<std::ptrdiff_t>(keys[second].second);
        notes_.duplicate_key = at->first;
        return refuse(fmt::format("duplicate key \"{}\"", at->first));
    }
    Json* place(Json value)
    {
        if (open_.empty())
            return &(root_ = std::move(value));
        Json& above = *open_.back().json;
        if (above.is_object())
            return &append(above, key_, std::move(value));
        above.push_back(std::move(value));
        return &above.back();
    }
    template <class Value> bool add(Value&& value)
    {
        place(Json(std::forward<Value>(value)));
        return true;
    }
    bool begin(Json value, bool free_keys)
    {
        if (open_.size() == depth_)
            return refuse(fmt::format("more than {} levels", depth_));
        open_.push_back({place(std::move(value)), free_keys});
        return true;
    }
    bool end()
    {
        open_.pop_back();
        return true;
    }

    JsonNotes& notes_;
    Annotations annotations_;
    std::size_t depth_;
    Json root_;
    std::vector<Open> open_;
    std::string key_;
};

bool same_letters(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && lower_case(a) == lower_case(b);
}

const Json* find(const Json* object, std::string_view key,
                 bool (*equal)(std::string_view, std::string_view))
{
    if (!is_object(object))
        return nullptr;
    for (const auto& [name, value] : object->get_ref<const Json::object_t&>())
        if (equal(name, key))
            return &value;
    return nullptr;
}

} // namespace

std::optional<Json> parse_json(std::string_view text, JsonNotes* notes, Annotations annotations,
                               const JsonLimits& limits)
{
    JsonNotes own;
    JsonNotes& said = notes != nullptr ? *notes : own;
    said = {};
    if (text.size() > limits.bytes) {
        said.problem = fmt::format("it has more than {} bytes", limits.bytes);
        return std::nullopt;
    }
    // The parser would take a NUL for the end of the text.
    if (const std::size_t nul = text.find('\0'); nul != text.npos) {
        said.problem = "no JSON at " + position(text, nul);
        return std::nullopt;
    }
    const char* furthest = text.data();
    Builder builder(said, annotations, limits.depth);
    if (Json::sax_parse(Cursor(text.data(), &furthest),
                        Cursor(text.data() + text.size(), &furthest), &builder))
        return builder.take();
    if (said.duplicate_key)
        return std::nullopt; // the message names the key, so it needs no position
    // The error is at the last character that was read.
    auto at = static_cast<std::size_t>(furthest - text.data());
    at -= at > 0 ? 1 : 0;
    said.problem += " at " + position(text, at);
    return std::nullopt;
}

std::string pretty(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string compact(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const Json* member(const Json* object, std::string_view key)
{
    return find(object, key, [](std::string_view a, std::string_view b) { return a == b; });
}

const Json* any_case_member(const Json* object, std::string_view key)
{
    return find(object, key, same_letters);
}

const Json& children(const Json* json)
{
    static const Json none = Json::array();
    return is_array(json) || is_object(json) ? *json : none;
}

bool is_array(const Json* json)
{
    return json != nullptr && json->is_array();
}

bool is_object(const Json* json)
{
    return json != nullptr && json->is_object();
}

const std::string* text(const Json* json)
{
    return json != nullptr ? json->get_ptr<const std::string*>() : nullptr;
}

std::vector<std::string> texts_of(const Json* array)
{
    std::vector<std::string> texts;
    for (const Json& entry : children(array))
        if (const std::string* word = text(&entry); word != nullptr)
            texts.push_back(*word);
    return texts;
}

std::optional<std::int64_t> integer(const Json* json)
{
    if (json == nullptr || !json->is_number_integer() ||
        (json->is_number_unsigned() && json->get<std::uint64_t>() > INT64_MAX))
        return std::nullopt;
    return json->get<std::int64_t>();
}

std::string text_of(const Json* object, std::string_view key)
{
    const std::string* found = text(member(object, key));
    return found != nullptr ? *found : "";
}

Json& append(Json& object, std::string_view key, Json value)
{
    auto& members = object.get_ref<Json::object_t&>();
    return members.emplace_back(std::string(key), std::move(value)).second;
}

} // namespace zncctl
