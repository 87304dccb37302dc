// not_copied.hpp - the base of classes whose objects cannot be copied or moved.
#ifndef ZNC_BASE_NOT_COPIED_HPP
#define ZNC_BASE_NOT_COPIED_HPP

namespace znc {

struct NotCopied {
    NotCopied() = default;
    NotCopied(const NotCopied&) = delete;
    NotCopied& operator=(const NotCopied&) = delete;
};

} // namespace znc

#endif
