// tar_writer.hpp - writes a tar archive in the pax format: ustar headers, preceded by an extended
// header if a member does not fit into its ustar header. Used by export and cp.
#ifndef ZNC_CLI_CONTAINERS_TAR_WRITER_HPP
#define ZNC_CLI_CONTAINERS_TAR_WRITER_HPP

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

// The type flags of ustar.
enum class TarType : char {
    kFile = '0',
    kHardLink = '1',
    kSymbolicLink = '2',
    kDirectory = '5',
    kFifo = '6'
};

struct TarMember {
    std::string path; // a directory's ends with "/"
    TarType type = TarType::kFile;
    std::uint32_t mode = 0;
    std::uint64_t uid = 0;
    std::uint64_t gid = 0;
    std::int64_t mtime = 0;
    std::uint64_t size = 0; // of the data that follow
    std::string target;     // of a link
};

// All functions throw std::runtime_error if the archive cannot be written.
class TarWriter {
  public:
    // Writes to a descriptor of the caller.
    explicit TarWriter(int fd);

    void add(const TarMember& member);
    // Adds the data of a file: exactly as many bytes as `size` in the last call of add(). If the
    // file is shorter, zeros are added and the result is false.
    bool add_data(int file);
    // Ends the archive.
    void finish();

  private:
    void write(std::string_view bytes);
    void add_extended_header(const TarMember& member, std::string_view records);
    void pad();
    void flush();

    int fd_;
    std::uint64_t data_ = 0;    // of the last member
    std::uint64_t written_ = 0; // in all
    std::vector<char> buffer_;
    std::size_t used_ = 0;
};

} // namespace zncctl

#endif
