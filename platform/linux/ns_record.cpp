#include "ns_record.hpp"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "base/file.hpp"
#include "helper/wire.hpp"
#include "system/pidfd.hpp"
#include "zarnel/daemon_file.h"
#include "zarnel/fs.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr char kRecordDir[] = ZN_RUNTIME_DIR "/ns";
constexpr char kUnfinished[] =
    ".new-"; // followed by the namespace's id; names of records do not begin like this

void record_path(nsid_t ns, char (&path)[64])
{
    std::snprintf(path, sizeof path, "%s/%d", kRecordDir, ns);
}

// Must neither block on a FIFO nor follow a symbolic link.
UniqueFd open_small(const char* path, int access)
{
    return UniqueFd(::open(path, access | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
}

// Reads a small file; returns its length or -1.
ssize_t read_small(const UniqueFd& file, char* buf, std::size_t size)
{
    if (!file)
        return -1;
    std::size_t len = 0;
    while (len < size - 1) {
        const ssize_t n = ::read(file.get(), buf + len, size - 1 - len);
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        len += static_cast<std::size_t>(n);
    }
    buf[len] = '\0';
    return static_cast<ssize_t>(len);
}

constexpr char kFirstLine[] = "%d %llu %d %llu %c%c";
// The first line, then root, name and control group, with a NUL after each.
constexpr std::size_t kTextMax = wire::kConfinementOffset;
static_assert(96 + kRootPathMax + kNameMax + kCgroupPathMax <= kTextMax);
// Positions of the two variable characters, counted from the end of the first line.
constexpr std::ptrdiff_t kGrantBeforeEnd = 2;
constexpr std::ptrdiff_t kEntryBeforeEnd = 1;

// Copies the text at `at` and moves `at` behind it. A text at the end of the record is "".
template <std::size_t size> bool take_text(const char*& at, const char* end, char (&field)[size])
{
    field[0] = '\0';
    if (at >= end)
        return true;
    const std::size_t len = ::strnlen(at, static_cast<std::size_t>(end - at));
    if (len >= size)
        return false;
    std::memcpy(field, at, len);
    field[len] = '\0';
    at += len + 1;
    return true;
}

// Parses a record of `len` bytes. Returns the end of the first line; null with errno set.
const char* parse(const char* text, std::size_t len, NsRecord& record)
{
    const char* end = std::strchr(text, '\n');
    const char* at = end != nullptr ? end + 1 : text + len;
    char grant = 0;
    char entry = 0;
    if (end != nullptr && end - text > kGrantBeforeEnd && take_text(at, text + len, record.root) &&
        take_text(at, text + len, record.name) && take_text(at, text + len, record.group) &&
        std::sscanf(text, kFirstLine, &record.keeper, &record.startTime, &record.holder,
                    &record.holderStartTime, &grant, &entry) == 6 &&
        record.keeper > 0 && grant == end[-kGrantBeforeEnd] && entry == end[-kEntryBeforeEnd]) {
        record.grant = static_cast<Grant>(grant);
        record.entry = static_cast<Entry>(entry);
        return end;
    }
    return znc::fail(EINVAL, nullptr);
}

int change(nsid_t ns, std::ptrdiff_t beforeEnd, char value)
{
    char path[64];
    record_path(ns, path);
    const UniqueFd file = open_small(path, O_RDWR);
    char text[kTextMax];
    NsRecord record;
    const ssize_t len = read_small(file, text, sizeof text);
    if (len < 0)
        return -1;
    const char* const end = parse(text, static_cast<std::size_t>(len), record);
    if (end == nullptr)
        return -1;
    return ::pwrite(file.get(), &value, 1, end - text - beforeEnd) == 1 ? 0 : -1;
}

int write_new(const char* path, std::span<const char> text, std::span<const char> confinement)
{
    const UniqueFd file(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file || !znc::write_all(file.get(), {text.data(), text.size()}))
        return -1;
    if (confinement.empty())
        return 0;
    const bool written = ::lseek(file.get(), wire::kConfinementOffset, SEEK_SET) >= 0 &&
                         znc::write_all(file.get(), {confinement.data(), confinement.size()});
    return written ? 0 : -1;
}

// The text of a record, without a confinement. Returns its length.
std::size_t format(const NsRecord& record, char (&text)[kTextMax])
{
    char* at =
        text + std::snprintf(text, sizeof text, kFirstLine, record.keeper, record.startTime,
                             record.holder, record.holderStartTime, static_cast<char>(record.grant),
                             static_cast<char>(record.entry));
    *at++ = '\n';
    for (const char* part : {record.root, record.name, record.group})
        at = ::stpcpy(at, part) + 1;
    return static_cast<std::size_t>(at - text);
}

} // namespace

unsigned long long process_start_time(pid_t pid)
{
    char path[64];
    char stat[1024];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    if (read_small(open_small(path, O_RDONLY), stat, sizeof stat) < 0)
        return 0;
    // Field 2, the name, may contain spaces and parentheses; count to field 22 from the last ")".
    const char* at = std::strrchr(stat, ')');
    for (int field = 2; at != nullptr && field < 22; field++)
        at = std::strchr(at + 1, ' ');
    unsigned long long value = 0;
    if (at == nullptr || std::sscanf(at, " %llu", &value) != 1) {
        errno = EINVAL;
        return 0;
    }
    return value;
}

// Renames without replacing. Some file systems cannot do that in one call.
int rename_new(const char* from, const char* to)
{
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL || ::link(from, to) != 0)
        return -1;
    ::unlink(from);
    return 0;
}

