// emit.hpp - the merged tree as one plain ustar archive that the extractor takes whole: directories
// with a final "/", parents first, names in byte order, nothing but directories, files and symbolic
// links. Used by import.cpp. The same tree gives the same bytes.
#ifndef ZNC_IMPORT_OUTPUT_EMIT_HPP
#define ZNC_IMPORT_OUTPUT_EMIT_HPP

#include "import/merge/prepare.hpp"

#include <functional>

namespace zncimport {

using ByteSink = std::function<void(std::span<const std::byte>)>;

// Layers by number: from `first` up to, and without, `last`.
struct LayerRange {
    std::size_t first = 0;
    std::size_t last = SIZE_MAX;
};

// Writes the archive of the nodes of these layers, the directories on their way included, with its
// end mark.
void emit(const Tree& tree, const Spool& spool, const ByteSink& sink, LayerRange layers = {});

} // namespace zncimport

#endif
