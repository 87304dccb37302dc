// zncTarLib_member.cpp - parses the header of one member and creates the member.
#include "zncTarLib.hpp"

#include "base/failure.hpp"
#include "zncLayerFindings.hpp"
#include "zncProgress.hpp"
#include "zncStoreRecord.hpp"

#include "zarnel/fs.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>

using znc::tar_octal;

namespace {

// What is created for a member.
enum class Made : unsigned char { kDirectory, kFile, kLink, kNothing };

// A member as its header describes it.
struct Member {
    int mode = 0;
    tar_size_t size = 0;
    time_t mtime = 0;
    bool namedAsDir = false;
    char* path = nullptr; // "/a/b", in the path buffer; NULL: create nothing
    Made made = Made::kNothing;
};

bool checksum_matches(MT_HBLOCK& block)
{
    unsigned long parsed = 0;
    int wanted = -1;
    if (tar_octal(block.dbuf.chksum, parsed))
        wanted = static_cast<int>(parsed);
    std::fill(std::begin(block.dbuf.chksum), std::end(block.dbuf.chksum), ' ');
    return static_cast<tar_size_t>(wanted) == mtChecksum(&block, sizeof block);
}

STATUS parse_numbers(const header& h, Member& member)
{
    unsigned long mode = 0;
    unsigned long size = 0;
    unsigned long mtime = 0;
    tar_octal(h.mode, mode);
    tar_octal(h.size, size);
    tar_octal(h.mtime, mtime);
    if (size > znc::kTarSizeMax)
        return znc::fail(EFBIG);
    member.mode = static_cast<int>(mode);
    member.size = static_cast<tar_size_t>(size);
    member.mtime = static_cast<time_t>(mtime);
    return OK;
}

// Appends the member's path to the target directory in the path buffer. If it does not fit or is
// the target directory itself, nothing is created for the member.
STATUS compose_path(MT_TAR_SOFT& ctrl, const header& h, Member& member)
{
    char* const start = ctrl.targetDir.get() + ctrl.targetDirLen;
    char* const end = ctrl.targetDir.get() + znc::kPathMax;
    char* out = start;
    const auto append = [&](std::string_view text) {
        return tarCopyCondense(&out, static_cast<std::size_t>(end - out), text.data(), text.size());
    };
    if (tar_has_prefix(h) && append(znc::tar_text(h.prefix)) != OK)
        return ERROR;
    if (append(znc::tar_text(h.name)) != OK)
        return ERROR;
    if (out >= end) {
        end[-1] = '\0';
        return OK;
    }
    if (out > start && out[-1] == '/') {
        *--out = '\0';
        member.namedAsDir = true;
    }
    member.path = out > start ? start : nullptr;
    return OK;
}

// Nothing is created for hard links, devices and extended headers.
Made made_of(const Member& member, char type)
{
    if (member.path == nullptr)
        return Made::kNothing;
    if (member.size == 0 && member.namedAsDir)
        return Made::kDirectory;
    switch (type) {
    case REGTYPE0:
    case ' ':
    case REGTYPE:
        return Made::kFile;
    case SYMTYPE:
        return Made::kLink;
    default:
        return Made::kNothing;
    }
}

// Called for a member that could not be created. Most errors are caused by the member itself and
// are ignored. The errors below may not occur on another try, so they are kept in ctrl.lacking.
void left_out(MT_TAR_SOFT& ctrl, int number)
{
    switch (number) {
    case ENOSPC:
    case EDQUOT:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case EIO:
    case EROFS:
        if (ctrl.lacking == 0)
            ctrl.lacking = number;
        break;
    default:
        break;
    }
}

// Extends the cache by the directory just created, as it is a verified parent for its members.
void cache_new_dir(MT_TAR_SOFT& ctrl, const char* arPath, const char* last)
{
    const auto at = static_cast<std::size_t>(last - arPath);
    const std::size_t len = std::strlen(last);
    if (at + len < kTarCacheSize)
        std::memcpy(ctrl.goodPathCache.get() + at, last, len + 1);
}

// Adds the directory, with all its mode bits, to the list of the run: "1777/a/b".
void list_directory(MT_TAR_SOFT& ctrl, const Member& member)
{
    if (ctrl.run.directories == nullptr)
        return;
    char text[znc::kModeDigits + kTarCacheSize + 1];
    const auto mode = static_cast<unsigned>(member.mode) & 07777U;
    const int len = snprintf(text, sizeof text, "%04o%s", mode, member.path);
    if (len < static_cast<int>(sizeof text) && !ctrl.run.directories->add(text))
        left_out(ctrl, ENOMEM);
}

STATUS extract_directory(MT_TAR_SOFT& ctrl, const Member& member, const char* last)
{
    list_directory(ctrl, member);
    znc::UniqueFd dir;
    if (znc::tar_make_directory(ctrl, znc::tar_member_name(last), member.mode, &dir) != OK) {
        // EEXIST is ignored as well: an existing directory stays as it is
        left_out(ctrl, errno);
        return OK;
    }
    if (dir.close_checked() != 0)
        return ERROR;
    cache_new_dir(ctrl, member.path, last);
    return znc::tar_record_dir(ctrl, member.path, member.mtime);
}

STATUS extract_symlink(const MT_TAR_SOFT& ctrl, const MT_HBLOCK& block, const char* last)
{
    // A target that fills its field has no NUL and is read on into the fields after it.
    constexpr std::size_t kOffset = offsetof(header, linkname);
    char target[sizeof block.dummy - kOffset + 1];
    const std::size_t len = strnlen(block.dummy + kOffset, sizeof target - 1);
    std::memcpy(target, block.dummy + kOffset, len);
    target[len] = '\0';
    return znc::tar_make_symlink(ctrl, target, znc::tar_member_name(last));
}

// A short write is a failure.
bool write_at_once(int fd, const void* bytes, std::size_t count)
{
    ssize_t n;
    do {
        n = write(fd, bytes, count);
    } while (n < 0 && errno == EINTR);
    if (n >= 0 && static_cast<std::size_t>(n) != count)
        errno = ENOSPC; // a short write to a regular file means that the disk is full
    return n >= 0 && static_cast<std::size_t>(n) == count;
}

// Writes the member's data from the block buffer to `fd`; only skips it if `fd` is negative.
bool copy_data(MT_TAR_SOFT& ctrl, int fd, tar_size_t size)
{
    using znc::kTarBlock;
    auto blocks = static_cast<unsigned int>((std::uint64_t{size} + kTarBlock - 1) / kTarBlock);
    std::size_t left = size;
    while (left > 0) {
        MT_HBLOCK* data = nullptr;
        const int n = tarRdBlks(&ctrl, &data, blocks);
        if (n == 0)
            znc::tell_of_member(ctrl, ZNC_LAYER_CUT);
        if (n <= 0)
            return false;
        const auto taken = static_cast<unsigned int>(n);
        const std::size_t count = std::min(taken * kTarBlock, left);
        if (fd >= 0 && !write_at_once(fd, data, count))
            return false;
        left -= count;
        blocks -= taken;
    }
    return true;
}

bool starts_with(const char* text, std::string_view start)
{
    return std::strncmp(text, start.data(), start.size()) == 0;
}

// Counts members that are left out, for the callback of zncUnpackProgressSet. Members of /dev do
// not count, because every container gets its own /dev.
void count_left_out(const Member& member, bool whiteout)
{
    if (whiteout || (member.made == Made::kNothing && !starts_with(member.path, "/dev/")))
        znc::progress_left_out();
}

bool is_number_other_than_0(std::string_view field)
{
    unsigned long number = 0;
    return tar_octal(field, number) && number != 0;
}

// Reports what is dropped of a member whose parent exists.
void tell_losses(const MT_TAR_SOFT& ctrl, const Member& member, const header& h, const char* last)
{
    const bool whiteout = starts_with(znc::tar_member_name(last), ".wh.");
    if (ctrl.run.dry == nullptr)
        count_left_out(member, whiteout);
    if (ctrl.run.findings == nullptr)
        return;
    if ((member.mode & 07000) != 0)
        znc::tell_of_member(ctrl, ZNC_LAYER_MODE);
    if (is_number_other_than_0({h.uid, sizeof h.uid}) ||
        is_number_other_than_0({h.gid, sizeof h.gid}))
        znc::tell_of_member(ctrl, ZNC_LAYER_OWNER);
    if (whiteout && member.made != Made::kDirectory)
        znc::tell_of_member(ctrl, ZNC_LAYER_WHITEOUT);
    if (member.made == Made::kNothing && member.size == 0)
        znc::tell_of_member(ctrl, ZNC_LAYER_NOT_MADE);
}

// Does not change errno, which is the reason of the failure.
STATUS refuse(const MT_TAR_SOFT& ctrl, ZNC_LAYER_FINDING finding)
{
    znc::tell_of_member(ctrl, finding);
    return ERROR;
}

// Reports a size because of which the next header is not where other programs expect it.
void tell_of_size(const MT_TAR_SOFT& ctrl, const Member& member, bool binary)
{
    if (binary)
        znc::tell_of_member(ctrl, ZNC_LAYER_SIZE_FORM);
    else if (member.size != 0 && member.made != Made::kFile)
        znc::tell_of_member(ctrl, ZNC_LAYER_DATA_AS_MEMBERS);
}

// Whether the size is binary, the form that other programs use if it does not fit into octal
// digits.
bool has_binary_size(const header& h)
{
    constexpr unsigned kBinary = 0x80;
    return (static_cast<unsigned char>(h.size[0]) & kBinary) != 0;
}

STATUS make_member(MT_TAR_SOFT& ctrl, const Member& member, const MT_HBLOCK& block,
                   const char* last)
{
    switch (member.made) {
    case Made::kDirectory:
        return extract_directory(ctrl, member, last);
    case Made::kFile:
        return tarExtractRegularFile(&ctrl, member.mode, member.size, member.mtime);
    case Made::kLink:
        if (extract_symlink(ctrl, block, last) == OK)
            return OK;
        return refuse(ctrl, errno == ENOENT ? ZNC_LAYER_LINK_EMPTY : ZNC_LAYER_LINK_EXISTS);
    default: // data of other members is not skipped: it is read as headers
        return OK;
    }
}

} // namespace

