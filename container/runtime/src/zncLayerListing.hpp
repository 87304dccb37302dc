// zncLayerListing.hpp - records in the storage base of the directories that a stored layer's
// archive names (zncUnpackDirs), so that an unpack that finds the layer in the store need not
// decompress the archive again. A record that is missing or damaged costs only that time. Used by
// the image module and by the collection.
#ifndef ZNCLAYERLISTING_HPP
#define ZNCLAYERLISTING_HPP

#include "zncStoreRecord.hpp"

namespace znc {

// Reads the directories of the layer that is stored as `layer`. False if they are not recorded.
bool read_listing(std::string_view base, const char* layer, TextList* directories) noexcept;

// Records the directories of a layer whose archive matched its digest. Failures are ignored.
void record_listing(std::string_view base, const char* layer, const TextList& directories) noexcept;

// Adds the paths of the records whose layers are not stored to `files`. False with errno set.
bool find_unused_listings(std::string_view base, TextList* files) noexcept;

} // namespace znc

#endif
