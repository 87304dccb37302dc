// zncUnpackStore.hpp - what one unpack has to do with the storage base: it holds the base's lock
// from its first look at a layer until its bundle is recorded. Used by the units of the image
// module.
#ifndef ZNCUNPACKSTORE_HPP
#define ZNCUNPACKSTORE_HPP

#include "zncStoreAhead.hpp"
#include "zncStoreLock.hpp"
#include "zncStoreRecord.hpp"

namespace znc {

struct UnpackStore {
    UnpackStore(const char* os, const char* arch, const char* tag, std::size_t layersMax,
                ZNC_DIRECTORY_FUNC func, void* context) noexcept
        : dirs(func, context), ahead(os, arch, tag, layersMax, lock, dirs)
    {
    }
    StoreLock lock;
    UnpackDirs dirs;
    BundleRecord record; // what is not kept is removed while the lock is held
    StoreAhead ahead;
};

} // namespace znc

#endif
