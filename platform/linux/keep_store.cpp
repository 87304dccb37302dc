// keep_store.cpp - see keep_store.hpp.
#include "keep_store.hpp"

#include "base/failure.hpp"
#include "base/owned.hpp"

#include <cerrno>
#include <cstdio>
#include <sys/socket.h>

namespace zn {
namespace {

using znc::UniqueFd;

struct Name {
    explicit Name(std::uint64_t cookie)
    {
        std::snprintf(text, sizeof text, "%s%016llx", ZN_KEEP_PREFIX,
                      static_cast<unsigned long long>(cookie));
    }
    char text[32];
};

} // namespace

std::uint64_t socket_cookie(int descriptor)
{
    std::uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_COOKIE, &cookie, &size) == 0 ? cookie : 0;
}

int KeepStore::add_held(UniqueFd descriptor, int number)
{
    const std::uint64_t cookie = socket_cookie(descriptor.get());
    Held one = {std::move(descriptor), cookie, number};
    return held_.append(std::move(one)) != nullptr ? 0 : ENOMEM;
}

int KeepStore::find(const znKeepManager* manager)
{
    if (manager != nullptr) {
        store_ = manager->store;
        drop_ = manager->drop;
        for (std::size_t i = 0; i < manager->heldNum; i++)
            if (const int error = add_held(UniqueFd(manager->held[i]), kByManager); error != 0)
                return error;
    }
    const int error = process_.find();
    if (error != 0)
        return error == ESRCH ? 0 : error;
    return process_.each(
        [](int number, UniqueFd descriptor, void* context) {
            return static_cast<KeepStore*>(context)->add_held(std::move(descriptor), number);
        },
        this);
}

int KeepStore::prepare()
{
    return has_manager() || !process_.ended() ? 0 : process_.start();
}

KeepStore::Place* KeepStore::place_of(std::uint64_t cookie)
{
    for (Place& place : places_)
        if (place.cookie == cookie)
            return &place;
    return nullptr;
}

int KeepStore::add_place(std::uint64_t cookie, int number)
{
    Place* const unused = place_of(kNoCookie);
    if (unused == nullptr)
        return places_.append({cookie, number}) != nullptr ? 0 : ENOMEM;
    *unused = {cookie, number};
    return 0;
}

int KeepStore::put(int descriptor)
{
    const std::uint64_t cookie = socket_cookie(descriptor);
    if (cookie == kNoCookie)
        return EINVAL;
    if (place_of(cookie) != nullptr)
        return 0;
    int number = kByManager;
    int error = 0;
    if (!has_manager())
        error = process_.put(descriptor, number);
    else if (store_(Name(cookie).text, descriptor) != OK)
        error = errno;
    if (error == 0 && (error = add_place(cookie, number)) != 0)
        drop_at({cookie, number});
    return error;
}

void KeepStore::drop_at(const Place& place)
{
    const znc::ErrnoSaver keep;
    if (place.number != kByManager)
        process_.drop(place.number);
    else if (has_manager())
        drop_(Name(place.cookie).text);
}

void KeepStore::drop(std::uint64_t cookie)
{
    Place* const place = cookie != kNoCookie ? place_of(cookie) : nullptr;
    if (place == nullptr)
        return;
    drop_at(*place);
    place->cookie = kNoCookie;
}

UniqueFd KeepStore::take(std::uint64_t cookie)
{
    for (Held& held : held_) {
        if (!held.descriptor || held.cookie != cookie || cookie == kNoCookie)
            continue;
        const bool stays = (held.number == kByManager) == has_manager();
        const int error = stays ? add_place(cookie, held.number) : put(held.descriptor.get());
        if (error == 0)
            return std::move(held.descriptor);
        return znc::fail(error, UniqueFd());
    }
    return znc::fail(ESRCH, UniqueFd());
}

bool KeepStore::drop_rest()
{
    bool any = false;
    for (Held& held : held_) {
        if (!held.descriptor)
            continue;
        any = true;
        held.descriptor.reset();
        drop_at({held.cookie, held.number});
    }
    if (has_manager() && !process_.ended())
        process_.end();
    return any;
}

bool KeepStore::is_lost() const
{
    return !has_manager() && process_.ended();
}

int KeepStore::reopen()
{
    places_ = {};
    process_.end();
    return process_.start();
}

void KeepStore::end()
{
    static_cast<void>(drop_rest());
    for (Place& place : places_)
        if (place.cookie != kNoCookie && place.number == kByManager)
            drop(place.cookie);
    process_.end();
    places_ = {};
}

} // namespace zn
