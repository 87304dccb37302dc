// tar_stream_fuzz.cpp - the extractor over a file system in memory: any bytes as an archive.
#include "fuzz_input.hpp"
#include "gzip_length.hpp"
#include "memory_tree.hpp"

#include "zncontainer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::size_t blocks = 1 + size % 40; // a read's, so that members end anywhere in one
    const std::string_view archive(reinterpret_cast<const char*>(data), size);
    if (!fuzz::is_quick_archive(archive))
        return 0;
    memory_tree::begin(archive);
    static_cast<void>(zncTarExtract(memory_tree::kArchive, memory_tree::kTarget, blocks, FALSE));
    memory_tree::end();
    return 0;
}
