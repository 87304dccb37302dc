// sizes.hpp - numbers of bytes as users write them.
#ifndef ZNC_FRONT_SIZES_HPP
#define ZNC_FRONT_SIZES_HPP

#include <cstdint>
#include <optional>
#include <string_view>

namespace zncctl {

// A number of bytes such as "64m": digits, then nothing, "b", "k", "m", "g" or "t" in either case,
// for powers of 1024. Nullopt if it is none or does not fit into 63 bits.
std::optional<std::int64_t> to_bytes(std::string_view text);

} // namespace zncctl

#endif
