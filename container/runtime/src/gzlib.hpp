// gzlib.hpp - reads a gzip file as a stream of exactly the length given in its trailer. Used by the
// archive source in zncGzLib. Not supported: seeking, several members in one file, and reporting
// damaged data, which is left to the archive reader.
//
// The public functions (ugzopen, ugzread, ugzclose) are declared in the public header.
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
    std::size_t dictLen;   // unused, 0

    znc::BlobReader* blob; // null: read from fd; else read from this, which also owns fd
};

// Callback of the inflater for more input: refills the buffer and returns its first byte, -1 at the
// end.
int ugzreadCallback(uzlib_uncomp* uncomp);

namespace znc {

inline constexpr std::size_t kGzSourceSize = 4096;
inline constexpr unsigned int kGzDictSize = 32768;
inline constexpr std::size_t kGzTrailerLen = 4; // the length field, withheld from the inflater
// Like ugzopen, for an archive that is hashed while it is read. `blob` must be at its beginning and
// must outlive the result.
gzFile gz_open(BlobReader& blob);

// Fill byte for output that the file announces but does not contain. A block of these bytes is
// neither a valid tar header nor the end of an archive.
inline constexpr unsigned char kGzNothing = 0xff;

} // namespace znc

#endif
