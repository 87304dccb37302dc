// gzlib.cpp
#include "gzlib.hpp"

#include "zncBlob.hpp"
#include "zncOwned.hpp"
#include "zncProgress.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

struct GzCloser {
    void operator()(gzFile file) const noexcept { ugzclose(file); }
};
using GzPtr = std::unique_ptr<gzFile_s, GzCloser>;

// Fill the input buffer. Near the end the last four bytes are kept from the inflater: they are the
// trailer's length field (or, when that is split between two buffers, the checksum before it).
ssize_t fill_source(gzFile_s& file)
{
    const unsigned char* bytes = file.source;
    const ssize_t n = file.blob != nullptr ? file.blob->next(&bytes)
                                           : read(file.fd, file.source, znc::kGzSourceSize);
    if (n < 0)
        return n;
    if (file.blob == nullptr) // which tells by itself
        znc::progress_read(file.fd);
    const auto got = static_cast<std::size_t>(n);
    file.slen -= std::min(got, file.slen);
    const std::size_t kept = file.slen <= znc::kGzTrailerLen ? znc::kGzTrailerLen : 0;
    file.d.source = bytes;
    file.d.source_limit = bytes + (got > kept ? got - kept : 0);
    return n;
}

bool read_trailer(gzFile_s& file)
{
    unsigned char raw[znc::kGzTrailerLen];
    const auto at = static_cast<off_t>(file.slen - sizeof raw);
    const bool got = file.blob != nullptr ? file.blob->read_tail(raw, sizeof raw)
                                          : lseek(file.fd, at, SEEK_SET) >= 0 &&
                                                read(file.fd, raw, sizeof raw) == sizeof raw;
    if (!got)
        return false;
    file.outlen = std::size_t{raw[0]} | std::size_t{raw[1]} << 8 | std::size_t{raw[2]} << 16 |
                  std::size_t{raw[3]} << 24;
    return true;
}

bool open_file(gzFile_s& file, const char* name)
{
    if (file.blob == nullptr)
        file.fd = open(name, O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (file.fd < 0 || fstat(file.fd, &st) != 0 || st.st_size < off_t{znc::kGzTrailerLen})
        return false;
    file.slen = static_cast<std::size_t>(st.st_size);
    return true;
}

bool start_stream(gzFile_s& file)
{
    if (file.blob == nullptr) // which has its own
        file.source = znc::malloc_array<unsigned char>(znc::kGzSourceSize).release();
    if ((file.blob == nullptr && file.source == nullptr) || !read_trailer(file))
        return false;
    file.dict = znc::malloc_array<unsigned char>(znc::kGzDictSize).release();
    if (file.dict == nullptr)
        return false;
    uzlib_uncompress_init(&file.d, file.dict, znc::kGzDictSize);
    if ((file.blob == nullptr && lseek(file.fd, 0, SEEK_SET) < 0) || fill_source(file) < 0)
        return false;
    file.d.source_read_cb = ugzreadCallback;
    return uzlib_gzip_parse_header(&file.d) == TINF_OK;
}

// The file `name`, or `blob` where there is one.
gzFile open_stream(const char* name, znc::BlobReader* blob)
{
    GzPtr file(znc::malloc_zeroed<gzFile_s>().release());
    if (file == nullptr)
        return nullptr;
    file->blob = blob;
    file->fd = blob != nullptr ? blob->fd() : -1;
    if (!open_file(*file, name) || !start_stream(*file))
        return nullptr;
    file->outOffset = 0;
    return file.release();
}

} // namespace

gzFile ugzopen(const char* fileName, const char* mode)
{
    uzlib_init();
    return fileName != nullptr && mode != nullptr ? open_stream(fileName, nullptr) : nullptr;
}

gzFile znc::gz_open(BlobReader& blob)
{
    uzlib_init();
    return open_stream(nullptr, &blob);
}

int ugzreadCallback(uzlib_uncomp* uncomp)
{
    auto* const file = reinterpret_cast<gzFile_s*>(uncomp);
    if (file == nullptr || file->fd < 0 || fill_source(*file) < 1)
        return -1;
    return *file->d.source++;
}

int ugzread(gzFile file, void* buf, unsigned int len)
{
    if (file == nullptr || buf == nullptr || len == 0)
        return -1;
    const std::size_t n = std::min({file->outlen, std::size_t{len}, std::size_t{INT_MAX}});
    uzlib_uncomp& d = file->d;
    d.dest = static_cast<unsigned char*>(buf);
    // The stream as one continuous output that reaches `buf` now; nothing is there to be read.
    d.dest_start =
        reinterpret_cast<unsigned char*>(reinterpret_cast<std::uintptr_t>(buf) - file->outOffset);
    if (n != 0) {
        d.dest_limit = d.dest + n;
        // What the inflater says is not looked at: a damaged stream shows as damaged content.
        (void)uzlib_uncompress_chksum(&d);
        std::fill(d.dest, d.dest_limit, znc::kGzNothing);
        file->outlen -= n;
        file->outOffset += n;
    }
    return static_cast<int>(n);
}

int ugzclose(gzFile file)
{
    if (file == nullptr)
        return -1;
    const znc::MallocPtr<gzFile_s> record(file);
    const znc::MallocPtr<unsigned char[]> source(file->source);
    const znc::MallocPtr<unsigned char[]> dict(file->dict);
    const znc::UniqueFd fd(file->blob != nullptr ? -1 : file->fd);
    return 0;
}
