#include "limits.hpp"

#include <fmt/format.h>

namespace zncimport {

void Budget::take_entry(const std::string& object)
{
    if (entries_ == limits_.entries)
        throw Failure(object, fmt::format("the image has more than {} members (see --max-entries)",
                                          limits_.entries));
    entries_++;
}

void Budget::take_bytes(const std::string& object, std::uint64_t count)
{
    if (count > limits_.bytes - bytes_)
        throw Failure(object, fmt::format("the image contains more than {} bytes (see --max-bytes)",
                                          limits_.bytes));
    bytes_ += count;
}

void Budget::take_names(const std::string& object, std::uint64_t count)
{
    constexpr std::uint64_t kPerEntry = 512;
    constexpr std::uint64_t kAlwaysAllowed = std::uint64_t{16} << 20U; // bytes of names
    names_ += count;
    if (names_ > kAlwaysAllowed && names_ / kPerEntry > limits_.entries)
        throw Failure(object, "the names in the image take up too many bytes (see --max-entries)");
}

} // namespace zncimport
