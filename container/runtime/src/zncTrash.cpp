// zncTrash.cpp - see zncTrash.hpp. State is global because one thread of the process empties the
// trash, while any thread may add to it.
#include "zncTrash.hpp"

#include "base/directory.hpp"
#include "base/mutex_hold.hpp"

#include "zncOwned.hpp"
#include "zncPath.hpp"
#include "zncTreeDelete.hpp"
#include "zncWorkAhead.hpp"

#include "zarnel/path_trust.h"
#include "zarnel/task.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kTrash[] = ".trash";
constexpr mode_t kTrashMode = 0700;
constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kBaseFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kNameTries = 16;
constexpr int kSmallEntries = 256;
constexpr int kSmallDepth = 16;
constexpr long long kSmallBlocks = 64LL * 1024 * 1024 / 512; // st_blocks counts in 512 bytes
constexpr long kNsPerMillisecond = 1000000;

// `emptying`: a thread empties the trash. `more`: something was added, so that this thread must
// start again.
std::atomic<bool> emptying{false};
std::atomic<bool> more{false};
std::atomic<bool> unfinished{false}; // there were no descriptors or memory to delete everything
std::atomic<unsigned> names{0};

// The storage base whose trash is emptied, read from the environment by the caller of
// trash_empty(): the background thread must not read the environment, because other threads may
// change it.
pthread_mutex_t base_lock = PTHREAD_MUTEX_INITIALIZER;
char base_to_empty[1024];

// How much of a tree is_small() may still examine.
struct Budget {
    int entries;
    long long blocks;
};

bool is_small(int dir, int depth, Budget* budget)
{
    if (depth == 0)
        return false;
    const znc::UniqueDir list = znc::directory_listing(dir);
    if (list == nullptr)
        return false;
    while (const struct dirent* entry = znc::next_entry(list.get())) {
        struct stat st;
        if (::fstatat(::dirfd(list.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        budget->blocks -= st.st_blocks;
        if (--budget->entries < 0 || budget->blocks < 0)
            return false;
        if (!S_ISDIR(st.st_mode))
            continue;
        const znc::UniqueFd child(::openat(::dirfd(list.get()), entry->d_name, kDirFlags));
        if (!child || !is_small(child.get(), depth - 1, budget))
            return false;
    }
    return errno == 0;
}

// Called when a part of the trash could not be deleted. For lack of descriptors or memory it can be
// tried again; otherwise it stays for the next daemon.
void note_failure()
{
    if (errno == EMFILE || errno == ENFILE || errno == ENOMEM)
        unfinished = true;
}

// The path of the storage base; false if other users can modify it, so that nothing may be deleted
// there.
bool base_path(char (&path)[1024])
{
    const std::size_t len = znc::base_path_text(path, sizeof path, ZNC_LAYER_PATH);
    if (len == 0)
        return false;
    *std::strrchr(path, '/') = '\0'; // remove "/layers"
    return znPathTrusted(path, nullptr) == OK;
}

// Opens the trash. Refuses a directory of another user and a symbolic link.
znc::UniqueFd open_trash(const char* base_name, bool make)
{
    const znc::UniqueFd base(::open(base_name, kBaseFlags));
    if (!base || (make && ::mkdirat(base.get(), kTrash, kTrashMode) != 0 && errno != EEXIST))
        return {};
    znc::UniqueFd trash(::openat(base.get(), kTrash, kDirFlags));
    struct stat st;
    if (!trash || ::fstat(trash.get(), &st) != 0)
        return {};
    if (st.st_uid == ::geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0)
        return trash;
    errno = EPERM;
    return {};
}

// Tries to delete each entry once.
void delete_all(const char* base_name)
{
    const znc::UniqueDir list = znc::directory_stream(open_trash(base_name, false));
    if (list == nullptr)
        return note_failure();
    while (const struct dirent* entry = znc::next_entry(list.get())) {
        char path[1024 + sizeof kTrash + 256 + 2];
        std::snprintf(path, sizeof path, "%s/%s/%s", base_name, kTrash, entry->d_name);
        if (znc::delete_foreign_tree(path) != OK)
            note_failure();
    }
    note_failure(); // errno is 0 at the end of the list
    const znc::UniqueFd base(::open(base_name, kBaseFlags));
    // This fails, and the trash stays, if an entry could not be deleted.
    if (!base || ::unlinkat(base.get(), kTrash, AT_REMOVEDIR) != 0)
        note_failure();
}

void* empty_main(void* /*unused*/)
{
    znTaskBackgroundSet();
    char base[sizeof base_to_empty];
    for (;;) {
        while (more.exchange(false)) {
            {
                const znc::MutexHold hold(base_lock);
                std::memcpy(base, base_to_empty, sizeof base);
            }
            delete_all(base);
        }
        emptying = false;
        // Between the last check of `more` and the line above, trash_empty() may have set `more`
        // without starting a thread, because this one was still running.
        if (!more || emptying.exchange(true))
            return nullptr;
    }
}

// Starts the thread detached: it ends with the process, and the next process continues.
bool start_emptying()
{
    pthread_t task;
    if (!znc::start_task(&task, empty_main, nullptr))
        return false;
    ::pthread_detach(task);
    return true;
}

} // namespace

bool znc::is_small_tree(const char* dir)
{
    const ErrnoSaver keep;
    const UniqueFd top(::open(dir, kDirFlags));
    Budget budget = {kSmallEntries, kSmallBlocks};
    return top && is_small(top.get(), kSmallDepth, &budget);
}

STATUS znc::trash_take(const char* path)
{
    char base[1024];
    if (!base_path(base))
        return ERROR;
    for (int n = 0; n < kNameTries; n++) {
        const UniqueFd trash = open_trash(base, true);
        if (!trash)
            return ERROR;
        struct timespec now;
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        char name[96];
        std::snprintf(name, sizeof name, "%lld.%09ld-%ld-%u", static_cast<long long>(now.tv_sec),
                      now.tv_nsec, static_cast<long>(::getpid()), names++);
        if (::renameat(AT_FDCWD, path, trash.get(), name) == 0)
            return OK;
        // ENOENT also if the trash itself has just been removed because it was empty.
        struct stat st;
        const int why = errno;
        const bool again =
            why == EEXIST || why == ENOTEMPTY || (why == ENOENT && ::lstat(path, &st) == 0);
        errno = why;
        if (!again)
            return ERROR;
    }
    return ERROR;
}

void znc::trash_empty()
{
    const ErrnoSaver keep;
    char base[sizeof base_to_empty];
    if (!base_path(base))
        return note_failure();
    {
        const MutexHold hold(base_lock);
        std::memcpy(base_to_empty, base, sizeof base);
    }
    unfinished = false;
    more = true;
    if (!emptying.exchange(true) && !start_emptying()) {
        unfinished = true;
        emptying = false;
    }
}

void znc::trash_retry()
{
    if (unfinished)
        trash_empty();
}

bool znc::trash_settled(int milliseconds)
{
    const ErrnoSaver keep;
    const struct timespec pause = {0, kNsPerMillisecond};
    for (int n = 0; emptying && n < milliseconds; n++)
        ::nanosleep(&pause, nullptr);
    return !emptying;
}
