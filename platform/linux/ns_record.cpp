#include "ns_record.hpp"

#include "pidfd.hpp"
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

constexpr char kRecordDir[] = "/run/zarnel/ns"; // in kRuntimeDir

void record_path(nsid_t ns, char (&path)[64])
{
    std::snprintf(path, sizeof path, "%s/%d", kRecordDir, ns);
}

// Reads a small file whole; returns its length or -1.
ssize_t read_small(const char* path, char* buf, std::size_t size)
{
    // What is no file must not keep the caller waiting, nor lead elsewhere.
    const UniqueFd file(::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
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

} // namespace

unsigned long long process_start_time(pid_t pid)
{
    char path[64];
    char stat[1024];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    if (read_small(path, stat, sizeof stat) < 0)
        return 0;
    // The name in field 2 may hold spaces and parentheses; field 22 is counted from its end.
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

int ns_record_write(nsid_t ns, const NsRecord& record)
{
    if (znMkdirParents(kRecordDir, 0700) != OK)
        return -1;
    char path[64];
    record_path(ns, path);
    const UniqueFd file(::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file)
        return -1;
    char text[kRootPathMax + 64];
    const int len = std::snprintf(text, sizeof text, "%d %llu\n%s", record.keeper, record.startTime,
                                  record.root);
    const ssize_t n = ::write(file.get(), text, static_cast<std::size_t>(len));
    if (n == len)
        return 0;
    if (n >= 0)
        errno = ENOSPC;
    ns_record_remove(ns);
    return -1;
}

int ns_record_read(nsid_t ns, NsRecord& record)
{
    char path[64];
    record_path(ns, path);
    char text[kRootPathMax + 64];
    if (read_small(path, text, sizeof text) < 0)
        return -1;
    const char* root = std::strchr(text, '\n');
    if (root == nullptr || std::strlen(root + 1) >= sizeof record.root ||
        std::sscanf(text, "%d %llu", &record.keeper, &record.startTime) != 2 ||
        record.keeper <= 0) {
        errno = EINVAL;
        return -1;
    }
    std::strcpy(record.root, root + 1);
    return 0;
}

void ns_record_remove(nsid_t ns)
{
    const znc::ErrnoSaver keep;
    char path[64];
    record_path(ns, path);
    ::unlink(path);
}

UniqueFd ns_record_keeper(const NsRecord& record)
{
    // Once the descriptor is open it stands for one process for ever; the start time then tells
    // whether that one is the keeper.
    UniqueFd pidfd = process_open(record.keeper);
    const unsigned long long startTime = pidfd ? process_start_time(record.keeper) : 0;
    if (startTime == 0) {
        if (errno == ENOENT) // no such file for a process that is gone
            errno = ESRCH;
        return UniqueFd();
    }
    if (startTime != record.startTime || process_ended(pidfd.get(), 0)) {
        errno = ESRCH;
        return UniqueFd();
    }
    return pidfd;
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
    while (const dirent* entry = ::readdir(dir.get())) {
        nsid_t ns = -1;
        char rest = 0;
        if (std::sscanf(entry->d_name, "%d%c", &ns, &rest) == 1 && ns >= 0)
            visit(ns, context);
    }
    return true;
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
