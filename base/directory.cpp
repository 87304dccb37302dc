// directory.cpp - see directory.hpp.
#include "directory.hpp"

#include <fcntl.h>
#include <string_view>

znc::UniqueDir znc::directory_stream(UniqueFd directory)
{
    UniqueDir stream(directory ? ::fdopendir(directory.get()) : nullptr);
    if (stream)
        static_cast<void>(directory.release()); // closedir() closes it
    return stream;
}

znc::UniqueDir znc::directory_listing(int directory)
{
    return directory_stream(UniqueFd(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
}

const dirent* znc::next_entry(DIR* stream)
{
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(stream); // NOLINT(concurrency-mt-unsafe): one stream
        if (entry == nullptr)
            return nullptr;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            return entry;
    }
}
