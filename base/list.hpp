// list.hpp - a growing array that reports a lack of memory instead of throwing. Used where the
// length is known only while a document is read.
#ifndef ZNC_BASE_LIST_HPP
#define ZNC_BASE_LIST_HPP

#include "owned.hpp"

#include <cstddef>
#include <cstring>
#include <new>
#include <span>
#include <string_view>
#include <utility>

namespace znc {

template <class T> class List {
  public:
    List() noexcept = default;
    List(List&& other) noexcept
        : items_(std::exchange(other.items_, nullptr)), size_(std::exchange(other.size_, 0)),
          room_(std::exchange(other.room_, 0))
    {
    }
    List& operator=(List&& other) noexcept
    {
        std::swap(items_, other.items_);
        std::swap(size_, other.size_);
        std::swap(room_, other.room_);
        return *this;
    }
    List(const List&) = delete;
    List& operator=(const List&) = delete;
    ~List()
    {
        for (T& item : *this)
            item.~T();
        const MallocPtr<void> memory(items_);
    }

    // Makes room for at least this many items, so that append() does not allocate more than needed
    // if the length is known. False with errno ENOMEM; the list is then unchanged.
    [[nodiscard]] bool reserve(std::size_t room) noexcept { return room <= room_ || move_to(room); }

    // Appends an item. Null with errno ENOMEM; the list is then unchanged.
    T* append(T item) noexcept
    {
        if (size_ == room_ && !move_to(room_ == 0 ? 8 : 2 * room_))
            return nullptr;
        return new (items_ + size_++) T(std::move(item));
    }

    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] bool empty() const noexcept { return size_ == 0; }
    T* begin() noexcept { return items_; }
    T* end() noexcept { return items_ + size_; }
    const T* begin() const noexcept { return items_; }
    const T* end() const noexcept { return items_ + size_; }
    T& operator[](std::size_t at) noexcept { return items_[at]; }
    const T& operator[](std::size_t at) const noexcept { return items_[at]; }
    [[nodiscard]] std::span<const T> all() const noexcept { return {items_, size_}; }

  private:
    bool move_to(std::size_t room) noexcept
    {
        auto* items = static_cast<T*>(::calloc(room, sizeof(T)));
        if (items == nullptr)
            return false;
        for (std::size_t i = 0; i < size_; i++) {
            new (items + i) T(std::move(items_[i]));
            items_[i].~T();
        }
        const MallocPtr<void> old(std::exchange(items_, items));
        room_ = room;
        return true;
    }

    T* items_ = nullptr;
    std::size_t size_ = 0;
    std::size_t room_ = 0;
};

using Text = MallocPtr<char[]>;

// A copy of a text; null with errno ENOMEM.
inline Text copy_text(std::string_view text) noexcept
{
    Text copy = malloc_array<char>(text.size() + 1);
    if (copy)
        std::memcpy(copy.get(), text.data(), text.size());
    return copy;
}

} // namespace znc

#endif
