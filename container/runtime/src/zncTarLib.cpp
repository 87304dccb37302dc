// zncTarLib.cpp - reads the blocks of an archive and runs the extraction.
#include "zncTarLib.hpp"

#include "base/failure.hpp"
#include "base/file.hpp"
#include "zncBlob.hpp"
#include "zncGzLib.hpp"
#include "zncLayerFindings.hpp"
#include "zncProgress.hpp"
#include "zncReadAhead.hpp"

#include <climits>
#include <fcntl.h>

using znc::kTarBlock;

namespace {

constexpr std::size_t kDefaultBlocks = 20;
constexpr std::size_t kReadAheadMin = 1024 * 1024; // size from which a reading thread pays off

ssize_t read_source(MT_TAR_SOFT& ctrl, std::size_t wanted)
{
    if (ctrl.tc != nullptr)
        return ctrl.tc->read(ctrl.tc, ctrl.pBuf, wanted);
    if (ctrl.blob != nullptr)
        return ctrl.blob->read(ctrl.pBuf, wanted);
    ssize_t n;
    do {
        n = read(ctrl.fd, ctrl.pBuf, wanted);
    } while (n < 0 && errno == EINTR);
    znc::progress_read(ctrl.fd);
    return n;
}

// Fills the empty block buffer. Returns 1, 0 at the end, -1 on error.
int refill(MT_TAR_SOFT& ctrl)
{
    if (ctrl.run.cancel != nullptr && *ctrl.run.cancel)
        return -1;
    const ssize_t n = read_source(ctrl, static_cast<std::size_t>(ctrl.bFactor) * kTarBlock);
    if (n <= 0)
        return n < 0 ? -1 : 0;
    const auto got = static_cast<std::size_t>(n);
    if (ctrl.run.plain != nullptr)
        ctrl.run.plain->update(ctrl.pBuf, got);
    if (got % kTarBlock != 0) {
        znc::tell_of_archive(ctrl, ZNC_LAYER_LENGTH);
        return -1;
    }
    ctrl.bValid = static_cast<int>(got / kTarBlock);
    ctrl.pBnext = ctrl.pBuf;
    return 1;
}

STATUS extract_members(MT_TAR_SOFT& ctrl)
{
    MT_HBLOCK* block = nullptr;
    int n;
    while ((n = tarRdBlks(&ctrl, &block, 1)) == 1) {
        if (zncTarBlockIsZero(block) != FALSE) {
            ctrl.ended = TRUE;
            // Read the source to its end: the digest covers what follows the end of the archive.
            while (tarRdBlks(&ctrl, &block, 1) > 0) {
            }
            return OK;
        }
        const int before = errno;
        if (tarExtractFile(&ctrl, block) != OK)
            return ERROR;
        errno =
            before; // errno of a member that was left out must not become that of a later failure
    }
    if (n == 0)
        znc::tell_of_archive(ctrl, ZNC_LAYER_NO_END);
    return ERROR;
}

STATUS open_target(MT_TAR_SOFT& ctrl, const char* targetDir)
{
    ctrl.targetDir = znc::malloc_array<char>(znc::kPathMax);
    ctrl.goodPathCache = znc::malloc_array<char>(kTarCacheSize);
    if (ctrl.targetDir == nullptr || ctrl.goodPathCache == nullptr)
        return ERROR;
    char* const end = ctrl.targetDir.get() + znc::kPathMax;
    const char* const text = znc::copy_end(ctrl.targetDir.get(), end, targetDir);
    if (text == end)
        return znc::fail(ENAMETOOLONG);
    ctrl.targetDirLen = static_cast<std::size_t>(text - ctrl.targetDir.get());
    if (ctrl.run.dry != nullptr)
        return OK;
    ctrl.targetFd.reset(open(targetDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return ctrl.targetFd ? OK : ERROR;
}

STATUS run(MT_TAR_SOFT& ctrl, const char* targetDir)
{
    if (open_target(ctrl, targetDir) != OK)
        return ERROR;
    const int n = refill(ctrl);
    if (n == 0)
        znc::tell_of_archive(ctrl, ZNC_LAYER_NO_END);
    if (n != 1)
        return ERROR;
    // All further reads have the size of the first one.
    ctrl.bFactor = ctrl.bValid;
    return extract_members(ctrl);
}

using GzPtr = std::unique_ptr<GZ_ARCHIVE, znc::GzArchiveDeleter>;

// `ctrl` must have the source and the options of the run. Afterwards ctrl.lacking is set if members
// were left out for lack of space, descriptors or memory.
STATUS extract(const char* targetDir, std::size_t bfactor, MT_TAR_SOFT& ctrl)
{
    const std::size_t blocks = bfactor != 0 ? bfactor : kDefaultBlocks;
    znc::MallocPtr<MT_HBLOCK[]> buffer;
    if (blocks <= INT_MAX)
        buffer = znc::malloc_array<MT_HBLOCK>(blocks);
    else
        errno = ENOMEM;
    if (buffer == nullptr)
        return ERROR;
    ctrl.bFactor = static_cast<int>(blocks);
    ctrl.pBuf = buffer.get();
    const STATUS status = run(ctrl, targetDir);
    const znc::ErrnoSaver keep;
    tarProcDirs(&ctrl);
    return status;
}

} // namespace

STATUS zncTarExtract(const char* pTape, const char* targetDir, size_t bfactor, BOOL verbose)
{
    if (pTape == nullptr || targetDir == nullptr)
        return znc::fail(EINVAL);
    if (!znc::is_directory(targetDir))
        return ERROR;
    const GzPtr gz(zncGzArchiveCreate(pTape));
    const znc::UniqueFd file(gz != nullptr ? -1 : open(pTape, O_RDONLY | O_CLOEXEC));
    if (gz == nullptr && file.get() <= 0) // ctrl.fd 0 means that there is no file
        return ERROR;
    MT_TAR_SOFT ctrl{};
    ctrl.verbose = verbose;
    ctrl.tc = gz != nullptr ? &gz->tc : nullptr;
    ctrl.fd = gz != nullptr ? 0 : file.get();
    return extract(targetDir, bfactor, ctrl);
}

static ssize_t read_blob(void* blob, void* buffer, std::size_t count)
{
    return static_cast<znc::BlobReader*>(blob)->read(buffer, count);
}

STATUS znc::tar_extract_whole(BlobReader& blob, const char* targetDir, std::size_t bfactor,
                              const TarRun& run)
{
    if (run.dry != nullptr)
        targetDir = "";
    else if (!is_directory(targetDir))
        return ERROR;
    const GzPtr gz(gz_archive_create(blob));
    if (gz == nullptr && !blob.restart())
        return ERROR;
    MT_TAR_SOFT ctrl{};
    ctrl.tc = gz != nullptr ? &gz->tc : nullptr;
    ctrl.blob = &blob;
    ReadAhead ahead;
    if (blob.size() >= kReadAheadMin) {
        if (gz != nullptr) // otherwise reading is faster than creating the files in any case
            blob.hash_beside();
        if (gz != nullptr ? ahead.start(gz->tc.read, &gz->tc) : ahead.start(read_blob, &blob))
            ctrl.tc = ahead.source();
    }
    ctrl.run = run;
    const STATUS status = extract(targetDir, bfactor, ctrl);
    if (ctrl.lacking == 0)
        return status;
    errno = ctrl.lacking; // any later failure, such as a missing parent, is a consequence
    return ERROR;
}

int tarRdBlks(MT_TAR_SOFT* pCtrl, MT_HBLOCK** ppBlk, unsigned int nBlocks)
{
    if (pCtrl->bValid <= 0) {
        const int rc = refill(*pCtrl);
        if (rc <= 0)
            return rc;
    }
    const auto valid = static_cast<unsigned int>(pCtrl->bValid);
    const unsigned int n = nBlocks < valid ? nBlocks : valid;
    *ppBlk = pCtrl->pBnext;
    pCtrl->bValid -= static_cast<int>(n);
    pCtrl->pBnext += n;
    return static_cast<int>(n);
}

BOOL zncTarBlockIsZero(void* pBuf)
{
    const char* const bytes = static_cast<const char*>(pBuf);
    return bytes[0] == 0 && std::memcmp(bytes, bytes + 1, kTarBlock - 1) == 0 ? TRUE : FALSE;
}
