// zncStoreLock.hpp - the lock of a storage base. An unpack holds it shared, from before it first
// looks at a layer until its bundle is recorded; a collection of unused directories holds it
// exclusively.
//
// These are open file description locks (F_OFD_SETLK: Linux 3.15, POSIX.1-2024). They belong to the
// open file, not to the process: they also exclude two threads of one process, and the kernel
// releases them when the process ends, however it ends. Temporary directories that a holder of the
// exclusive lock finds were therefore left by processes that died.
#ifndef ZNCSTORELOCK_HPP
#define ZNCSTORELOCK_HPP

#include "base/not_copied.hpp"
#include "zncOwned.hpp"
#include "zncStoreRecord.hpp"
#include "zncontainer.h"

#include <string_view>

namespace znc {

class StoreLock : znc::NotCopied {
  public:
    ~StoreLock() { release(); }

    // Takes the lock shared, unless this object has it already, and creates the base directory if
    // it is missing. If no other process has the lock, also deletes the leftovers of processes that
    // died. EBUSY: another process held it exclusively for 10 seconds.
    STATUS take(std::string_view base);
    // Takes the lock exclusively. ENOENT if the base does not exist; EBUSY, without waiting, if the
    // lock is held at all.
    STATUS take_alone(std::string_view base);
    void release() noexcept;

    // Converts an exclusive lock into a shared one.
    STATUS share() noexcept;

  private:
    enum class Want { kShared, kExclusive };
    STATUS open_locked(Want want);
    STATUS wait_shared(int fd) noexcept;
    STATUS make_and_open(std::string_view base);

    PathText path_;
    UniqueFd fd_;
    bool exclusive_ = false;
};

} // namespace znc

#endif
