// zncGzLib.hpp - a gzip file as a source of archive bytes for the tar extractor. Left out: making
// and deleting one (zncGzArchiveCreate, zncGzArchiveDelete), which are in the public header.
#ifndef ZNCGZLIB_HPP
#define ZNCGZLIB_HPP

#include "zncontainer.h"

#include <cstddef>

struct gzArchive {
    TAR_COMPRESS tc; // first: a pointer to the archive is a pointer to its source record
    gzFile file;
};

// The source's read: a NULL handle or buffer and every failure look like the end of the data.
ssize_t zncGzRead(void* handle, void* buffer, std::size_t maxbytes);

namespace znc {

class BlobReader;

// zncGzArchiveCreate for an archive that is hashed as it is read. It must outlive the archive.
GZ_ARCHIVE* gz_archive_create(BlobReader& blob);

struct GzArchiveDeleter {
    void operator()(GZ_ARCHIVE* archive) const noexcept { zncGzArchiveDelete(archive); }
};

} // namespace znc

#endif
