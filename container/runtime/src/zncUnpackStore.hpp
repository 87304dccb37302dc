// zncUnpackStore.hpp - the state of one unpack in the storage base. The lock is held from the first
// look at a layer until the bundle is recorded. Used by the source files of the image module.
#ifndef ZNCUNPACKSTORE_HPP
#define ZNCUNPACKSTORE_HPP

#include "zncBundleRecord.hpp"
#include "zncStoreAhead.hpp"
#include "zncStoreLock.hpp"

namespace znc {

struct UnpackStore {
    UnpackStore(const char* os, const char* arch, const char* tag, std::size_t layersMax,
                ZNC_DIRECTORY_FUNC func, void* context) noexcept
        : dirs(func, context), ahead(os, arch, tag, layersMax, lock, dirs)
    {
    }
    StoreLock lock;
    UnpackDirs dirs;
    BundleRecord record; // destroyed before the lock, so that an unkept record is removed under it
    StoreAhead ahead;
};

} // namespace znc

#endif
