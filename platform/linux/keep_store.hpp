// keep_store.hpp - holds descriptors beyond the end of this process: in the service manager, or in
// a process (keep_process.hpp). Used by ns_keep, under its lock.
//
// A socket is known by its cookie, a number that the kernel gives to one socket only until the next
// boot. So what comes back from a store is what was put there, or is not used.
#ifndef ZN_KEEP_STORE_HPP
#define ZN_KEEP_STORE_HPP

#include "base/list.hpp"
#include "keep_process.hpp"
#include "zarnel/ns_keep.h"

#include <cstdint>

namespace zn {

// 0 with errno set if `descriptor` is not a socket.
std::uint64_t socket_cookie(int descriptor);

class KeepStore {
  public:
    // Finds what earlier owners stored, also what is held by a process while a manager is given.
    // 0 or an error number.
    int find(const znKeepManager* manager);
    // To be called after find: prepares storing. 0 or an error number.
    int prepare();

    // Stores a copy of a socket. 0 or an error number.
    int put(int descriptor);
    void drop(std::uint64_t cookie);

    // A socket that an earlier owner stored, which stays stored; invalid with ESRCH.
    znc::UniqueFd take(std::uint64_t cookie);
    // Drops everything that earlier owners stored and that was not taken. Returns whether there was
    // any.
    bool drop_rest();

    // Whether the process that stores has ended, so that all must be put again.
    [[nodiscard]] bool is_lost() const;
    // Starts another process, which stores nothing yet. 0 or an error number.
    int reopen();
    // Drops everything.
    void end();

  private:
    struct Held { // by an earlier owner; not taken yet
        znc::UniqueFd descriptor;
        std::uint64_t cookie;
        int number; // in the process; kByManager
    };
    struct Place {
        std::uint64_t cookie;
        int number;
    };
    static constexpr int kByManager = -1;
    static constexpr std::uint64_t kNoCookie = 0; // of an unused place

    int add_held(znc::UniqueFd descriptor, int number);
    int add_place(std::uint64_t cookie, int number);
    Place* place_of(std::uint64_t cookie);
    void drop_at(const Place& place);
    [[nodiscard]] bool has_manager() const { return store_ != nullptr; }

    STATUS (*store_)(const char* name, int descriptor) = nullptr;
    void (*drop_)(const char* name) = nullptr;
    KeepProcess process_;
    znc::List<Held> held_;
    znc::List<Place> places_; // of what is stored
};

} // namespace zn

#endif
