// zncBundleLayers.cpp - see zncBundleLayers.hpp.
#include "zncBundleLayers.hpp"

#include "zarnel/overlay.h"
#include "zncImageLib.hpp"

#include <cstring>

namespace {

constexpr char kLayersFile[] = "/.zn-layers";
constexpr std::string_view kDevices = ZN_OVERLAY_DIR "/";
constexpr std::string_view kTreeArea = "/flattened";

// State while the directories of an overlay device are compared with the layers of a record.
struct Comparison {
    const char* root; // the first string of the record, where the iteration from its end stops
    const znc::TextList* record;
    const char* expected; // the name of the next layer, topmost first; `root` at the end
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

// Compares the record with the layers that the storage base recorded for a flattened tree.
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
    // The root is a single layer of the store. Its name is the digest of its contents, so there is
    // nothing to compare.
    return OK;
}

} // namespace znc