tar_size_t mtChecksum(void* pBuf, tar_size_t size)
{
    return znc::tar_sum(pBuf, size);
}

STATUS tarExtractRegularFile(MT_TAR_SOFT* pCtrl, int mode, tar_size_t size, time_t mtime)
{
    const char* const name =
        znc::tar_member_name(std::strrchr(pCtrl->targetDir.get() + pCtrl->targetDirLen, '/'));
    const int parent = znc::tar_parent(*pCtrl);
    const int before = errno;
    // A member must not overwrite the file of directory times; its data is discarded.
    const bool records = znc::tar_is_record_file(*pCtrl, name);
    znc::UniqueFd file;
    const bool created = !records && znc::tar_make_file(*pCtrl, name, mode, &file) == OK;
    if (!created && !records) {
        left_out(*pCtrl, errno);
        znc::tell_of_member(*pCtrl, ZNC_LAYER_NO_FILE);
    }
    if (!created) {
        file.reset(open(ZN_NULL_DEVICE, O_RDWR | O_CLOEXEC));
        if (!file)
            return ERROR;
    }
    errno = before; // that the file could not be created is not a failure
    const bool copied = copy_data(*pCtrl, file.get(), size);
    const bool written = static_cast<bool>(file);
    if (!copied || file.close_checked() != 0)
        return ERROR;
    if (created && written)
        tarSetMtime(name, mtime, parent);
    return OK;
}

