// host_objects.hpp - things of the host that a container must neither see nor change: a directory,
// queues, System V objects and a key in root's key ring. Made for a test and taken away after it.
#ifndef HOST_OBJECTS_HPP
#define HOST_OBJECTS_HPP

#include <string>
#include <vector>

class HostObjects {
  public:
    // Everything of one name; the directory is /tmp/`name`.
    explicit HostObjects(const std::string& name);
    ~HostObjects();
    HostObjects(const HostObjects&) = delete;
    HostObjects& operator=(const HostObjects&) = delete;

    [[nodiscard]] const std::string& directory() const { return directory_; }
    [[nodiscard]] std::string secret() const { return directory_ + "/secret"; }

    // The probe's variables that name these objects.
    [[nodiscard]] std::vector<std::string> variables() const;

    // Empty if everything is as it was made, else what is not.
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
    std::string before_;
};

// A directory tree as text: names, types, modes, owners, link counts, times and contents.
std::string tree_text(const std::string& directory);

#endif
