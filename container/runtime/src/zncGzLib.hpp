// zncGzLib.hpp - a gzip file as the data source of the tar extractor. Its constructor and
// destructor functions (zncGzArchiveCreate, zncGzArchiveDelete) are declared in the public header.
#ifndef ZNCGZLIB_HPP
#define ZNCGZLIB_HPP

#include "zncontainer.h"

#include <cstddef>

struct gzArchive {
    TAR_COMPRESS tc; // first: a pointer to the archive is a pointer to its source record
    gzFile file;
};

// The read function of the source. A NULL argument and every error are reported as the end of the
// data.
ssize_t zncGzRead(void* handle, void* buffer, std::size_t maxbytes);

namespace znc {

class BlobReader;

// Like zncGzArchiveCreate, for an archive that is hashed while it is read. `blob` must outlive the
// result.
GZ_ARCHIVE* gz_archive_create(BlobReader& blob);

struct GzArchiveDeleter {
    void operator()(GZ_ARCHIVE* archive) const noexcept { zncGzArchiveDelete(archive); }
};

} // namespace znc

#endif
