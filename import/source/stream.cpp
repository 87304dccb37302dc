#include "stream.hpp"

#include "front/files.hpp"
#include "library_reader.hpp"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <array>
#include <fmt/format.h>
#include <string_view>
#include <zlib.h>

namespace zncimport {
namespace {

constexpr std::size_t kPart = std::size_t{64} << 10U;
// The ratio is checked only beyond this size: short, repetitive streams legitimately compress very
// well.
constexpr std::uint64_t kRatioFrom = std::uint64_t{16} << 20U;

class PartReader : public Reader {
  public:
    PartReader(int fd, std::string name, std::uint64_t offset, std::uint64_t size)
        : fd_(fd), name_(std::move(name)), at_(offset), left_(size)
    {
    }

    std::size_t read(std::span<std::byte> out) override
    {
        const std::size_t most = std::min<std::uint64_t>(out.size(), left_);
        ssize_t got = 0;
        do
            got = most == 0 ? 0 : ::pread(fd_, out.data(), most, static_cast<off_t>(at_));
        while (got < 0 && errno == EINTR);
        if (got < 0)
            throw Failure(name_, zncctl::error_text());
        if (got == 0 && left_ != 0 && !out.empty())
            throw Failure(name_, "is truncated");
        skip(static_cast<std::uint64_t>(got));
        return static_cast<std::size_t>(got);
    }

    std::uint64_t skip(std::uint64_t count) override
    {
        count = std::min(count, left_);
        at_ += count;
        left_ -= count;
        return count;
    }

  private:
    int fd_;
    std::string name_;
    std::uint64_t at_;
    std::uint64_t left_;
};

class StreamReader : public Reader {
  public:
    StreamReader(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

    std::size_t read(std::span<std::byte> out) override
    {
        ssize_t got = 0;
        do
            got = ::read(fd_, out.data(), out.size());
        while (got < 0 && errno == EINTR);
        if (got < 0)
            throw Failure(name_, zncctl::error_text());
        return static_cast<std::size_t>(got);
    }

  private:
    int fd_;
    std::string name_;
};

// Returns the first bytes again, which were read to detect the compression.
class Peeked : public Reader {
  public:
    explicit Peeked(Reader& source) : source_(source)
    {
        while (size_ < head_.size()) {
            const std::size_t got = source_.read(std::span(head_).subspan(size_));
            if (got == 0)
                break;
            size_ += got;
        }
    }

    [[nodiscard]] std::span<const std::byte> head() const { return std::span(head_).first(size_); }

    std::size_t read(std::span<std::byte> out) override
    {
        if (at_ == size_)
            return source_.read(out);
        const std::size_t count = std::min(out.size(), size_ - at_);
        std::copy_n(head_.begin() + static_cast<std::ptrdiff_t>(at_), count, out.begin());
        at_ += count;
        return count;
    }

  private:
    Reader& source_;
    std::array<std::byte, kMagicSize> head_{};
    std::size_t size_ = 0;
    std::size_t at_ = 0;
};

// Returns libarchive's number of the compression, ARCHIVE_FILTER_NONE if it is not supported.
int filter_of(std::span<const std::byte> head)
{
    const std::string_view text(reinterpret_cast<const char*>(head.data()), head.size());
    if (text.starts_with("\x1f\x8b"))
        return ARCHIVE_FILTER_GZIP;
    if (text.starts_with("BZh"))
        return ARCHIVE_FILTER_BZIP2;
    if (text.starts_with(std::string_view("\xfd"
                                          "7zXZ\0",
                                          6)))
        return ARCHIVE_FILTER_XZ;
    // A zstd stream may begin with a skippable frame; sixteen magic numbers are reserved for those.
    const bool skipped =
        text.size() >= 4 && (text[0] & '\xf0') == '\x50' && text.substr(1, 3) == "\x2a\x4d\x18";
    return skipped || text.starts_with("\x28\xb5\x2f\xfd") ? ARCHIVE_FILTER_ZSTD
                                                           : ARCHIVE_FILTER_NONE;
}

class Decompressor : public Reader {
  public:
    // Number of compressed bytes read so far.
    [[nodiscard]] virtual std::uint64_t taken() const = 0;
};

// Uses zlib directly, because it checks the length and checksum of each member; libarchive ignores
// both.
class GzipReader : public Decompressor {
  public:
    GzipReader(Reader& source, const std::string& name) : source_(source), name_(name), in_(kPart)
    {
        constexpr int kGzipOnly = 15 + 16;
        if (inflateInit2(&state_, kGzipOnly) != Z_OK)
            throw std::bad_alloc();
    }
    ~GzipReader() override { inflateEnd(&state_); }

    [[nodiscard]] std::uint64_t taken() const override { return taken_; }

    std::size_t read(std::span<std::byte> out) override
    {
        const std::size_t most = std::min(out.size(), kPart);
        state_.next_out = reinterpret_cast<Bytef*>(out.data());
        state_.avail_out = static_cast<uInt>(most);
        while (state_.avail_out == most && most != 0) {
            if (state_.avail_in == 0 && !refill())
                break;
            step();
        }
        return most - state_.avail_out;
    }

