// zncContextIndex.hpp - the registry's list once more, as a row of hashed identities in the list's
// order, for look-ups that do not touch every context. Walking the list misses the caches twice at
// each, which among 500 containers took 20 us of every request and 37 more of a delete. Used by the
// registry alone, under its list mutex.
#ifndef ZNCCONTEXTINDEX_HPP
#define ZNCCONTEXTINDEX_HPP

#include "zncContainerLib.hpp"

#include <cstddef>

namespace znc {

class ContextIndex {
  public:
    // As many characters of an identity as count; as many as a context keeps, terminator included.
    static constexpr std::size_t kIdCompared = 255;

    // The first context with that identity, or null.
    [[nodiscard]] CONTAINER_CTX* find(const char* id) const noexcept;

    // Behind all others. ERROR without memory.
    STATUS append(CONTAINER_CTX* ctx) noexcept;

    // Takes a context out; the one before it, or null.
    CONTAINER_CTX* remove(const CONTAINER_CTX* ctx) noexcept;

    void clear() noexcept { count_ = 0; }

  private:
    struct Entry {
        std::size_t hash;
        CONTAINER_CTX* ctx;
    };

    bool have_room() noexcept;

    MallocPtr<Entry[]> entries_;
    std::size_t count_ = 0;
    std::size_t room_ = 0;
};

} // namespace znc

#endif
