// overlay_layers.cpp - see overlay_layers.hpp.
#include "overlay_layers.hpp"

#include "base/owned.hpp"

#include <cstring>
#include <new>
#include <utility>

namespace zn {
namespace {

struct Noted {
    Noted* next = nullptr;
    std::size_t len = 0;          // of the texts
    znc::MallocPtr<char[]> texts; // the name, then the directories, NUL after each
};

Noted* g_noted = nullptr;

Noted** find(const char* name)
{
    Noted** at = &g_noted;
    while (*at != nullptr && std::strcmp((*at)->texts.get(), name) != 0)
        at = &(*at)->next;
    return at;
}

} // namespace

void layers_forget(const char* name)
{
    Noted** const at = find(name);
    if (*at == nullptr)
        return;
    const znc::MallocPtr<Noted> gone(*at);
    *at = gone->next;
    gone->texts.reset();
}

void layers_note(const char* name, const char* const* dirs, std::uint32_t count)
{
    layers_forget(name);
    std::size_t len = std::strlen(name) + 1;
    for (std::uint32_t i = 0; i < count; i++)
        len += std::strlen(dirs[i]) + 1;
    void* const memory = ::malloc(sizeof(Noted));
    auto texts = znc::malloc_array<char>(len);
    znc::MallocPtr<Noted> noted(memory != nullptr ? new (memory) Noted : nullptr);
    if (!noted || !texts)
        return;
    char* end = ::stpcpy(texts.get(), name) + 1;
    for (std::uint32_t i = 0; i < count; i++)
        end = ::stpcpy(end, dirs[i]) + 1;
    noted->len = len;
    noted->texts = std::move(texts);
    noted->next = g_noted;
    g_noted = noted.release();
}

const char* layers_noted(const char* name, const char* dir)
{
    const Noted* const noted = *find(name);
    if (noted == nullptr)
        return nullptr;
    const char* const last = dir != nullptr ? dir : noted->texts.get();
    const char* const next = last + std::strlen(last) + 1;
    return next < noted->texts.get() + noted->len ? next : nullptr;
}

} // namespace zn
