// zncDuplicates.hpp - finds equal strings in a list. An image may name the same layer any number of
// times; the image module reads and stores it only once.
#ifndef ZNCDUPLICATES_HPP
#define ZNCDUPLICATES_HPP

#include "zncOwned.hpp"

#include <cstddef>

namespace znc {

class Duplicates {
  public:
    // Calls `text` for each index below `count`, in order. A null is not equal to any other entry.
    // The strings are not used after the call. False: out of memory.
    using Text = const char* (*)(void* context, std::size_t index);
    [[nodiscard]] bool find(Text text, void* context, std::size_t count) noexcept;

    // The first and the last index that have the same string as `index`.
    [[nodiscard]] std::size_t first(std::size_t index) const noexcept
    {
        return groups_ != nullptr ? groups_[index].first : index;
    }
    [[nodiscard]] std::size_t last(std::size_t index) const noexcept
    {
        return groups_ != nullptr ? groups_[index].last : index;
    }

  private:
    struct Group {
        std::size_t first;
        std::size_t last;
    };
    MallocPtr<Group[]> groups_;
};

} // namespace znc

#endif
