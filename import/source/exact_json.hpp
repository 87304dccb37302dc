// exact_json.hpp - checks whether a document can be parsed and written again without change. Used
// where documents of the source are read, and where one is written again.
#ifndef ZNC_IMPORT_SOURCE_EXACT_JSON_HPP
#define ZNC_IMPORT_SOURCE_EXACT_JSON_HPP

#include <string_view>

namespace zncimport {

// Returns whether JSON keeps its meaning when cJSON parses and prints it: numbers become doubles,
// and strings end at the first NUL.
bool survives(std::string_view json);

} // namespace zncimport

#endif
