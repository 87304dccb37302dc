// exact_json.hpp - whether a document means the same to everybody who reads it. Used where
// documents of others are read, and where one is written again.
#ifndef ZNCIMPORT_EXACT_JSON_HPP
#define ZNCIMPORT_EXACT_JSON_HPP

#include "json.hpp"

namespace zncimport {

// Whether JSON can be read into a tree and be written again without a change of its meaning:
// numbers become doubles, and texts end at a NUL.
bool survives(std::string_view json);

// Whether an object in it has two members of the same name: readers differ in which one they take.
// As deep as the parser lets a document be.
bool has_twins(const cJSON* item);

} // namespace zncimport

#endif
