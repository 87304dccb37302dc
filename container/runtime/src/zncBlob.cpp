// zncBlob.cpp - see zncBlob.hpp.
#include "zncBlob.hpp"

#include "base/file.hpp"
#include "zncProgress.hpp"

#include <algorithm>
#include <cstring>

namespace znc {

static constexpr std::size_t kPieceLen = HashBeside::kPieceLen;

bool BlobReader::open(const char* path, const char* digest)
{
    struct stat st = {};
    fd_ = open_regular(path, &st);
    if (!fd_)
        return false;
    size_ = static_cast<std::size_t>(st.st_size);
    digest_ = digest;
    if (!own_)
        own_ = malloc_array<unsigned char>(kPieceLen);
    if (!own_)
        return false;
    errno = 0;
    return restart();
}

bool BlobReader::restart()
{
    beside_.finish();
    offset_ = 0;
    pieceAt_ = 0;
    pieceLen_ = 0;
    tailLen_ = 0;
    return ::lseek(fd_.get(), 0, SEEK_SET) == 0 && hash_.start(digest_);
}

void BlobReader::note_tail(const unsigned char* bytes, std::size_t len)
{
    const std::size_t from = size_ - tailLen_; // offset in the file
    const std::size_t begin = std::max(offset_, from);
    if (begin < offset_ + len)
        std::memcpy(tail_.data() + (begin - from), bytes + (begin - offset_),
                    offset_ + len - begin);
}

// Reads the next bytes of the file.
ssize_t BlobReader::fetch(unsigned char* bytes, std::size_t count)
{
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
    note_tail(bytes, got);
    offset_ += got;
    progress_at(offset_);
    return static_cast<ssize_t>(got);
}

// Reads the next piece of the file, and hashes it or has it hashed.
ssize_t BlobReader::fetch_piece()
{
    piece_ = beside_.is_running() ? beside_.piece() : own_.get();
    const ssize_t n = fetch(piece_, kPieceLen);
    if (n <= 0)
        return n;
    const auto len = static_cast<std::size_t>(n);
    if (beside_.is_running())
        beside_.add(len);
    else
        hash_.update(piece_, len);
    return n;
}

ssize_t BlobReader::next(const unsigned char** bytes)
{
    if (pieceAt_ == pieceLen_) {
        const ssize_t n = fetch_piece();
        if (n <= 0)
            return n;
        pieceAt_ = 0;
        pieceLen_ = static_cast<std::size_t>(n);
    }
    *bytes = piece_ + pieceAt_;
    const std::size_t len = pieceLen_ - pieceAt_;
    pieceAt_ = pieceLen_;
    return static_cast<ssize_t>(len);
}

ssize_t BlobReader::read(void* buffer, std::size_t count)
{
    auto* const bytes = static_cast<unsigned char*>(buffer);
    std::size_t got = 0;
    while (got < count) {
        // A read of at least a whole piece goes to the caller's buffer directly.
        if (pieceAt_ == pieceLen_ && count - got >= kPieceLen && !beside_.is_running()) {
            const ssize_t n = fetch(bytes + got, count - got);
            if (n < 0)
                return n;
            hash_.update(bytes + got, static_cast<std::size_t>(n));
            return static_cast<ssize_t>(got) + n;
        }
        const unsigned char* from = nullptr;
        const ssize_t n = next(&from);
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        const std::size_t part = std::min(static_cast<std::size_t>(n), count - got);
        std::memcpy(bytes + got, from, part);
        pieceAt_ -= static_cast<std::size_t>(n) - part;
        got += part;
    }
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
    ssize_t n = 1;
    while (n > 0)
        n = fetch_piece();
    beside_.finish();
    pieceAt_ = pieceLen_ = 0; // the piece may have been the thread's
    return n == 0 && offset_ == size_ && hash_.matches() &&
           std::memcmp(tail_.data(), tailAhead_.data(), tailLen_) == 0;
}

} // namespace znc
