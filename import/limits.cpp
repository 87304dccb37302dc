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
        throw Failure(object, fmt::format("the image holds more than {} bytes (see --max-bytes)",
                                          limits_.bytes));
    bytes_ += count;
}

} // namespace zncimport
