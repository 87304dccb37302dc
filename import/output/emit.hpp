// emit.hpp - writes the merged tree as one uncompressed ustar archive that the extractor accepts
// without loss: directory names end with "/", parents come first, names are in byte order, and
// there are only directories, files and symbolic links. The same tree gives the same bytes. Used by
// import.cpp.
#ifndef ZNC_IMPORT_OUTPUT_EMIT_HPP
#define ZNC_IMPORT_OUTPUT_EMIT_HPP

#include "import/merge/prepare.hpp"

#include <functional>

namespace zncimport {

using ByteSink = std::function<void(std::span<const std::byte>)>;

// The layers from `first` up to but excluding `last`.
struct LayerRange {
    std::size_t first = 0;
    std::size_t last = SIZE_MAX;
};

// Writes the archive of all nodes of these layers and their parent directories, including the
// end-of-archive blocks.
void emit(const Tree& tree, const Spool& spool, const ByteSink& sink, LayerRange layers = {});

} // namespace zncimport

#endif