// Writes a temporary file and gives it its final name, so that a record is always complete, even if
// the file system is full or the writer is killed.
int ns_record_write(nsid_t ns, const NsRecord& record, std::span<const char> confinement)
{
    if (znMkdirParents(kRecordDir, 0700) != OK)
        return -1;
    char text[kTextMax];
    const std::size_t len = format(record, text);
    char unfinished[64];
    std::snprintf(unfinished, sizeof unfinished, "%s/%s%d", kRecordDir, kUnfinished, ns);
    ::unlink(unfinished); // left by a process that was killed
    int result = write_new(unfinished, {text, len}, confinement);
    if (result == 0) {
        char path[64];
        record_path(ns, path);
        result = rename_new(unfinished, path);
    }
    if (result != 0) {
        const znc::ErrnoSaver keep;
        ::unlink(unfinished);
    }
    return result;
}

UniqueFd ns_record_open(nsid_t ns)
{
    char path[64];
    record_path(ns, path);
    return open_small(path, O_RDONLY);
}

void ns_record_clear_unfinished()
{
    const znc::ErrnoSaver keep;
    const znc::UniqueDir dir(::opendir(kRecordDir));
    while (const dirent* entry = dir ? znc::next_entry(dir.get()) : nullptr)
        if (std::strncmp(entry->d_name, kUnfinished, sizeof kUnfinished - 1) == 0)
            ::unlinkat(::dirfd(dir.get()), entry->d_name, 0);
}

int ns_record_read(nsid_t ns, NsRecord& record)
{
    char text[kTextMax];
    const ssize_t len = read_small(ns_record_open(ns), text, sizeof text);
    return len >= 0 && parse(text, static_cast<std::size_t>(len), record) != nullptr ? 0 : -1;
}

int ns_record_mark(nsid_t ns, Entry entry)
{
    return change(ns, kEntryBeforeEnd, static_cast<char>(entry));
}

int ns_record_mark(nsid_t ns, Grant grant)
{
    return change(ns, kGrantBeforeEnd, static_cast<char>(grant));
}

bool ns_record_remove(nsid_t ns)
{
    const znc::ErrnoSaver keep;
    char path[64];
    record_path(ns, path);
    return ::unlink(path) == 0 || errno == ENOENT;
}

// The pidfd keeps referring to one process; the start time, read afterwards, tells whether this is
// the recorded process.
UniqueFd process_recorded(pid_t pid, unsigned long long recordedStart)
{
    UniqueFd pidfd = process_open(pid);
    const unsigned long long startTime = pidfd ? process_start_time(pid) : 0;
    if (startTime == 0) {
        if (errno == ENOENT) // /proc has no such directory: the process has ended
            errno = ESRCH;
        return UniqueFd();
    }
    if (startTime != recordedStart || process_ended(pidfd.get(), 0))
        return znc::fail(ESRCH, UniqueFd());
    return pidfd;
}

UniqueFd ns_record_keeper(const NsRecord& record)
{
    return process_recorded(record.keeper, record.startTime);
}

UniqueFd ns_record_holder(const NsRecord& record)
{
    return process_recorded(record.holder, record.holderStartTime);
}

UniqueFd ns_record_live(nsid_t ns, NsRecord& record)
{
    UniqueFd keeper;
    if (ns_record_read(ns, record) == 0)
        keeper = ns_record_keeper(record);
    if (!keeper && ns_record_is_void(errno))
        errno = ESRCH;
    return keeper;
}

bool ns_record_is_void(int error)
{
    return error == ENOENT || error == EINVAL || error == ESRCH || error == EISDIR ||
           error == ELOOP;
}

bool ns_record_each(void (*visit)(nsid_t ns, void* context), void* context)
{
    const znc::UniqueDir dir(::opendir(kRecordDir));
    if (!dir)
        return errno == ENOENT;
    while (const dirent* entry = znc::next_entry(dir.get())) {
        nsid_t ns = -1;
        char rest = 0;
        if (std::sscanf(entry->d_name, "%d%c", &ns, &rest) == 1 && ns >= 0)
            visit(ns, context);
    }
    return errno == 0;
}

bool ns_record_rooted_on(const char* root)
{
    struct Search {
        const char* root;
        bool found;
    } search = {root, false};
    const bool listed = ns_record_each(
        [](nsid_t ns, void* context) {
            auto* wanted = static_cast<Search*>(context);
            NsRecord record;
            if (ns_record_read(ns, record) != 0)
                wanted->found = wanted->found || !ns_record_is_void(errno);
            else if (std::strcmp(record.root, wanted->root) == 0)
                wanted->found =
                    wanted->found || ns_record_keeper(record) || !ns_record_is_void(errno);
        },
        &search);
    return search.found || !listed;
}

} // namespace zn
