// zncContainerTable.hpp - the registered containers: a table sorted by identity, and the list of
// contexts in the order of their registration, which only this module changes. Used by the registry
// alone, under its list mutex.
#ifndef ZNCCONTAINERTABLE_HPP
#define ZNCCONTAINERTABLE_HPP

#include "zncContainerLib.hpp"

#include <cstddef>

namespace znc {

class ContainerTable {
  public:
    // As many characters of an identity as count; as many as a context keeps, terminator included.
    static constexpr std::size_t kIdCompared = 255;

    // `list` gets the contexts in the order in which they are added.
    explicit constexpr ContainerTable(SL_LIST& list) noexcept : list_(list) {}

    // The context with that identity, or null.
    [[nodiscard]] CONTAINER_CTX* find(const char* id) const noexcept;

    // Of the contexts whose identity is greater the one with the least, or null. Bytes count, as
    // unsigned numbers.
    [[nodiscard]] CONTAINER_CTX* next(const char* id) const noexcept;

    // Of the contexts with that bundle the one that was added first, or null.
    [[nodiscard]] CONTAINER_CTX* find_by_bundle(const char* bundle) const noexcept;

    // ERROR with S_zncLib_CONTAINER_EXISTS when there is one of that identity, or without memory.
    STATUS add(CONTAINER_CTX* ctx) noexcept;

    // Does nothing with a context that is not in the table.
    void remove(CONTAINER_CTX* ctx) noexcept;

    void clear() noexcept;

  private:
    struct Entry {
        CONTAINER_CTX* ctx;
        CONTAINER_CTX* before; // the one before it in the list, or null
    };

    // The place of the first entry whose identity is not less.
    [[nodiscard]] std::size_t place_of(const char* id) const noexcept;
    [[nodiscard]] bool has(std::size_t place, const char* id) const noexcept;
    bool have_room() noexcept;

    SL_LIST& list_;
    MallocPtr<Entry[]> entries_;
    std::size_t count_ = 0;
    std::size_t room_ = 0;
};

} // namespace znc

#endif
