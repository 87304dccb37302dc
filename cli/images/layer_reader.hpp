// layer_reader.hpp - a layer's archive as the extractor reads it, block by block, plain or
// compressed by gzip. Used by image check, and to find what extracting loses.
#ifndef ZNC_CLI_IMAGES_LAYER_READER_HPP
#define ZNC_CLI_IMAGES_LAYER_READER_HPP

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/owned.hpp"
#include "zncontainer.h"

namespace zncctl {

inline constexpr std::size_t kTarBlock = 512;

struct TarHeader {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char checksum[8];
    char type;
    char link[100];
    char magic[6];
    char version[2];
    char user[32];
    char group[32];
    char major[8];
    char minor[8];
    char prefix[155];
    char rest[12];

    [[nodiscard]] bool is_zero() const;
    [[nodiscard]] bool checksum_good() const;
    [[nodiscard]] std::uint64_t size_value() const; // 0 for what is no number
    [[nodiscard]] std::uint64_t mode_value() const;
    [[nodiscard]] bool has_owner() const; // other than root
    [[nodiscard]] std::string full_name() const;
};
static_assert(sizeof(TarHeader) == kTarBlock);

// A member's name as the extractor takes it: separators of both kinds, no "." and no empty parts,
// each part behind a "/". Nothing for one with "..".
std::optional<std::string> clean_path(std::string_view name);

// Directories are told by their names.
bool names_directory(std::string_view name);

// The plain bytes of an archive, compressed or not.
class LayerReader {
  public:
    explicit LayerReader(const std::string& path);

    explicit operator bool() const { return static_cast<bool>(file_); }
    [[nodiscard]] const char* unknown_compression() const { return compression_; }

    // False at the end, or when there is no whole block.
    bool read(TarHeader& block);
    // Leaves out the blocks of a member's data; false when they are not all there.
    bool skip(std::uint64_t bytes);

    // How many bytes the last read gave.
    [[nodiscard]] std::size_t last_count() const { return count_; }
    [[nodiscard]] bool torn() const { return torn_; }

  private:
    struct GzCloser {
        void operator()(gzFile file) const { ugzclose(file); }
    };

    znc::UniqueFd file_;
    std::unique_ptr<gzFile_s, GzCloser> gz_;
    const char* compression_ = nullptr;
    std::size_t count_ = 0;
    bool torn_ = false;
};

} // namespace zncctl

#endif
