// zncUtil_untar.cpp - the function of zncUtil.hpp that needs the extractor. A file of its own, so
// that programs that unpack nothing are linked without the extractor.
#include "zncTarLib.hpp"
#include "zncUtil.hpp"

STATUS zncUtilUntar(const char* srcTarFile, const char* desPath)
{
    return zncTarExtract(srcTarFile, desPath, znc::kTarLayerBlocks, FALSE);
}
