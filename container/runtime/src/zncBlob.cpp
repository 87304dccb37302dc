// zncBlob.cpp - see zncBlob.hpp.
#include "zncBlob.hpp"

#include "base/file.hpp"
#include "zncProgress.hpp"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kDrainLen = 4096;
// smallest archive that is hashed in a separate thread
constexpr std::size_t kThreadMin = 1024 * 1024;

} // namespace

namespace znc {

bool BlobReader::open(const char* path, const char* digest)
{
    struct stat st = {};
    fd_ = open_regular(path, &st);
    if (!fd_)
        return false;
    size_ = static_cast<std::size_t>(st.st_size);
    digest_ = digest;
    errno = 0;
    return restart();
}

bool BlobReader::restart()
{
    hash_thread_.finish();
    offset_ = 0;
    tailLen_ = 0;
    return ::lseek(fd_.get(), 0, SEEK_SET) == 0 && hash_.start(digest_);
}

// The thread is only started after the first read: archives that are not compressed are restarted
// after their beginning was examined.
void BlobReader::hash(const void* bytes, std::size_t len)
{
    if (!hash_thread_.runs() && !no_thread_ && offset_ > 0 && size_ >= kThreadMin)
        no_thread_ = !hash_thread_.start(hash_);
    if (hash_thread_.runs())
        hash_thread_.give(bytes, len);
    else
        hash_.update(bytes, len);
}

void BlobReader::note_tail(const unsigned char* bytes, std::size_t len)
{
    const std::size_t from = size_ - tailLen_; // offset in the file
    const std::size_t begin = std::max(offset_, from);
    if (begin < offset_ + len)
        std::memcpy(tail_.data() + (begin - from), bytes + (begin - offset_),
                    offset_ + len - begin);
}

ssize_t BlobReader::read(void* buffer, std::size_t count)
{
    auto* const bytes = static_cast<unsigned char*>(buffer);
    const std::size_t wanted = std::min(count, size_ - offset_);
    std::size_t got = 0;
    while (got < wanted) {
        const ssize_t n = ::read(fd_.get(), bytes + got, wanted - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break; // the file was truncated after it was opened
        got += static_cast<std::size_t>(n);
    }
    hash(bytes, got);
    note_tail(bytes, got);
    offset_ += got;
    progress_read(fd_.get());
    return static_cast<ssize_t>(got);
}

bool BlobReader::read_tail(unsigned char* tail, std::size_t len)
{
    if (len > kTailMax || len > size_)
        return false;
    tailLen_ = len;
    const auto from = static_cast<off_t>(size_ - len);
    if (::pread(fd_.get(), tailAhead_.data(), len, from) != static_cast<ssize_t>(len))
        return false;
    std::memcpy(tail, tailAhead_.data(), len);
    return true;
}

bool BlobReader::verified()
{
    std::array<unsigned char, kDrainLen> rest;
    ssize_t n = 1;
    while (n > 0)
        n = read(rest.data(), rest.size());
    hash_thread_.finish();
    return n == 0 && offset_ == size_ && hash_.matches() &&
           std::memcmp(tail_.data(), tailAhead_.data(), tailLen_) == 0;
}

} // namespace znc
