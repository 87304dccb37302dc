// named_lock.hpp - a lock file, which exists only while the lock is held. Only its owner can open
// it: a process of another user that could open it for reading could lock it for ever.
#ifndef ZNC_FRONT_NAMED_LOCK_HPP
#define ZNC_FRONT_NAMED_LOCK_HPP

#include <chrono>
#include <string>
#include <string_view>

#include "base/not_copied.hpp"
#include "base/owned.hpp"

namespace zncctl {

class NamedLock : znc::NotCopied {
  public:
    ~NamedLock() { release(); }

    static constexpr std::chrono::seconds kForever = std::chrono::seconds::max();

    // Waits for the exclusive lock, printing the hint `waiting` once after a second. False with
    // errno set if the file cannot be created or locked; ETIMEDOUT if the lock was not free within
    // `most`.
    bool take(const std::string& path, std::string_view waiting,
              std::chrono::seconds most = kForever);
    // The same for a shared lock, without a time limit.
    bool share(const std::string& path, std::string_view waiting);
    // Takes the exclusive lock without waiting; false with EWOULDBLOCK if it is held.
    bool try_take(const std::string& path);

    // Releases the lock, and removes the file unless other processes share it. Does not change
    // errno.
    void release();

  private:
    bool hold(const std::string& path, int kind, const std::string_view* waiting,
              std::chrono::seconds most);

    std::string path_;
    znc::UniqueFd file_;
};

} // namespace zncctl

#endif
