#include "row_format.hpp"

#include "escape.hpp"
#include "words.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace zncctl {
namespace {

constexpr std::string_view kOpen = "{{";
constexpr std::string_view kClose = "}}";
constexpr std::string_view kTable = "table ";

std::string_view trimmed(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::string unescaped(std::string_view text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); i++) {
        const char next = text[i] == '\\' && i + 1 < text.size() ? text[i + 1] : '\0';
        if (next == 't' || next == 'n' || next == '\\') {
            result += next == 't' ? '\t' : next == 'n' ? '\n' : '\\';
            i++;
        } else {
            result += text[i];
        }
    }
    return result;
}

} // namespace

RowFormat::RowFormat(std::string_view format, const std::vector<std::string>& fields)
    : table_(format.starts_with(kTable))
{
    if (table_)
        format.remove_prefix(kTable.size());
    for (;;) {
        const std::size_t open = format.find(kOpen);
        parts_.push_back({unescaped(format.substr(0, open)), "", false});
        if (open == format.npos)
            return;
        format.remove_prefix(open + kOpen.size());
        const std::size_t close = format.find(kClose);
        if (close == format.npos)
            throw std::runtime_error("the format has a '{{' without its '}}'");
        add_field(trimmed(format.substr(0, close)), fields);
        format.remove_prefix(close + kClose.size());
    }
}

void RowFormat::add_field(std::string_view inside, const std::vector<std::string>& fields)
{
    constexpr std::string_view kJson = "json ";
    Part& part = parts_.back();
    part.json = inside.starts_with(kJson);
    std::string_view field = part.json ? trimmed(inside.substr(kJson.size())) : inside;
    const bool whole = part.json && field == ".";
    if (!field.starts_with('.') || (!whole && !is_among(field.substr(1), fields)))
        throw std::runtime_error(fmt::format("the format has an unknown field '{}'; known are .{}",
                                             printable(field), fmt::join(fields, " .")));
    part.field = whole ? "." : field.substr(1);
}

std::string RowFormat::text(const Json& row) const
{
    std::string result;
    for (const Part& part : parts_) {
        result += part.literal;
        const Json* value = part.field == "." ? &row : member(row, part.field);
        if (value == nullptr)
            continue;
        const std::string* plain = part.json ? nullptr : zncctl::text(value);
        // Tabs and newlines in a value must not begin a new column or line.
        result += plain != nullptr ? printable(*plain) : printable_json(compact(*value));
    }
    return result;
}

std::vector<std::string> RowFormat::heading() const
{
    std::vector<std::string> names;
    for (const Part& part : parts_)
        if (!part.field.empty())
            names.push_back(part.field);
    return names;
}

} // namespace zncctl
