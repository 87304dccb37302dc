// zncBundleLayers.cpp - see zncBundleLayers.hpp.
#include "zncBundleLayers.hpp"

#include "zarnel/overlay.h"
#include "zncImageLib.hpp"

#include <cstring>

namespace {

constexpr char kLayersFile[] = "/.zn-layers";
constexpr std::string_view kDevices = ZN_OVERLAY_DIR "/";
constexpr std::string_view kTreeArea = "/flattened";

// A device's directories, compared one by one with the layers of a record.
struct Comparison {
    const char* root; // where the record ends, read from its end
    const znc::TextList* record;
    const char* expected; // the layer that comes next, the top one first
    bool same = true;
};

BOOL compare_next(void* context, const char* dir)
{
    auto& comparison = *static_cast<Comparison*>(context);
    comparison.same = comparison.expected != comparison.root &&
                      std::strcmp(znc::last_component(dir), comparison.expected) == 0;
    if (!comparison.same)
        return FALSE;
    comparison.expected = comparison.record->before(comparison.expected);
    return TRUE;
}

STATUS check_device(const char* device, const znc::TextList& record)
{
    Comparison comparison{record.first(), &record, record.last()};
    if (znOvlDevDirs(device, compare_next, &comparison) != OK)
        return ERROR;
    const bool same = comparison.same && comparison.expected == comparison.root;
    return same ? OK : znc::fail(ESTALE);
}

// What the storage base of a flattened tree says of it.
STATUS check_tree(std::string_view base, const char* chain, const znc::TextList& record)
{
    znc::TextList tree;
    if (!znc::read_tree(base, chain, &tree))
        return ERROR;
    const char* layer = tree.first();
    const char* expected = record.next(record.first());
    while (layer != nullptr && expected != nullptr && std::strcmp(layer, expected) == 0) {
        layer = tree.next(layer);
        expected = record.next(expected);
    }
    return layer == nullptr && expected == nullptr ? OK : znc::fail(ESTALE);
}

} // namespace

namespace znc {

PathText bundle_layers_path(const char* bundle)
{
    return path_in(bundle, kLayersFile);
}

STATUS check_bundle_layers(const char* bundle, const char* root)
{
    const PathText path = bundle_layers_path(bundle);
    TextList record;
    if (!path)
        return ERROR;
    if (!record.read(path.get()))
        return errno == ENOENT ? OK : ERROR;
    if (std::strcmp(record.first(), root) != 0 || !exists(root))
        return OK;
    const std::string_view place = root;
    if (place.starts_with(kDevices))
        return check_device(root, record);
    const char* const name = last_component(root);
    const std::string_view area = place.substr(0, place.size() - std::strlen(name));
    if (area.size() > kTreeArea.size() && area.substr(0, area.size() - 1).ends_with(kTreeArea))
        return check_tree(area.substr(0, area.size() - 1 - kTreeArea.size()), name, record);
    // A layer of the store has the name of what it holds.
    return OK;
}

} // namespace znc
