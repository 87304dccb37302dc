// named_lock.hpp - a lock that is a file, there only while somebody has it. Other users cannot open
// it: whoever can open a file or a directory for reading can lock it, and keep it locked for ever.
#ifndef ZNC_FRONT_NAMED_LOCK_HPP
#define ZNC_FRONT_NAMED_LOCK_HPP

#include <chrono>
#include <string>
#include <string_view>

#include "base/owned.hpp"

namespace zncctl {

class NamedLock {
  public:
    NamedLock() = default;
    NamedLock(const NamedLock&) = delete;
    NamedLock& operator=(const NamedLock&) = delete;
    ~NamedLock() { release(); }

    static constexpr std::chrono::seconds kForever = std::chrono::seconds::max();

    // Waits until nobody else has it. After a second `waiting` is said, once; an interrupt ends the
    // wait. False with errno set when the file cannot be made or locked, ETIMEDOUT when somebody
    // has had it for `most`.
    bool take(const std::string& path, std::string_view waiting,
              std::chrono::seconds most = kForever);
    // The same, together with others that share it.
    bool share(const std::string& path, std::string_view waiting);
    // Takes it without waiting; false with EWOULDBLOCK while somebody has it.
    bool try_take(const std::string& path);

    // Lets go, and removes the file unless others share it. Does not change errno.
    void release();

  private:
    bool hold(const std::string& path, int kind, const std::string_view* waiting,
              std::chrono::seconds most);

    std::string path_;
    znc::UniqueFd file_;
};

} // namespace zncctl

#endif
