// tar_reader.hpp - reads a tar archive from a stream: ustar, pax and GNU headers, with names, sizes
// and owners of any length. The archive is untrusted. Used by cp.
#ifndef ZNC_CLI_CONTAINERS_TAR_READER_HPP
#define ZNC_CLI_CONTAINERS_TAR_READER_HPP

#include "tar_writer.hpp"

#include <map>
#include <optional>

namespace znc {
struct UstarHeader;
}

namespace zncctl {

// All functions throw std::runtime_error if the archive is damaged or cannot be read.
class TarReader {
  public:
    // Reads from a descriptor of the caller.
    explicit TarReader(int fd) : fd_(fd) {}

    // The next member, with its name as in the archive; nullopt at the end. Unread data of the
    // previous member is skipped. Members of other types than those of TarType are refused.
    std::optional<TarMember> next();
    // Writes the data of the member to a file; -1: nowhere.
    void copy_data(int to);
    // To be called after the last member: reads a limited amount of padding after the end of the
    // archive, so that the process writing the pipe does not fail with EPIPE.
    void finish();

  private:
    // The extended header of a member: what differs from its own.
    using Extended = std::map<std::string, std::string, std::less<>>;

    bool read_block(znc::UstarHeader& header);
    void read(char* to, std::size_t size);
    void skip_data();
    std::string read_text(std::uint64_t size);
    TarMember member_of(const znc::UstarHeader& header, const Extended& extended);

    int fd_;
    std::uint64_t left_ = 0;    // of the data of the member
    std::uint64_t padding_ = 0; // behind them
    bool started_ = false;
};

} // namespace zncctl

#endif
