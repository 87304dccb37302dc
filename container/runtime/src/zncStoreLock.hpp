// zncStoreLock.hpp - the lock of a storage base. Who unpacks into the store holds it shared, from
// before its first look at a layer until its bundle is recorded; who collects what is not used
// holds it exclusively. The locks belong to the open file, not to the process (F_OFD_SETLK of
// POSIX.1-2024), so they also hold between tasks of one process, and they end with their holder,
// however it ends. Whoever gets it exclusively knows that what is half made belongs to the dead.
#ifndef ZNCSTORELOCK_HPP
#define ZNCSTORELOCK_HPP

#include "zncOwned.hpp"
#include "zncStoreRecord.hpp"
#include "zncontainer.h"

#include <string_view>

namespace znc {

class StoreLock {
  public:
    StoreLock() = default;
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;
    ~StoreLock() { release(); }

    // Takes the lock shared, in a base that is made if need be, unless it is held already; removes
    // what the dead left. EBUSY: somebody holds it exclusively for many seconds.
    STATUS take(std::string_view base);
    // Takes it exclusively, in a base that is there. EBUSY at once when anybody else holds it.
    STATUS take_alone(std::string_view base);
    void release() noexcept;

    // From exclusive to shared.
    STATUS share() noexcept;

  private:
    enum class Want { kShared, kAlone };
    STATUS open_locked(Want want);
    STATUS wait_shared(int fd) noexcept;
    STATUS make_and_open(std::string_view base);

    PathText path_;
    UniqueFd fd_;
    bool alone_ = false;
};

} // namespace znc

#endif
