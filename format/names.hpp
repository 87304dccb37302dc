// names.hpp - keys and values defined by the OCI image format.
#ifndef ZNC_FORMAT_NAMES_HPP
#define ZNC_FORMAT_NAMES_HPP

namespace znc {

// The annotation that contains the tag of an image in an index.
inline constexpr char kRefName[] = "org.opencontainers.image.ref.name";

} // namespace znc

#endif
