// convert.hpp - reads an image, merges its layers and writes new ones: all the work of the process
// that reads untrusted archives. Used by import.cpp.
#ifndef ZNCIMPORT_CONVERT_HPP
#define ZNCIMPORT_CONVERT_HPP

#include "options.hpp"
#include "outcome.hpp"

#include <span>

namespace zncimport {

// The maximum number of layers that --split keeps; the rest of the image becomes one more layer.
constexpr std::size_t kSplitMax = 63;

// Writes each new layer to one of `files`: one file suffices without --split, kSplitMax + 1 are
// needed with it. If `files` is empty the layers are generated and discarded. `spool` is not owned.
// Throws Failure; the contents of the files are then undefined.
Outcome convert(const Options& options, const OpenedSource& opened, Spool& spool,
                std::span<const int> files);

// The images of a source. Throws Failure.
std::vector<SourceImage> list_source(const Options& options, const OpenedSource& opened,
                                     Spool& spool);

} // namespace zncimport

#endif
