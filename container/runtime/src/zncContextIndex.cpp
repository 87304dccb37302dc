// zncContextIndex.cpp - see zncContextIndex.hpp.
#include "zncContextIndex.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>

namespace {

constexpr std::size_t kFirstRoom = 64;

std::size_t hash_of(const char* id)
{
    return std::hash<std::string_view>()({id, ::strnlen(id, znc::ContextIndex::kIdCompared)});
}

} // namespace

namespace znc {

CONTAINER_CTX* ContextIndex::find(const char* id) const noexcept
{
    const std::size_t hash = hash_of(id);
    for (std::size_t i = 0; i < count_; ++i)
        if (entries_[i].hash == hash &&
            std::strncmp(entries_[i].ctx->state.containerId, id, kIdCompared) == 0)
            return entries_[i].ctx;
    return nullptr;
}

bool ContextIndex::have_room() noexcept
{
    if (count_ < room_)
        return true;
    const std::size_t room = std::max(kFirstRoom, 2 * room_);
    MallocPtr<Entry[]> entries = malloc_array<Entry>(room);
    if (!entries)
        return false;
    std::copy_n(entries_.get(), count_, entries.get());
    entries_ = std::move(entries);
    room_ = room;
    return true;
}

STATUS ContextIndex::append(CONTAINER_CTX* ctx) noexcept
{
    if (!have_room())
        return ERROR;
    entries_[count_++] = {hash_of(ctx->state.containerId), ctx};
    return OK;
}

CONTAINER_CTX* ContextIndex::remove(const CONTAINER_CTX* ctx) noexcept
{
    Entry* const end = entries_.get() + count_;
    Entry* const at =
        std::find_if(entries_.get(), end, [&](const Entry& entry) { return entry.ctx == ctx; });
    if (at == end)
        return nullptr;
    CONTAINER_CTX* const before = at != entries_.get() ? at[-1].ctx : nullptr;
    std::copy(at + 1, end, at);
    --count_;
    return before;
}

} // namespace znc
