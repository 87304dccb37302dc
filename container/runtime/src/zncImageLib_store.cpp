// zncImageLib_store.cpp - the layer store: one directory per layer, named by the digest of its
// archive and shared by all images. A layer is extracted under a name of its own and renamed when
// it is whole (zncLayerStage), so a directory with a layer's name is a layer, whoever was killed
// when.
#include "zncImageLib.hpp"

#include "zncLayerStage.hpp"
#include "zncStoreAhead.hpp"
#include "zncTarLib.hpp"

#include <string_view>

#include <sys/stat.h>

STATUS znc::extract_layer(const char* layerFile, const char* dir, const std::atomic<bool>* cancel)
{
    errno = 0;
    return tar_extract_whole(layerFile, dir, kTarLayerBlocks, cancel);
}

STATUS znc::store_layer(const char* layerFile, const char* layerDir, std::size_t baseLen,
                        StoreAhead* ahead)
{
    struct stat st = {};
    if (::stat(layerDir, &st) == 0 && S_ISDIR(st.st_mode))
        return OK;
    // What went wrong ahead goes wrong here, or does not: the plain way decides.
    if (ahead != nullptr && ahead->publish(layerFile, layerDir))
        return OK;
    LayerStage stage;
    if (stage.fill(layerFile, {layerDir, baseLen}) != OK)
        return ERROR;
    return stage.publish(layerDir);
}
