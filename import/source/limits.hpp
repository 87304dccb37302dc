// limits.hpp - limits for the resources that an image may use. Exceeding one is an error that names
// the option which raises the limit.
#ifndef ZNC_IMPORT_SOURCE_LIMITS_HPP
#define ZNC_IMPORT_SOURCE_LIMITS_HPP

#include "failure.hpp"

#include <cstdint>

namespace zncimport {

struct Limits {
    std::uint64_t entries = 1'000'000;              // members of all layers together
    std::uint64_t bytes = std::uint64_t{32} << 30U; // uncompressed bytes of all streams together
    std::uint64_t ratio = 1100;                   // uncompressed to compressed bytes of one stream
    std::uint64_t depth = 128;                    // components of a path
    std::uint64_t json = std::uint64_t{4} << 20U; // bytes of one document
    std::uint64_t hardlink_bytes = std::uint64_t{16} << 20U; // added by copies of linked files
};

// The resources used so far by all streams of an import. Not thread-safe.
class Budget {
  public:
    explicit Budget(const Limits& limits) : limits_(limits) {}

    [[nodiscard]] const Limits& limits() const { return limits_; }
    // Throw Failure when the limit is exceeded.
    void take_entry(const std::string& object);
    void take_bytes(const std::string& object, std::uint64_t count);
    // Counts bytes of names, which are kept in memory. Their limit is derived from the limit for
    // members.
    void take_names(const std::string& object, std::uint64_t count);

  private:
    Limits limits_;
    std::uint64_t entries_ = 0;
    std::uint64_t bytes_ = 0;
    std::uint64_t names_ = 0;
};

} // namespace zncimport

#endif
