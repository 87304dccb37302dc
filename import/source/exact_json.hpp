// exact_json.hpp - whether a document can be read and written again unchanged. Used where documents
// of others are read, and where one is written again.
#ifndef ZNC_IMPORT_SOURCE_EXACT_JSON_HPP
#define ZNC_IMPORT_SOURCE_EXACT_JSON_HPP

#include <string_view>

namespace zncimport {

// Whether JSON can be read into a tree and be written again without a change of its meaning:
// numbers become doubles, and texts end at a NUL.
bool survives(std::string_view json);

} // namespace zncimport

#endif
