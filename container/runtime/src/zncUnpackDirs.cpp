// zncUnpackDirs.cpp - see zncUnpackDirs.hpp.
#include "zncUnpackDirs.hpp"

#include "base/failure.hpp"
#include "zncLayerListing.hpp"
#include "zncTarLib.hpp"

#include <cstring>

namespace {

// Reports one list entry. Removes doubled and trailing separators from its path: "/a//b" results
// from a tar prefix that ends with "/".
void tell_of(const char* entry, ZNC_DIRECTORY_FUNC func, void* context)
{
    char path[kTarCacheSize + 1];
    char mode[znc::kModeDigits + 1] = {};
    std::memcpy(mode, entry, znc::kModeDigits);
    std::size_t len = 0;
    for (const char* c = entry + znc::kModeDigits; *c != '\0' && len + 1 < sizeof path; ++c)
        if (*c != '/' || (c[1] != '/' && c[1] != '\0'))
            path[len++] = *c;
    path[len] = '\0';
    if (len != 0)
        func(path, static_cast<uint32_t>(::strtoul(mode, nullptr, 8)), context);
}

} // namespace

STATUS znc::UnpackDirs::prepare(std::size_t layers) noexcept
{
    if (!wanted() || layers_ != nullptr)
        return OK;
    layers_.reset(new (std::nothrow) Layer[layers]);
    if (layers_ == nullptr)
        return znc::fail(ENOMEM);
    count_ = layers;
    return OK;
}

bool znc::UnpackDirs::read(std::size_t layer, std::string_view base, const char* name) noexcept
{
    TextList list;
    if (layer >= count_ || !read_listing(base, name, &list))
        return false;
    layers_[layer] = {std::move(list), true, true, layer};
    return true;
}

void znc::UnpackDirs::record(std::size_t layer, std::string_view base,
                             const char* name) const noexcept
{
    if (has(layer) && !layers_[layer].recorded)
        record_listing(base, name, layers_[layer].list);
}

void znc::UnpackDirs::share(const Duplicates& duplicates) noexcept
{
    for (std::size_t i = 0; i < count_; ++i)
        if (!has(i))
            layers_[i].same_as = duplicates.first(i);
}

void znc::UnpackDirs::tell() const noexcept
{
    for (std::size_t i = 0; i < count_; ++i) {
        const TextList& list = layers_[layers_[i].same_as].list;
        for (const char* entry = list.first(); entry != nullptr; entry = list.next(entry))
            tell_of(entry, func_, context_);
    }
}
