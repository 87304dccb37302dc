// tarforge.hpp - builds test archives byte by byte: tar headers with any field in any form, wrong
// checksums, gzip framing with any flags and any trailer, including what tar programs refuse to
// write. By default it writes correct POSIX ustar and gzip.
#ifndef TARFORGE_HPP
#define TARFORGE_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarforge {

inline constexpr std::size_t kBlock = 512;

enum class Field {
    kName,
    kMode,
    kUid,
    kGid,
    kSize,
    kMtime,
    kChksum,
    kType,
    kLinkname,
    kMagic,
    kVersion,
    kUname,
    kGname,
    kMajor,
    kMinor,
    kPrefix,
    kPadding,
};

struct Extent {
    std::size_t offset;
    std::size_t length;
};
Extent extent(Field field);

// One header block. Initially: mode 0644, all other numbers zero, type '0', POSIX magic. The
// checksum is computed at the end unless it was set.
class Header {
  public:
    Header();
    explicit Header(std::string_view name, char type = '0');

    // Stores the bytes unchanged, truncated to the field; the rest of the field is filled with
    // `fill`.
    Header& raw(Field field, std::string_view bytes, char fill = '\0');
    // Zero-padded octal digits and a final NUL.
    Header& octal(Field field, std::uint64_t value);
    // As octal(), with a digit in place of the NUL.
    Header& octal_unterminated(Field field, std::uint64_t value);
    // The binary form that GNU tar uses for numbers that do not fit.
    Header& base256(Field field, std::int64_t value);

    Header& name(std::string_view bytes) { return raw(Field::kName, bytes); }
    Header& prefix(std::string_view bytes) { return raw(Field::kPrefix, bytes); }
    Header& target(std::string_view bytes) { return raw(Field::kLinkname, bytes); }
    Header& type(char type) { return raw(Field::kType, {&type, 1}); }
    Header& mode(unsigned mode) { return octal(Field::kMode, mode); }
    Header& size(std::uint64_t size) { return octal(Field::kSize, size); }
    Header& mtime(std::uint64_t mtime) { return octal(Field::kMtime, mtime); }
    // Stores these bytes instead of the correct checksum.
    Header& checksum(std::string_view bytes);
    // Stores the correct checksum plus `delta`.
    Header& checksum_off_by(int delta);
    // Stores the sum of signed bytes, as some old programs do.
    Header& checksum_signed();

    [[nodiscard]] std::string block() const;

  private:
    std::string bytes_;
    bool ownChecksum_ = false;
    bool signed_ = false;
    int delta_ = 0;
};

// A sequence of members. file() sets the size field to that of the content; member() does not
// change it.
class Archive {
  public:
    Archive& file(std::string_view name, std::string_view content = "", unsigned mode = 0644,
                  std::uint64_t mtime = 0);
    Archive& dir(std::string_view name, unsigned mode = 0755, std::uint64_t mtime = 0);
    Archive& symlink(std::string_view name, std::string_view target);
    // Appends the header unchanged, and the content padded to whole blocks.
    Archive& member(const Header& header, std::string_view content = "");
    Archive& raw(std::string_view bytes);
    Archive& end(unsigned zeroBlocks = 2);

    [[nodiscard]] const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

std::uint32_t crc32(std::string_view bytes);

// Raw DEFLATE by zlib (level 0: stored blocks; strategy: Z_FIXED, Z_HUFFMAN_ONLY, Z_RLE ...).
std::string deflate(std::string_view bytes, int level = 6, int strategy = 0);
// As deflate(), but without the final block, so that more DEFLATE data may follow.
std::string deflate_part(std::string_view bytes, int level = 6);

struct Gzip {
    int level = 6;
    int strategy = 0;
    std::uint8_t method = 8;
    std::uint8_t flags = 0; // additional bits; those for the fields below are set automatically
    std::optional<std::string> extra = std::nullopt;
    std::optional<std::string> name = std::nullopt;
    std::optional<std::string> comment = std::nullopt;
    bool headerCrc = false;
    std::optional<std::string> body =
        std::nullopt; // DEFLATE bytes to use instead of the compressed data
    std::optional<std::uint32_t> crc = std::nullopt;  // instead of the correct CRC
    std::optional<std::uint32_t> size = std::nullopt; // instead of the correct length
    std::string behind = {};                          // appended after the trailer
};

// One gzip member.
std::string gzip(std::string_view bytes, const Gzip& options = {});

} // namespace tarforge

#endif
