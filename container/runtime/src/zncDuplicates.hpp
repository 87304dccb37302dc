// zncDuplicates.hpp - which texts of a list are the same: an image may name one layer any number of
// times. Used by the image module, which reads and stores such a layer once.
#ifndef ZNCDUPLICATES_HPP
#define ZNCDUPLICATES_HPP

#include "zncOwned.hpp"

#include <cstddef>

namespace znc {

class Duplicates {
  public:
    // `text` of each index below `count`, asked for in order; a null is like no other. They are not
    // kept. False: memory is short.
    using Text = const char* (*)(void* context, std::size_t index);
    [[nodiscard]] bool find(Text text, void* context, std::size_t count) noexcept;

    // The first and the last index with the same text.
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
