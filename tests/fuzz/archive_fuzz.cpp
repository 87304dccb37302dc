// archive_fuzz.cpp - archives as cp reads them from standard input: whatever the bytes are, reading
// ends with the last member or an error, and a member has as much data as its header says.
#include "fuzz_input.hpp"
#include "memory_file.hpp"

#include "base/owned.hpp"
#include "cli/containers/tar_reader.hpp"

#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fuzz::require;

void read_archive(int archive, std::size_t size)
{
    zncctl::TarReader reader(archive);
    for (unsigned members = 0; const auto member = reader.next(); members++) {
        require(members <= size / 512, "each member has a header of its own");
        if (members % 2 != 0)
            continue; // what is not read is skipped
        const znc::UniqueFd data(::memfd_create("data", MFD_CLOEXEC));
        reader.copy_data(data.get());
        struct stat st = {};
        require(::fstat(data.get(), &st) == 0 &&
                    static_cast<std::uint64_t>(st.st_size) == member->size,
                "all data of a member is copied, and no more");
    }
    reader.finish();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const fuzz::DescriptorCount open;
    {
        const fuzz::MemoryFile file;
        const znc::UniqueFd archive(
            ::open(file.with({reinterpret_cast<const char*>(data), size}), O_RDONLY | O_CLOEXEC));
        try {
            read_archive(archive.get(), size);
        } catch (const std::runtime_error&) {
            // damaged
        }
    }
    open.check();
    return 0;
}
