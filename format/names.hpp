// names.hpp - keys and values that the image format gives a meaning.
#ifndef ZNC_FORMAT_NAMES_HPP
#define ZNC_FORMAT_NAMES_HPP

namespace znc {

// The annotation of an index that holds an image's tag.
inline constexpr char kRefName[] = "org.opencontainers.image.ref.name";

} // namespace znc

#endif
