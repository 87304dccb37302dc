// zncBundleRecord.hpp - the records of bundles: what each needs from the store, and what its root
// is made of. Used by the unpack and by the collection of unused directories.
#ifndef ZNCBUNDLERECORD_HPP
#define ZNCBUNDLERECORD_HPP

#include "zncStoreRecord.hpp"

#include <string_view>

namespace znc {

// The two records of a bundle. The one in the storage base holds the path of the bundle, the path
// of its root, and the names of the layers in the store that it needs. The one in the bundle
// (zncBundleLayers) holds the path of the root and the names of the layers it is made of.
class BundleRecord {
  public:
    // Writes both records. EEXIST: another bundle that still exists has the same root, made of
    // other layers. `layers`: the layers of the root, lowest first; if empty, no record is written
    // into the bundle. `stored`: the layers that the store must keep.
    //
    // If the bundle already has a "config.json", nothing is written: the bundle was unpacked before
    // and needs its records, and this unpack will fail.
    STATUS write(std::string_view base, const char* bundle, const char* root,
                 const TextList& layers, const TextList& stored);
    // Whether write() found a "config.json".
    [[nodiscard]] bool bundle_was_there() const noexcept { return bundleWasThere_; }

    // drop() removes what was written, unless keep() was called before. The destructor does the
    // same.
    void keep() noexcept;
    void drop() noexcept;

  private:
    RecordFile inStore_;
    RecordFile inBundle_;
    bool bundleWasThere_ = false;
};

// Whether the bundle of a record still has its "config.json". If that cannot be determined: true.
bool bundle_exists(const char* bundlePath);

// Calls `func` with the path and contents of each bundle's record. An unreadable record is an
// error, because it is then unknown what is in use.
using BundleFunc = STATUS (*)(void* context, const char* file, const TextList& record);
STATUS each_bundle(std::string_view base, BundleFunc func, void* context);

} // namespace znc

#endif
