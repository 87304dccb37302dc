// zncTarLib.hpp - internal types and functions of the tar extractor, for its own files and the unit
// tests. Other code calls zncTarExtract of the public header.
//
// Confinement: the target directory is opened once. Every parent of a member is opened from there,
// one component at a time and without following links, and members are created relative to the
// opened parent. Therefore neither the archive nor a process that changes the tree during the
// extraction can make a write go outside the target directory. Not supported: hard links, devices,
// FIFOs, owners, extended headers.
#ifndef ZNCTARLIB_HPP
#define ZNCTARLIB_HPP

#include "zncontainer.h"

#include "format/ustar.hpp"
#include "zncOwned.hpp"
#include "zncPath.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace znc {
class BlobReader;
class LayerFindings;
class RunningDigest;
class TarDryTree;
class TextList;
} // namespace znc

using tar_size_t = std::uint32_t;

#define REGTYPE0 '\0'
#define REGTYPE '0'
#define LNKTYPE '1'
#define SYMTYPE '2'
#define CHRTYPE '3'
#define BLKTYPE '4'
#define DIRTYPE '5'
#define FIFOTYPE '6'
#define CONTTYPE '7'

struct header : znc::UstarHeader {};

typedef union hblock {
    char dummy[znc::kTarBlock];
    header dbuf;
} MT_HBLOCK;
static_assert(sizeof(MT_HBLOCK) == znc::kTarBlock);

// One record of the file of directory times, written as raw memory.
struct DIR_TAR {
    char name[256]; // relative to the target directory, without a leading "/"
    time_t mtime;
};
static_assert(sizeof(DIR_TAR) == 264);

// The longest path that a 155-byte prefix and a 100-byte name can have: a leading "/" and the NUL
// included.
inline constexpr std::size_t kTarCacheSize = 257;

namespace znc {

// Options of a run. Each may be null; none is owned.
struct TarRun {
    const std::atomic<bool>* cancel = nullptr; // when it becomes true, the run fails
    TarDryTree* dry = nullptr;         // create members in this tree in memory instead of on disk
    RunningDigest* plain = nullptr;    // receives the bytes of the uncompressed archive
    LayerFindings* findings = nullptr; // receives what is dropped or refused
    TextList* directories = nullptr;   // receives the directories that the archive names
};

} // namespace znc

typedef struct mtTarSoft {
    TAR_COMPRESS* tc; // NULL: not compressed; not owned
    int fd;           // the uncompressed file; 0: none; not owned
    int bFactor;      // blocks per read
    int bValid;       // blocks not yet taken from the buffer
    int recurseCnt;   // 0
    MT_HBLOCK* pBuf;  // the block buffer; not owned
    MT_HBLOCK* pBnext;
    znc::UniqueFd dir_fd; // the file of directory times, newest record last
    int dir_cnt;
    znc::MallocPtr<char[]> dir_fname;
    znc::MallocPtr<char[]> targetDir; // the target directory; member paths are appended
    std::size_t targetDirLen;
    znc::MallocPtr<char[]> goodPathCache; // "/a/b": each component is a verified directory
    BOOL verbose;

    // parentFd is the open directory at the first parentLen bytes of goodPathCache. If it is not
    // open, targetFd is the parent.
    znc::UniqueFd targetFd;
    znc::UniqueFd parentFd;
    std::size_t parentLen;

    int lacking;           // errno if a member was left out for lack of space, memory etc.; else 0
    BOOL ended;            // the end-of-archive block has been read
    znc::BlobReader* blob; // read from this instead of fd, unless NULL; not owned
    znc::TarRun run;
} MT_TAR_SOFT;

// zncTarLib.cpp

// Points *ppBlk at the next 1 to `nBlocks` blocks in the buffer, valid until the next call. Returns
// their number, 0 at the end of the archive, -1 on error.
int tarRdBlks(MT_TAR_SOFT* pCtrl, MT_HBLOCK** ppBlk, unsigned int nBlocks);
BOOL zncTarBlockIsZero(void* pBuf);

// zncTarLib_member.cpp

tar_size_t mtChecksum(void* pBuf, tar_size_t size);
STATUS tarExtractFile(MT_TAR_SOFT* pCtrl, MT_HBLOCK* pBlk);
// Creates the file in the directory that mtAccess opened last; its name is the last component of
// the composed path.
STATUS tarExtractRegularFile(MT_TAR_SOFT* pCtrl, int mode, tar_size_t size, time_t mtime);

// zncTarLib_path.cpp

STATUS tarCopyCondense(char** ppOut, std::size_t room, const char* in, std::size_t inLen);
char* mtAccess(MT_TAR_SOFT* pCtrl, char* arPath);

// zncTarLib_dirs.cpp

// A relative `fn` is relative to the directory `dir`. If `fn` is a symbolic link, it is not
// followed.
STATUS tarSetMtime(const char* fn, time_t mtime, int dir);
STATUS tarSetMtime(char* fn, time_t mtime);
STATUS tarProcDirs(MT_TAR_SOFT* ctrl);

namespace znc {

// Number of octal digits of the mode in front of the path of a listed directory: "1777/a/b".
inline constexpr std::size_t kModeDigits = 4;

// Blocks per read for an image's layers.
inline constexpr std::size_t kTarLayerBlocks = 200;

// Like zncTarExtract, but reads from `blob`, which computes the digest of what it reads, and does
// not report success for an incomplete tree: members that cannot be created are left out, but if
// space, descriptors or memory ran out, the call fails. Whether the digest matches must be asked of
// `blob` afterwards. A dry run ignores `targetDir`.
STATUS tar_extract_whole(BlobReader& blob, const char* targetDir, std::size_t bfactor,
                         const TarRun& run = {});

// The directory that mtAccess opened last.
int tar_parent(const MT_TAR_SOFT& ctrl) noexcept;

// The member's name in its parent directory; `last` is the result of mtAccess. Never empty.
const char* tar_member_name(const char* last) noexcept;

// Records the modification time of the directory just created at `arPath` ("/a/b"), to be set at
// the end of the run.
STATUS tar_record_dir(MT_TAR_SOFT& ctrl, const char* arPath, time_t mtime) noexcept;

// Whether `name` in the current parent is the file of directory times.
bool tar_is_record_file(const MT_TAR_SOFT& ctrl, const char* name) noexcept;

// zncTarLib_make.cpp: creates members in the current parent, on disk or, in a dry run, in the tree
// in memory. On false or ERROR errno is set.

// Makes the subdirectory `name` the current parent.
bool tar_enter(MT_TAR_SOFT& ctrl, const char* name) noexcept;
// Makes the target directory the current parent again.
void tar_leave(MT_TAR_SOFT& ctrl) noexcept;
// Creates a directory with exactly the permission bits of `mode`; on failure nothing is left
// behind. In a dry run `*dir` and `*file` stay invalid.
STATUS tar_make_directory(const MT_TAR_SOFT& ctrl, const char* name, int mode,
                          UniqueFd* dir) noexcept;
STATUS tar_make_symlink(const MT_TAR_SOFT& ctrl, const char* target, const char* name) noexcept;
// Creates an empty file, open for writing.
STATUS tar_make_file(const MT_TAR_SOFT& ctrl, const char* name, int mode, UniqueFd* file) noexcept;

} // namespace znc

#endif
