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

#include "zncOwned.hpp"
#include "zncPath.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

namespace znc {
class BlobReader;
}

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

// Numbers are octal text; no field need end with a NUL.
struct header {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char chksum[8];
    char linkflag;
    char linkname[100];
    char indicator[6];
    char version[2];
    char uname[32];
    char gname[32];
    char major[8];
    char minor[8];
    char prefix[155];
};

typedef union hblock {
    char dummy[512];
    header dbuf;
} MT_HBLOCK;
static_assert(sizeof(header) == 500 && sizeof(MT_HBLOCK) == 512);

// One record of the directory-time file, kept as raw memory.
struct DIR_TAR {
    char name[256]; // relative to the target directory, without a leading "/"
    time_t mtime;
};
static_assert(sizeof(DIR_TAR) == 264);

// The longest parent chain of a 155-byte prefix and a 100-byte name, its leading "/" and a NUL.
inline constexpr std::size_t kTarCacheSize = 257;

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

    int lacking; // why members were left out for which something ran out; 0: none was
    const std::atomic<bool>* cancel; // NULL: nobody ends the run early
    znc::BlobReader* blob;           // NULL: a plain file is read from fd; else from this; borrowed
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

// Blocks per read for an image's layers.
inline constexpr std::size_t kTarLayerBlocks = 200;

// zncTarExtract for an archive that is hashed as it is read, and for callers who must not take a
// part for the whole. A member that cannot be made is left out; here that is a failure when space,
// descriptors or memory ran out. It is one as well once `*cancel`, where there is one, is set.
// Whether the archive was the right one only its reader knows, afterwards.
STATUS tar_extract_whole(BlobReader& blob, const char* targetDir, std::size_t bfactor,
                         const std::atomic<bool>* cancel = nullptr);

// An octal number as scanf reads it ("%o"): leading blanks, a sign, digits up to the first other
// character or the end of the field. False when there is none; `value` is then untouched.
bool tar_octal(std::string_view field, unsigned long& value) noexcept;

// The directory that mtAccess proved last.
int tar_parent(const MT_TAR_SOFT& ctrl) noexcept;

// What a member is called in its parent; `last` is what mtAccess returned. Never empty.
const char* tar_member_name(const char* last) noexcept;

// Remember the time of the directory just made in the proved parent, at the composed path `arPath`
// ("/a/b").
STATUS tar_record_dir(MT_TAR_SOFT& ctrl, const char* arPath, time_t mtime) noexcept;

// Whether a name in the proved parent is the file of directory times.
bool tar_is_record_file(const MT_TAR_SOFT& ctrl, const char* name) noexcept;

} // namespace znc

#endif
