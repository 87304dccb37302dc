// gzlib.hpp - a gzip file, read as one stream of exactly the length that its trailer names. Used by
// the archive source in zncGzLib. Left out: seeking, several members in one file, and reporting
// damaged data, which the archive layer notices.
//
// The operations themselves (ugzopen, ugzread, ugzclose) are in the public header.
#ifndef GZLIB_HPP
#define GZLIB_HPP

#include "zncontainer.h"

#include "uzlib.h"

#include <cstddef>

namespace znc {
class BlobReader;
}

struct gzFile_s {
    uzlib_uncomp d; // first: a pointer to the inflater state is a pointer to the file
    int fd;
    std::size_t outOffset; // uncompressed bytes delivered
    unsigned char* source; // input buffer; null: the blob's
    std::size_t slen;      // bytes of the file not yet in the input buffer
    std::size_t outlen;    // uncompressed bytes not yet delivered
    unsigned char* dict;   // history window
    std::size_t dictLen;   // 0

    znc::BlobReader* blob; // null: read from fd; else from this, and fd is borrowed from it
};

// The refill: a new buffer of input, its first byte as the result; -1 at the end.
int ugzreadCallback(uzlib_uncomp* uncomp);

namespace znc {

inline constexpr std::size_t kGzSourceSize = 4096;
inline constexpr unsigned int kGzDictSize = 32768;
inline constexpr std::size_t kGzTrailerLen = 4; // the length field, withheld from the inflater
// ugzopen for an archive that is hashed as it is read, from its beginning. It must outlive the
// file.
gzFile gz_open(BlobReader& blob);

// Stands where the inflater produced nothing. No block of it is a header or the end of an archive.
inline constexpr unsigned char kGzNothing = 0xff;

} // namespace znc

#endif
