// watch.cpp - changes in a directory, by inotify.
#include "zarnel/watch.h"

#include "base/owned.hpp"
#include "zarnel/fs.h"

#include <array>
#include <sys/inotify.h>
#include <unistd.h>

int znWatchOpen(int dirFd)
{
    std::array<char, 64> path{};
    znDescriptorPath(dirFd, path.data(), path.size());
    znc::UniqueFd watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!watch || ::inotify_add_watch(watch.get(), path.data(),
                                      IN_CREATE | IN_MODIFY | IN_MOVED_TO | IN_ONLYDIR) < 0)
        return -1;
    return watch.release();
}

void znWatchClear(int watchFd)
{
    const znc::ErrnoSaver keep;
    // Large enough for any single entry; if the queue of the kernel has overflown, that is an entry
    // as well.
    alignas(inotify_event) std::array<char, 4096> entries{};
    while (::read(watchFd, entries.data(), entries.size()) > 0) {
    }
}
