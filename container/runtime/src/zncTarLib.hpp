// zncTarLib.hpp - the archive extractor's records and file-private operations, for its own files
// and the unit tests. Callers use zncTarExtract of the public header.
//
// Confinement: the target directory is opened once, every parent of a member is opened from there
// one component at a time without following links, and members are made in the opened parent. So
// neither an archive nor someone who changes the tree meanwhile can lead a write out of it. Left
// out: hard links, devices, FIFOs, owners, extended headers.
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

// One record of the directory-time file, kept as raw memory.
struct DIR_TAR {
    char name[256]; // relative to the target directory, without a leading "/"
    time_t mtime;
};
static_assert(sizeof(DIR_TAR) == 264);

// The longest parent chain of a 155-byte prefix and a 100-byte name, its leading "/" and a NUL.
inline constexpr std::size_t kTarCacheSize = 257;

namespace znc {

// What may be asked of a run beyond extracting. Each may be null; all are borrowed.
struct TarRun {
    const std::atomic<bool>* cancel = nullptr; // set: the run ends with a failure
    TarDryTree* dry = nullptr;         // members are made in this, in memory, and no file is
    RunningDigest* plain = nullptr;    // gets the bytes of the archive
    LayerFindings* findings = nullptr; // is told what is lost and refused
    TextList* directories = nullptr;   // gets the directories that the archive names
};

} // namespace znc

typedef struct mtTarSoft {
    TAR_COMPRESS* tc; // NULL: a plain file; borrowed
    int fd;           // the plain file; 0: none; borrowed
    int bFactor;      // blocks per read
    int bValid;       // blocks not yet taken from the buffer
    int recurseCnt;   // 0
    MT_HBLOCK* pBuf;  // the block buffer; borrowed
    MT_HBLOCK* pBnext;
    znc::UniqueFd dir_fd; // directory-time records, newest last
    int dir_cnt;
    znc::MallocPtr<char[]> dir_fname;
    znc::MallocPtr<char[]> targetDir; // the target directory; members are composed behind it
    std::size_t targetDirLen;
    znc::MallocPtr<char[]> goodPathCache; // parents proved to be directories: "/a/b"
    BOOL verbose;

    // What the proof is worth: descriptors. parentFd stands for the first parentLen bytes of the
    // cache; while it is none, targetFd does.
    znc::UniqueFd targetFd;
    znc::UniqueFd parentFd;
    std::size_t parentLen;

    int lacking;           // why members were left out for which something ran out; 0: none was
    BOOL ended;            // the end mark has been read
    znc::BlobReader* blob; // NULL: a plain file is read from fd; else from this; borrowed
    znc::TarRun run;
} MT_TAR_SOFT;

// zncTarLib.cpp

// The next 1 to `nBlocks` blocks, in place and valid until the next call: their number, 0 at the
// end, -1 on error.
int tarRdBlks(MT_TAR_SOFT* pCtrl, MT_HBLOCK** ppBlk, unsigned int nBlocks);
BOOL zncTarBlockIsZero(void* pBuf);

// zncTarLib_member.cpp

tar_size_t mtChecksum(void* pBuf, tar_size_t size);
STATUS tarExtractFile(MT_TAR_SOFT* pCtrl, MT_HBLOCK* pBlk);
// The member is in the directory that mtAccess proved last, at the composed path.
STATUS tarExtractRegularFile(MT_TAR_SOFT* pCtrl, int mode, tar_size_t size, time_t mtime);

// zncTarLib_path.cpp

STATUS tarCopyCondense(char** ppOut, std::size_t room, const char* in, std::size_t inLen);
char* mtAccess(MT_TAR_SOFT* pCtrl, char* arPath);

// zncTarLib_dirs.cpp

// A relative `fn` is taken from the directory `dir`. A link at `fn` itself is not followed.
STATUS tarSetMtime(const char* fn, time_t mtime, int dir);
STATUS tarSetMtime(char* fn, time_t mtime);
STATUS tarProcDirs(MT_TAR_SOFT* ctrl);

namespace znc {

// Digits of the mode in front of the path of a listed directory: "1777/a/b".
inline constexpr std::size_t kModeDigits = 4;

// Blocks per read for an image's layers.
inline constexpr std::size_t kTarLayerBlocks = 200;

// zncTarExtract for an archive that is hashed as it is read, and for callers who must not take a
// part for the whole. A member that cannot be made is left out; here that is a failure when space,
// descriptors or memory ran out. Whether the archive was the right one only its reader knows,
// afterwards. Of a dry run the target directory is not looked at.
STATUS tar_extract_whole(BlobReader& blob, const char* targetDir, std::size_t bfactor,
                         const TarRun& run = {});

// The directory that mtAccess proved last.
int tar_parent(const MT_TAR_SOFT& ctrl) noexcept;

// What a member is called in its parent; `last` is what mtAccess returned. Never empty.
const char* tar_member_name(const char* last) noexcept;

// Remember the time of the directory just made in the proved parent, at the composed path `arPath`
// ("/a/b").
STATUS tar_record_dir(MT_TAR_SOFT& ctrl, const char* arPath, time_t mtime) noexcept;

// Whether a name in the proved parent is the file of directory times.
bool tar_is_record_file(const MT_TAR_SOFT& ctrl, const char* name) noexcept;

// zncTarLib_make.cpp: what is made in the proved parent, on disk or in a dry run's tree. False and
// ERROR with the task error number set.

// Makes the directory `name` of the proved parent the proved parent.
bool tar_enter(MT_TAR_SOFT& ctrl, const char* name) noexcept;
// Back to the target directory.
void tar_leave(MT_TAR_SOFT& ctrl) noexcept;
// A new directory with exactly the permission bits, or none. In a dry run `*dir` and `*file` stay
// without a descriptor.
STATUS tar_make_directory(const MT_TAR_SOFT& ctrl, const char* name, int mode,
                          UniqueFd* dir) noexcept;
STATUS tar_make_symlink(const MT_TAR_SOFT& ctrl, const char* target, const char* name) noexcept;
// An empty file to write to.
STATUS tar_make_file(const MT_TAR_SOFT& ctrl, const char* name, int mode, UniqueFd* file) noexcept;

} // namespace znc

#endif
