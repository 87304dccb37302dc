// zncContainerTable.hpp - the registered containers: a table sorted by container id, and the list
// of contexts in the order of registration, which only this module changes. Used only by the
// registry, which holds its list mutex during every call.
#ifndef ZNCCONTAINERTABLE_HPP
#define ZNCCONTAINERTABLE_HPP

#include "zncContainerLib.hpp"

#include <cstddef>

namespace znc {

class ContainerTable {
  public:
    // Ids are compared up to this length. It equals the size of the id field in a context,
    // including the NUL.
    static constexpr std::size_t kIdCompared = 255;

    // The contexts are appended to `list` in the order in which they are added.
    explicit constexpr ContainerTable(SL_LIST& list) noexcept : list_(list) {}

    // The context with this id, or null.
    [[nodiscard]] CONTAINER_CTX* find(const char* id) const noexcept;

    // The context with the smallest id greater than `id`, or null. Ids are ordered as strncmp()
    // orders them.
    [[nodiscard]] CONTAINER_CTX* next(const char* id) const noexcept;

    // The first context, in the order of registration, with this bundle path, or null.
    [[nodiscard]] CONTAINER_CTX* find_by_bundle(const char* bundle) const noexcept;

    // Fails with S_zncLib_CONTAINER_EXISTS if the id is taken, or with ENOMEM.
    STATUS add(CONTAINER_CTX* ctx) noexcept;

    // Does nothing if the context is not in the table.
    void remove(CONTAINER_CTX* ctx) noexcept;

    void clear() noexcept;

  private:
    struct Entry {
        CONTAINER_CTX* ctx;
        CONTAINER_CTX* before; // the previous context in the list, or null
    };

    // The index of the first entry whose id is not less than `id`; count_ if there is none.
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
