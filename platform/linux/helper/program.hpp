// program.hpp - sets up a new process before it executes its program: user, capabilities, limits,
// seccomp filter (spawner.cpp). Used by the spawner and by the first process of an engine's
// container (init.cpp). Functions without a result report errors to kSpawnerReport and end the
// process.
#ifndef ZN_HELPER_PROGRAM_HPP
#define ZN_HELPER_PROGRAM_HPP

#include "sys.hpp"
#include "wire.hpp"

namespace zn {

[[noreturn]] void fail(long result);
void check(long result); // fails if the result is an error

long number(const char* text);

// The confinement in the file kSpawnerRecord, mapped read-only.
class Rules {
  public:
    Rules();
    const wire::Confinement* operator->() const { return rules_; }
    const wire::Limit* limits() const { return limits_; }
    const wire::IdRange* ranges() const { return ranges_; }
    const wire::FilterCode* filter() const { return filter_; }
    const std::uint32_t* groups() const { return groups_; }
    const char* entries() const { return entries_; }

  private:
    const wire::Confinement* rules_ = nullptr;
    const wire::Limit* limits_;
    const wire::IdRange* ranges_;
    const wire::FilterCode* filter_;
    const std::uint32_t* groups_;
    const char* entries_;
};

constexpr unsigned kGroupsMax = 256;

// The user that the program runs as.
struct Identity {
    std::uint32_t uid;
    std::uint32_t gid;
    const std::uint32_t* groups;
    unsigned groupCount;
    std::uint64_t permitted;
    std::uint64_t effective;
    std::uint64_t inheritable;
    std::uint64_t ambient;
    std::uint32_t given[kGroupsMax];
};

// `text` is "UID:GID[:GROUP]...", or "" for the user of the configuration. Another user than that
// has the capabilities of the bounding set if it is root, else none.
void choose_identity(const Rules& rules, const char* text, Identity& user);

// Sets the score for when memory is exhausted, which the program inherits. Needs the host's procfs,
// so this must be done before joining the container.
void set_out_of_memory_score(const Rules& rules);

// Chooses the security labels that the program will have. `proc` is the host's procfs: that of the
// container may be covered. EACCES: the label does not exist or must not be assigned.
void choose_labels(const Rules& rules, int proc);

void join_new_session_keyring();
void set_limits(const Rules& rules);
void drop_rights(const Rules& rules, const Identity& user);
// Whether the filter has a listener: drop_rights() reports it and waits until it has been taken.
bool filter_listens(const Rules& rules);
void default_signals();

// The host's id of a user of the container; -1 if it has none.
long host_user(const Rules& rules, std::uint32_t uid);

// Writes to an existing file. Returns a negative error number on failure.
long write_text(int directory, const char* path, const char* text);

// Makes `path`, resolved inside the directory `root`, the working directory. 0 or a negative error
// number.
long directory_enter(int root, const char* path);

} // namespace zn

#endif
