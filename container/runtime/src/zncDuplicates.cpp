// zncDuplicates.cpp - see zncDuplicates.hpp.
#include "zncDuplicates.hpp"

#include <algorithm>
#include <cstring>

namespace {

struct Entry {
    const char* text;
    std::size_t index;
};

int compare(const Entry& a, const Entry& b)
{
    if (a.text == nullptr || b.text == nullptr)
        return static_cast<int>(a.text != nullptr) - static_cast<int>(b.text != nullptr);
    return std::strcmp(a.text, b.text);
}

bool before(const Entry& a, const Entry& b)
{
    const int order = compare(a, b);
    return order != 0 ? order < 0 : a.index < b.index;
}

} // namespace

// Sorted, so that a list of a hundred thousand takes no longer than reading it.
bool znc::Duplicates::find(Text text, void* context, std::size_t count) noexcept
{
    const auto entries = malloc_array<Entry>(count);
    groups_ = entries != nullptr ? malloc_array<Group>(count) : nullptr;
    if (groups_ == nullptr)
        return false;
    for (std::size_t i = 0; i < count; ++i)
        entries[i] = {text(context, i), i};
    std::sort(entries.get(), entries.get() + count, before);
    for (std::size_t from = 0, end = 0; from < count; from = end) {
        end = from + 1;
        while (end < count && entries[end].text != nullptr &&
               compare(entries[from], entries[end]) == 0)
            ++end;
        for (std::size_t i = from; i < end; ++i)
            groups_[entries[i].index] = {entries[from].index, entries[end - 1].index};
    }
    return true;
}
