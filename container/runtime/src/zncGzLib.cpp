// zncGzLib.cpp - see zncGzLib.hpp.
#include "zncGzLib.hpp"

#include "gzlib.hpp"
#include "zncOwned.hpp"

ssize_t zncGzRead(void* handle, void* buffer, std::size_t maxbytes)
{
    if (handle == nullptr || buffer == nullptr)
        return 0;
    const auto* const archive = static_cast<GZ_ARCHIVE*>(handle);
    const int n = ugzread(archive->file, buffer, static_cast<unsigned int>(maxbytes));
    return n < 0 ? 0 : n;
}

// `source` is called to open the gzip file.
template <class Source> static GZ_ARCHIVE* create_archive(Source source)
{
    std::unique_ptr<GZ_ARCHIVE, znc::GzArchiveDeleter> archive(
        znc::malloc_zeroed<GZ_ARCHIVE>().release());
    if (archive == nullptr)
        return nullptr;
    archive->file = source();
    if (archive->file == nullptr)
        return nullptr;
    archive->tc.read = zncGzRead;
    return archive.release();
}

GZ_ARCHIVE* zncGzArchiveCreate(const char* fileName)
{
    return fileName != nullptr ? create_archive([&] { return ugzopen(fileName, "rb"); }) : nullptr;
}

GZ_ARCHIVE* znc::gz_archive_create(BlobReader& blob)
{
    return create_archive([&] { return gz_open(blob); });
}

void zncGzArchiveDelete(void* handle)
{
    const znc::MallocPtr<GZ_ARCHIVE> archive(static_cast<GZ_ARCHIVE*>(handle));
    if (archive != nullptr && archive->file != nullptr)
        ugzclose(archive->file);
}
