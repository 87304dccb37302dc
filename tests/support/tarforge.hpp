// tarforge.hpp - archives made to measure, byte for byte, for tests: tar headers with any field in
// any form, wrong checksums, gzip framing with any flag and any trailer. What tar programs would
// refuse to write is the point of it; unless told otherwise it writes correct POSIX ustar and gzip.
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

// One header block. Starts as: mode 0644, everything zero, type '0', POSIX magic. The checksum is
// worked out at the end unless it was given.
class Header {
  public:
    Header();
    explicit Header(std::string_view name, char type = '0');

    // The bytes as they are, cut to the field, the rest of it filled with `fill`.
    Header& raw(Field field, std::string_view bytes, char fill = '\0');
    // Zero-padded octal digits and a final NUL.
    Header& octal(Field field, std::uint64_t value);
    // The same with a digit in the place of the NUL.
    Header& octal_unterminated(Field field, std::uint64_t value);
    // The binary form that GNU tar writes for numbers that do not fit.
    Header& base256(Field field, std::int64_t value);

    Header& name(std::string_view bytes) { return raw(Field::kName, bytes); }
    Header& prefix(std::string_view bytes) { return raw(Field::kPrefix, bytes); }
    Header& target(std::string_view bytes) { return raw(Field::kLinkname, bytes); }
    Header& type(char type) { return raw(Field::kType, {&type, 1}); }
    Header& mode(unsigned mode) { return octal(Field::kMode, mode); }
    Header& size(std::uint64_t size) { return octal(Field::kSize, size); }
    Header& mtime(std::uint64_t mtime) { return octal(Field::kMtime, mtime); }
    // These bytes instead of the right checksum.
    Header& checksum(std::string_view bytes);
    // The right checksum plus `delta`.
    Header& checksum_off_by(int delta);
    // The sum of signed bytes, which some old programs wrote.
    Header& checksum_signed();

    [[nodiscard]] std::string block() const;

  private:
    std::string bytes_;
    bool ownChecksum_ = false;
    bool signed_ = false;
    int delta_ = 0;
};

// Members one after another. The size field of file() is the content's; member() leaves it alone.
class Archive {
  public:
    Archive& file(std::string_view name, std::string_view content = "", unsigned mode = 0644,
                  std::uint64_t mtime = 0);
    Archive& dir(std::string_view name, unsigned mode = 0755, std::uint64_t mtime = 0);
    Archive& symlink(std::string_view name, std::string_view target);
    // A header as it is, and content padded to whole blocks.
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
// The same without the final block, ended so that more DEFLATE data may follow it.
std::string deflate_part(std::string_view bytes, int level = 6);

struct Gzip {
    int level = 6;
    int strategy = 0;
    std::uint8_t method = 8;
    std::uint8_t flags = 0; // further bits; those of the fields below are added
    std::optional<std::string> extra = std::nullopt;
    std::optional<std::string> name = std::nullopt;
    std::optional<std::string> comment = std::nullopt;
    bool headerCrc = false;
    std::optional<std::string> body =
        std::nullopt; // these DEFLATE bytes instead of the compressed data
    std::optional<std::uint32_t> crc = std::nullopt;  // instead of the right CRC
    std::optional<std::uint32_t> size = std::nullopt; // instead of the right length
    std::string behind = {};                          // after the trailer
};

// One gzip member.
std::string gzip(std::string_view bytes, const Gzip& options = {});

} // namespace tarforge

#endif
