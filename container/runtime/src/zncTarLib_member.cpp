// zncTarLib_member.cpp - one member: its header, and what is made of it.
#include "zncTarLib.hpp"

#include "zncProgress.hpp"

#include "zarnel/fs.h"

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <numeric>
#include <sys/stat.h>

namespace {

constexpr mode_t kPermBits = 0777;

// A member as its header describes it.
struct Member {
    int mode = 0;
    tar_size_t size = 0;
    time_t mtime = 0;
    bool namedAsDir = false;
    char* path = nullptr; // "/a/b", in the path buffer; NULL: nothing to make
};

template <std::size_t N> std::string_view field(const char (&text)[N])
{
    return {text, N};
}

bool checksum_matches(MT_HBLOCK& block)
{
    unsigned long parsed = 0;
    int wanted = -1;
    if (znc::tar_octal(field(block.dbuf.chksum), parsed))
        wanted = static_cast<int>(parsed);
    std::fill(std::begin(block.dbuf.chksum), std::end(block.dbuf.chksum), ' ');
    return static_cast<tar_size_t>(wanted) == mtChecksum(&block, sizeof block);
}

STATUS parse_numbers(const header& h, Member& member)
{
    unsigned long mode = 0;
    unsigned long size = 0;
    unsigned long mtime = 0;
    znc::tar_octal(field(h.mode), mode);
    znc::tar_octal(field(h.size), size);
    znc::tar_octal(field(h.mtime), mtime);
    if (size > UINT32_MAX) {
        errno = EFBIG;
        return ERROR;
    }
    member.mode = static_cast<int>(mode);
    member.size = static_cast<tar_size_t>(size);
    member.mtime = static_cast<time_t>(mtime);
    return OK;
}

// Compose the member's path behind the target directory. A path that does not fit and one that
// names the target directory itself leave nothing to make.
STATUS compose_path(MT_TAR_SOFT& ctrl, const header& h, Member& member)
{
    char* const start = ctrl.targetDir.get() + ctrl.targetDirLen;
    char* const end = ctrl.targetDir.get() + znc::kPathMax;
    char* out = start;
    // Only the POSIX magic: its NUL included.
    if (h.prefix[0] != '\0' && std::memcmp(h.indicator, "ustar", sizeof h.indicator) == 0 &&
        tarCopyCondense(&out, static_cast<std::size_t>(end - out), h.prefix,
                        strnlen(h.prefix, sizeof h.prefix)) != OK)
        return ERROR;
    if (tarCopyCondense(&out, static_cast<std::size_t>(end - out), h.name,
                        strnlen(h.name, sizeof h.name)) != OK)
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

// A member could not be made. Most numbers say something about the member; these, that the next try
// may well make it.
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

// A new directory with exactly the member's permission bits, or none. Private until they are set;
// where they cannot be, none stays.
znc::UniqueFd make_dir(int parent, const char* name, int mode)
{
    if (mkdirat(parent, name, S_IRWXU) != 0)
        return {};
    znc::UniqueFd dir(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (dir && fchmod(dir.get(), static_cast<mode_t>(mode) & kPermBits) == 0)
        return dir;
    unlinkat(parent, name, AT_REMOVEDIR);
    return {};
}

// A directory just made is a good parent for what follows.
void cache_new_dir(MT_TAR_SOFT& ctrl, const char* arPath, const char* last)
{
    const auto at = static_cast<std::size_t>(last - arPath);
    const std::size_t len = std::strlen(last);
    if (at + len < kTarCacheSize)
        std::memcpy(ctrl.goodPathCache.get() + at, last, len + 1);
}

STATUS extract_directory(MT_TAR_SOFT& ctrl, const Member& member, const char* last)
{
    znc::UniqueFd dir = make_dir(znc::tar_parent(ctrl), znc::tar_member_name(last), member.mode);
    if (!dir) { // also when it exists: it is left as it is
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
    // A target that fills its field runs on into what follows it.
    constexpr std::size_t kOffset = offsetof(header, linkname);
    char target[sizeof block.dummy - kOffset + 1];
    const std::size_t len = strnlen(block.dummy + kOffset, sizeof target - 1);
    std::memcpy(target, block.dummy + kOffset, len);
    target[len] = '\0';
    const char* const name = znc::tar_member_name(last);
    return symlinkat(target, znc::tar_parent(ctrl), name) == 0 ? OK : ERROR;
}

// A short write is a failure.
bool write_at_once(int fd, const void* bytes, std::size_t count)
{
    ssize_t n;
    do {
        n = write(fd, bytes, count);
    } while (n < 0 && errno == EINTR);
    if (n >= 0 && static_cast<std::size_t>(n) != count)
        errno = ENOSPC; // a file takes less than it is given only when there is no more room
    return n >= 0 && static_cast<std::size_t>(n) == count;
}

// Pass the member's data from the archive to `fd`, straight from the block buffer.
bool copy_data(MT_TAR_SOFT& ctrl, int fd, tar_size_t size)
{
    constexpr std::size_t kBlockSize = sizeof(MT_HBLOCK);
    auto blocks = static_cast<unsigned int>((std::uint64_t{size} + kBlockSize - 1) / kBlockSize);
    std::size_t left = size;
    while (left > 0) {
        MT_HBLOCK* data = nullptr;
        const int n = tarRdBlks(&ctrl, &data, blocks);
        if (n <= 0)
            return false;
        const auto taken = static_cast<unsigned int>(n);
        const std::size_t count = std::min(taken * kBlockSize, left);
        if (!write_at_once(fd, data, count))
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

// For who asked (zncUnpackProgressSet); it changes nothing. A container gets a /dev of its own.
void count_left_out(const Member& member, const char* last, char type)
{
    const bool made = type == REGTYPE0 || type == ' ' || type == REGTYPE || type == SYMTYPE ||
                      (member.size == 0 && member.namedAsDir);
    const bool mark = starts_with(znc::tar_member_name(last), ".wh.");
    if (mark || (!made && !starts_with(member.path, "/dev/")))
        znc::progress_left_out();
}

} // namespace

bool znc::tar_octal(std::string_view field, unsigned long& value) noexcept
{
    std::size_t at = 0;
    while (at < field.size() && (field[at] == ' ' || (field[at] >= '\t' && field[at] <= '\r')))
        ++at;
    const bool negative = at < field.size() && field[at] == '-';
    if (at < field.size() && (field[at] == '-' || field[at] == '+'))
        ++at;
    const std::size_t digits = at;
    unsigned long n = 0;
    for (; at < field.size() && field[at] >= '0' && field[at] <= '7'; ++at)
        n = n * 8 + static_cast<unsigned long>(field[at] - '0');
    if (at == digits)
        return false;
    value = negative ? 0 - n : n;
    return true;
}

tar_size_t mtChecksum(void* pBuf, tar_size_t size)
{
    const auto* const bytes = static_cast<const std::uint8_t*>(pBuf);
    return std::accumulate(bytes, bytes + size, tar_size_t{0});
}

STATUS tarExtractRegularFile(MT_TAR_SOFT* pCtrl, int mode, tar_size_t size, time_t mtime)
{
    const char* const name =
        znc::tar_member_name(std::strrchr(pCtrl->targetDir.get() + pCtrl->targetDirLen, '/'));
    const int parent = znc::tar_parent(*pCtrl);
    const int before = errno;
    // The directory times are the extractor's: a member of that name has no file to go to.
    const bool records = znc::tar_is_record_file(*pCtrl, name);
    znc::UniqueFd file(
        records ? -1 : znFileCreateAt(parent, name, static_cast<mode_t>(mode) & kPermBits));
    const bool created = static_cast<bool>(file);
    if (!created && !records)
        left_out(*pCtrl, errno);
    if (!created)
        file.reset(open(ZN_NULL_DEVICE, O_RDWR | O_CLOEXEC));
    if (!file)
        return ERROR;
    errno = before; // no file to write is no failure
    const bool copied = copy_data(*pCtrl, file.get(), size);
    if (!copied || file.close_checked() != 0)
        return ERROR;
    if (created)
        tarSetMtime(name, mtime, parent);
    return OK;
}

STATUS tarExtractFile(MT_TAR_SOFT* pCtrl, MT_HBLOCK* pBlk)
{
    Member member;
    if (!checksum_matches(*pBlk) || parse_numbers(pBlk->dbuf, member) != OK ||
        compose_path(*pCtrl, pBlk->dbuf, member) != OK)
        return ERROR;
    if (member.path == nullptr)
        return OK;
    const char* const last = mtAccess(pCtrl, member.path);
    if (last == nullptr)
        return ERROR;
    count_left_out(member, last, pBlk->dbuf.linkflag);
    if (member.size == 0 && member.namedAsDir)
        return extract_directory(*pCtrl, member, last);
    switch (pBlk->dbuf.linkflag) {
    case REGTYPE0:
    case ' ':
    case REGTYPE:
        return tarExtractRegularFile(pCtrl, member.mode, member.size, member.mtime);
    case SYMTYPE:
        return extract_symlink(*pCtrl, *pBlk, last);
    default: // hard links, devices, extended headers: nothing is made, no data is passed over
        return OK;
    }
}