  private:
    // Returns false at the end of the last member.
    bool refill()
    {
        const std::size_t got = source_.read(in_);
        if (got == 0 && !between_)
            throw Failure(name_, "the compressed data is truncated");
        taken_ += got;
        state_.next_in = reinterpret_cast<Bytef*>(in_.data());
        state_.avail_in = static_cast<uInt>(got);
        return got != 0;
    }

    void step()
    {
        if (std::exchange(between_, false))
            inflateReset(&state_);
        const int result = inflate(&state_, Z_NO_FLUSH);
        between_ = result == Z_STREAM_END;
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
            throw Failure(name_, fmt::format("the compressed data is damaged: {}",
                                             state_.msg != nullptr ? state_.msg : "unknown"));
    }

    Reader& source_;
    const std::string& name_;
    std::vector<std::byte> in_;
    z_stream state_{};
    bool between_ = false; // a member has ended, and no byte of another was read
    std::uint64_t taken_ = 0;
};

class FilterReader : public Decompressor {
  public:
    FilterReader(Reader& source, int filter, const std::string& name)
        : source_(source), name_(name), library_(source)
    {
        archive* handle = library_.get();
        // Set exactly one filter: otherwise libarchive would look for further layers of compression
        // in the decompressed data.
        if (archive_read_append_filter(handle, filter) != ARCHIVE_OK ||
            archive_read_support_format_raw(handle) != ARCHIVE_OK ||
            archive_read_support_format_empty(handle) != ARCHIVE_OK)
            library_.fail(name_);
        library_.open(name_);
        archive_entry* entry = nullptr;
        const int next = archive_read_next_header(handle, &entry);
        if (next != ARCHIVE_OK && next != ARCHIVE_EOF)
            library_.fail(name_);
        ended_ = next == ARCHIVE_EOF;
    }

    [[nodiscard]] std::uint64_t taken() const override { return library_.given(); }

    std::size_t read(std::span<std::byte> out) override
    {
        const la_ssize_t got =
            ended_ ? 0 : archive_read_data(library_.get(), out.data(), out.size());
        if (got < 0)
            library_.fail(name_);
        if (got == 0 && !out.empty()) {
            ended_ = true;
            check_end();
        }
        return static_cast<std::size_t>(got);
    }

  private:
    // libarchive silently stops at the end of the compressed data, even if other data follow.
    void check_end()
    {
        const la_int64_t used = archive_filter_bytes(library_.get(), -1);
        std::array<std::byte, kPart> more{};
        if (used < 0 || static_cast<std::uint64_t>(used) != library_.given() ||
            source_.read(more) != 0)
            throw Failure(name_, "has other data after its compressed data");
    }

    Reader& source_;
    const std::string& name_;
    LibraryReader library_;
    bool ended_ = false;
};

class PlainReader : public Reader {
  public:
    PlainReader(Reader& source, std::string name, Budget& budget)
        : name_(std::move(name)), budget_(budget), peeked_(source)
    {
        const int filter = filter_of(peeked_.head());
        if (filter == ARCHIVE_FILTER_GZIP)
            decompressor_ = std::make_unique<GzipReader>(peeked_, name_);
        else if (filter != ARCHIVE_FILTER_NONE)
            decompressor_ = std::make_unique<FilterReader>(peeked_, filter, name_);
    }

    std::size_t read(std::span<std::byte> out) override
    {
        const std::size_t got = decompressor_ ? decompressor_->read(out) : peeked_.read(out);
        budget_.take_bytes(name_, got);
        count_ += got;
        const std::uint64_t ratio = budget_.limits().ratio;
        if (decompressor_ && count_ > kRatioFrom && count_ / ratio > decompressor_->taken())
            throw Failure(
                name_,
                fmt::format("expands to more than {} times its compressed size (see --max-ratio)",
                            ratio));
        return got;
    }

  private:
    std::string name_;
    Budget& budget_;
    Peeked peeked_;
    std::unique_ptr<Decompressor> decompressor_;
    std::uint64_t count_ = 0;
};

} // namespace

ReaderPtr read_part(int fd, std::string name, std::uint64_t offset, std::uint64_t size)
{
    return std::make_unique<PartReader>(fd, std::move(name), offset, size);
}

ReaderPtr read_stream(int fd, std::string name)
{
    return std::make_unique<StreamReader>(fd, std::move(name));
}

std::size_t DigestReader::read(std::span<std::byte> out)
{
    const std::size_t got = source_.read(out);
    digest_.add(out.data(), got);
    count_ += got;
    return got;
}

void DigestReader::drain()
{
    std::vector<std::byte> part(kPart);
    while (read(part) != 0) {
    }
}

bool is_compressed(std::span<const std::byte> head)
{
    return filter_of(head) != ARCHIVE_FILTER_NONE;
}

ReaderPtr plain(Reader& source, std::string name, Budget& budget)
{
    return std::make_unique<PlainReader>(source, std::move(name), budget);
}

std::string read_all(Reader& source, const std::string& name, std::uint64_t limit)
{
    std::string text;
    std::array<std::byte, 16384> part{};
    while (const std::size_t got = source.read(part)) {
        if (got > limit - text.size())
            throw Failure(
                name, fmt::format("the document has more than {} bytes (see --max-json)", limit));
        text.append(reinterpret_cast<const char*>(part.data()), got);
    }
    return text;
}

} // namespace zncimport
