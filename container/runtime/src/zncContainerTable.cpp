// zncContainerTable.cpp - see zncContainerTable.hpp.
#include "zncContainerTable.hpp"

#include "base/failure.hpp"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

constexpr std::size_t kFirstRoom = 64;

static_assert(offsetof(CONTAINER_CTX, containerNode) == 0, "a node is its context");

CONTAINER_CTX* context_of(SL_NODE* node)
{
    return reinterpret_cast<CONTAINER_CTX*>(node);
}

SL_NODE* node_of(CONTAINER_CTX* ctx)
{
    return ctx != nullptr ? &ctx->containerNode : nullptr;
}

int compare(const CONTAINER_CTX* ctx, const char* id)
{
    return std::strncmp(ctx->state.containerId, id, znc::ContainerTable::kIdCompared);
}

} // namespace

namespace znc {

std::size_t ContainerTable::place_of(const char* id) const noexcept
{
    const Entry* const begin = entries_.get();
    const Entry* const at =
        std::lower_bound(begin, begin + count_, id, [](const Entry& entry, const char* wanted) {
            return compare(entry.ctx, wanted) < 0;
        });
    return static_cast<std::size_t>(at - begin);
}

bool ContainerTable::has(std::size_t place, const char* id) const noexcept
{
    return place < count_ && compare(entries_[place].ctx, id) == 0;
}

CONTAINER_CTX* ContainerTable::find(const char* id) const noexcept
{
    const std::size_t place = place_of(id);
    return has(place, id) ? entries_[place].ctx : nullptr;
}

CONTAINER_CTX* ContainerTable::next(const char* id) const noexcept
{
    std::size_t place = place_of(id);
    if (has(place, id))
        ++place;
    return place < count_ ? entries_[place].ctx : nullptr;
}

CONTAINER_CTX* ContainerTable::find_by_bundle(const char* bundle) const noexcept
{
    for (SL_NODE* node = list_.head; node != nullptr; node = node->next)
        if (std::strncmp(context_of(node)->state.bundlePath, bundle, kPathMax) == 0)
            return context_of(node);
    return nullptr;
}

bool ContainerTable::have_room() noexcept
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

STATUS ContainerTable::add(CONTAINER_CTX* ctx) noexcept
{
    const std::size_t place = place_of(ctx->state.containerId);
    if (has(place, ctx->state.containerId))
        return znc::fail(S_zncLib_CONTAINER_EXISTS);
    if (!have_room())
        return ERROR;
    Entry* const at = entries_.get() + place;
    std::copy_backward(at, entries_.get() + count_, entries_.get() + count_ + 1);
    *at = {ctx, list_.tail != nullptr ? context_of(list_.tail) : nullptr};
    ++count_;
    SL_NODE* const node = node_of(ctx);
    node->next = nullptr;
    (list_.tail != nullptr ? list_.tail->next : list_.head) = node;
    list_.tail = node;
    return OK;
}

void ContainerTable::remove(CONTAINER_CTX* ctx) noexcept
{
    const std::size_t place = place_of(ctx->state.containerId);
    if (place == count_ || entries_[place].ctx != ctx)
        return;
    CONTAINER_CTX* const before = entries_[place].before;
    SL_NODE* const after = ctx->containerNode.next;
    (before != nullptr ? before->containerNode.next : list_.head) = after;
    if (after != nullptr)
        entries_[place_of(context_of(after)->state.containerId)].before = before;
    else
        list_.tail = node_of(before);
    std::copy(entries_.get() + place + 1, entries_.get() + count_, entries_.get() + place);
    --count_;
}

void ContainerTable::clear() noexcept
{
    list_ = {nullptr, nullptr};
    count_ = 0;
}

} // namespace znc