STATUS tarExtractFile(MT_TAR_SOFT* pCtrl, MT_HBLOCK* pBlk)
{
    Member member;
    znc::begin_member(*pCtrl, pBlk->dbuf);
    if (!checksum_matches(*pBlk))
        return refuse(*pCtrl, ZNC_LAYER_CHECKSUM);
    if (parse_numbers(pBlk->dbuf, member) != OK)
        return refuse(*pCtrl, ZNC_LAYER_TOO_LARGE);
    if (compose_path(*pCtrl, pBlk->dbuf, member) != OK)
        return refuse(*pCtrl, ZNC_LAYER_NAME);
    member.made = made_of(member, pBlk->dbuf.linkflag);
    // Copying the data refills the buffer that the header is in.
    const bool binary_size = has_binary_size(pBlk->dbuf);
    if (member.path != nullptr) {
        const char* const last = mtAccess(pCtrl, member.path);
        if (last == nullptr)
            return refuse(*pCtrl, errno == ENOENT ? ZNC_LAYER_NO_PARENT : ZNC_LAYER_PARENT);
        tell_losses(*pCtrl, member, pBlk->dbuf, last);
        if (make_member(*pCtrl, member, *pBlk, last) != OK)
            return ERROR;
    }
    tell_of_size(*pCtrl, member, binary_size);
    return OK;
}
