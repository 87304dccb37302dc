// host_objects.hpp - objects of the host that a container must neither see nor change: a directory,
// queues, System V objects, an abstract socket and a key in root's key ring. Created for a test and
// removed after it.
#ifndef HOST_OBJECTS_HPP
#define HOST_OBJECTS_HPP

#include "base/owned.hpp"

#include <string>
#include <vector>

class HostObjects {
  public:
    // All objects get names derived from `name`; the directory is /tmp/`name`.
    explicit HostObjects(const std::string& name);
    ~HostObjects();
    HostObjects(const HostObjects&) = delete;
    HostObjects& operator=(const HostObjects&) = delete;

    [[nodiscard]] const std::string& directory() const { return directory_; }
    [[nodiscard]] std::string secret() const { return directory_ + "/secret"; }

    // The environment variables that tell the probe about these objects.
    [[nodiscard]] std::vector<std::string> variables() const;

    // Returns "" if all objects are unchanged, otherwise what has changed.
    [[nodiscard]] std::string changes() const;

  private:
    [[nodiscard]] std::string state() const;

    std::string name_;
    std::string directory_;
    std::vector<std::string> queues_;
    int shm_ = -1;
    int msg_ = -1;
    int sem_ = -1;
    int key_ = 0; // of the System V objects
    long secretKey_ = -1;
    znc::UniqueFd socket_; // listens on the abstract name "probe-`name`"
    std::string before_;
};

// Describes a directory tree as text: names, types, modes, owners, link counts, times and contents.
std::string tree_text(const std::string& directory);

#endif
