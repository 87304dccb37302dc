// bundle.hpp - the parts of config.json that zncrun reads itself: root, mounts, process, hooks. The
// platform reads the rest. Used by create, run and exec.
#ifndef ZNC_OCI_BUNDLE_HPP
#define ZNC_OCI_BUNDLE_HPP

#include "state.hpp"

#include <deque>
#include <initializer_list>

namespace zncrun {

// A NULL-terminated list of strings, as the platform expects it.
class TextList {
  public:
    void add(const std::string& text);
    [[nodiscard]] char* const* get() const { return pointers_.data(); }
    [[nodiscard]] std::size_t size() const { return texts_.size(); }
    [[nodiscard]] const std::deque<std::string>& texts() const { return texts_; }

  private:
    std::deque<std::string> texts_;
    std::vector<char*> pointers_ = {nullptr};
};

// How many sockets from descriptor 3 up a service manager has opened for the program (LISTEN_FDS).
int listening_descriptors();

// A member "process".
struct Process {
    std::string cwd;
    TextList args;
    TextList env;
    bool terminal = false;
    unsigned rows = 0;
    unsigned columns = 0;

    // Fails if a member is missing or has the wrong type.
    static Process read(const Json& process);
    [[nodiscard]] bool has_variable(const std::string& name) const;
    // Adds what the program expects in its environment: HOME, from the passwd file of the tree
    // `rootfs`, and the descriptors that a service manager has opened.
    void complete_environment(const Json& process, const std::string& rootfs);
    [[nodiscard]] ZN_ENGINE_PROGRAM program(int console, int descriptors) const;
};

// Removes unknown capabilities, which a newer engine may name, from a "process" object, since they
// cannot be granted. Returns their names.
std::vector<std::string> drop_unknown_capabilities(Json& process);

class Bundle {
  public:
    // Reads DIRECTORY/config.json, or `config`.
    Bundle(const std::string& directory, const std::string& config);

    [[nodiscard]] const std::string& directory() const { return directory_; }
    [[nodiscard]] const std::string& document() const { return document_; }
    [[nodiscard]] const Json& config() const { return config_; }
    [[nodiscard]] const std::vector<std::string>& unknown_capabilities() const { return unknown_; }
    [[nodiscard]] const std::string& rootfs() const { return rootfs_; }
    [[nodiscard]] const Process& process() const { return process_; }
    [[nodiscard]] Json annotations() const;

    // Gives the container a further bind mount, after all others, and a variable.
    void add_bind(const std::string& source, const std::string& destination,
                  std::initializer_list<const char*> flags);
    void add_variable(const std::string& text) { process_.env.add(text); }

    // linux.cgroupsPath; "" without it.
    [[nodiscard]] std::string group_path() const;
    // The path of the control group: that of the configuration, or a group `name`.
    [[nodiscard]] std::string group(const std::string& name) const;

    [[nodiscard]] ZN_ENGINE_PLAN plan(const std::string& group, int directory, int console,
                                      int descriptors) const;

  private:
    struct Mount {
        std::string source;
        std::string destination;
        std::string type;
        TextList options;
        std::vector<ZN_ENGINE_IDS> uids;
        std::vector<ZN_ENGINE_IDS> gids;
    };
    void read_root();
    void read_mounts();
    void check_annotations() const;
    void add_to_table(const Mount& mount);
    [[nodiscard]] std::string absolute(const std::string& path) const;

    std::string directory_;
    std::string document_;
    Json config_;
    std::vector<std::string> unknown_;
    std::string rootfs_;
    std::string domain_;
    Process process_;
    std::deque<Mount> mounts_;
    std::vector<ZN_ENGINE_MOUNT> table_;
};

} // namespace zncrun

#endif
