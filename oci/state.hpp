// state.hpp - the state directories: one for each container, below the root directory, named by its
// id. A directory holds state.json, a copy of config.json, and, until the container is started, the
// socket for its start. It is locked while a command changes the container. Whether a container
// runs is not stored, but determined from the kernel.
#ifndef ZNC_OCI_STATE_HPP
#define ZNC_OCI_STATE_HPP

#include "base/owned.hpp"
#include "context.hpp"
#include "front/json.hpp"
#include "zarnel/engine.h"

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zncrun {

using zncctl::Json;

enum class Status { kCreating, kCreated, kRunning, kPaused, kStopped };
const char* status_name(Status status);

struct Container {
    std::string id;
    std::string bundle;
    std::string rootfs;
    std::string created; // RFC 3339
    std::string group;
    std::string mark;               // shows whether another container has taken over the group
    std::string scope;              // the unit of systemd whose group it is; "": none
    ZN_ENGINE_PROCESS process = {}; // pid 0: none yet
    Json annotations = Json::object();
};

// The state file exists but cannot be read, so it is not known what belongs to the container.
class DamagedState : public Failure {
  public:
    using Failure::Failure;
};

// kBounded: exclusive, but fails if another command holds the lock for too long.
enum class Lock { kNone, kExclusive, kBounded };

class StateDirectory {
  public:
    // Creates and locks the directory of a new container. Fails if it exists.
    static StateDirectory create(const Context& context, const std::string& id);
    // Opens the directory of a container. Fails with "does not exist" if there is none.
    static StateDirectory open(const Context& context, const std::string& id, Lock lock);
    // The same, but returns an invalid object if there is none.
    static StateDirectory find(const Context& context, const std::string& id, Lock lock);

    explicit operator bool() const { return static_cast<bool>(directory_); }
    [[nodiscard]] int get() const { return directory_.get(); }

    // Fails if there is no state file, because `create` was killed before it wrote one.
    [[nodiscard]] Container read() const;
    [[nodiscard]] bool has_state() const;
    void write(const Container& container) const;

    [[nodiscard]] Json read_config() const;
    void write_config(const std::string& document) const;

    [[nodiscard]] Status status(const Container& container) const;

    void remove();

  private:
    StateDirectory(std::string path, znc::UniqueFd directory)
        : path_(std::move(path)), directory_(std::move(directory))
    {
    }
    static StateDirectory locked(const std::string& path, Lock lock);

    std::string path_;
    znc::UniqueFd directory_;
};

// Whether an id can be a container's: letters, digits and "_+-.".
bool is_id(const std::string& id);

// All ids that have a directory, sorted.
std::vector<std::string> state_ids(const Context& context);

// The state as the runtime specification describes it.
Json state_document(const Container& container, Status status);

} // namespace zncrun

#endif
