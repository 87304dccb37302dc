// extract_fuzz.cpp - any bytes as an archive, plain or compressed, extracted to a disk, twice into
// the same directory; aborts if anything changes elsewhere.
#include "fuzz_input.hpp"
#include "gzip_length.hpp"
#include "sentinel.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static fuzz::Sentinel sentinel;
    const std::string_view archive(reinterpret_cast<const char*>(data), size);
    if (!fuzz::is_quick_archive(archive))
        return 0;
    sentinel.extract(archive);
    sentinel.extract(archive);
    sentinel.check_and_clear();
    return 0;
}
