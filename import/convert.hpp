// convert.hpp - an image read, merged and written as new layers: all that happens in the process
// that reads strangers' archives. Used by import.cpp.
#ifndef ZNCIMPORT_CONVERT_HPP
#define ZNCIMPORT_CONVERT_HPP

#include "options.hpp"
#include "outcome.hpp"

#include <span>

namespace zncimport {

// How many layers --split makes at most; the rest of the image is one more.
constexpr std::size_t kSplitMax = 63;

// `files` get the new layers, one each: one is enough without --split, kSplitMax + 1 with it.
// Without any the layers are made and dropped. `spool` is borrowed. Throws Failure; then the files
// hold anything.
Outcome convert(const Options& options, const OpenedSource& opened, Spool& spool,
                std::span<const int> files);

} // namespace zncimport

#endif
