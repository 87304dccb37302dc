// zncGzLib.cpp
#include "zncGzLib.hpp"

#include "zncOwned.hpp"

ssize_t zncGzRead(void* handle, void* buffer, std::size_t maxbytes)
{
    if (handle == nullptr || buffer == nullptr)
        return 0;
    const auto* const archive = static_cast<GZ_ARCHIVE*>(handle);
    const int n = ugzread(archive->file, buffer, static_cast<unsigned int>(maxbytes));
    return n < 0 ? 0 : n;
}

GZ_ARCHIVE* zncGzArchiveCreate(const char* fileName)
{
    if (fileName == nullptr)
        return nullptr;
    std::unique_ptr<GZ_ARCHIVE, znc::GzArchiveDeleter> archive(
        znc::malloc_zeroed<GZ_ARCHIVE>().release());
    if (archive == nullptr)
        return nullptr;
    archive->file = ugzopen(fileName, "rb");
    if (archive->file == nullptr)
        return nullptr;
    archive->tc.read = zncGzRead;
    return archive.release();
}

void zncGzArchiveDelete(void* handle)
{
    const znc::MallocPtr<GZ_ARCHIVE> archive(static_cast<GZ_ARCHIVE*>(handle));
    if (archive != nullptr && archive->file != nullptr)
        ugzclose(archive->file);
}
