// row_format.hpp - prints the rows of a list in a format given by the user: text with fields such
// as "{{.ID}} {{.Names}}" or "{{json .}}", as container engines have them. Used by ps, images and
// events.
#ifndef ZNC_FRONT_ROW_FORMAT_HPP
#define ZNC_FRONT_ROW_FORMAT_HPP

#include "json.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

class RowFormat {
  public:
    // "\t" and "\n" stand for tab and newline. "table " at the beginning asks for columns, which
    // tabs separate, under a heading. Throws std::runtime_error if the format is invalid or has a
    // field that is not in `fields`.
    RowFormat(std::string_view format, const std::vector<std::string>& fields);

    [[nodiscard]] bool is_table() const { return table_; }
    // The row as text. Values that are not strings are written as JSON.
    [[nodiscard]] std::string text(const Json& row) const;
    // The same with the names of the fields in place of their values.
    [[nodiscard]] std::vector<std::string> heading() const;

  private:
    struct Part {
        std::string literal; // what precedes the field
        std::string field;   // "" for none, "." for the whole row
        bool json = false;
    };

    void add_field(std::string_view inside, const std::vector<std::string>& fields);

    std::vector<Part> parts_;
    bool table_ = false;
};

} // namespace zncctl

#endif
