// engine_creation.hpp - a container of an engine that is being created. Shared by engine.cpp,
// engine_root.cpp, engine_rootless.cpp and engine_second.cpp.
#ifndef ZN_ENGINE_CREATION_HPP
#define ZN_ENGINE_CREATION_HPP

#include "base/not_copied.hpp"
#include "base/owned.hpp"
#include "engine_mount.hpp"
#include "engine_reason.hpp"
#include "engine_settings.hpp"
#include "engine_user.hpp"
#include "keeper_link.hpp"
#include "launch.hpp"
#include "zarnel/engine.h"

#include <array>
#include <initializer_list>
#include <span>

namespace zn {

// Milliseconds until the first process must have answered: copies of mounts can take long under
// load.
inline constexpr int kAnswerWait = 20000;
inline constexpr int kSettleWait = 60000; // for all requests that were posted

inline wire::Request request_of(wire::Op op)
{
    wire::Request request = {};
    request.op = op;
    return request;
}

// A container that is being created. Unless it is kept, its process and group are removed.
class Creation : znc::NotCopied {
  public:
    Creation(const ZN_ENGINE_PLAN& plan, Reason& reason) : plan_(plan), reason_(reason) {}
    ~Creation();

    int run();
    // Returns the descriptor that keeps the container alive.
    int keep(ZN_ENGINE_PROCESS& process);

  private:
    int check_names();
    int make_group();
    int finish_group(int error, const char* field);
    int place(pid_t pid, int socket);
    int open_pid_namespace();
    // The descriptors that connect a process of the container with this one. The reading end of the
    // pipe is report_.
    struct Channels {
        znc::UniqueFd ours; // requests and replies
        znc::UniqueFd theirs;
        znc::UniqueFd report; // pipe for the report of a failed start
    };
    // Creates the control group, the first process, and the one that makes its root if there is
    // one.
    int make_processes();
    int launch();
    int open_channels(Channels& channels);
    int launch_with(const znc::UniqueFd& file, const znc::UniqueFd& record,
                    const znc::UniqueFd& start, std::span<const LaunchNamespace> joined);
    int adopt_created(pid_t pid, znc::UniqueFd pidfd, znc::UniqueFd socket, Keeper& process);
    int launch_maker();
    int enter_own_mounts();
    int set_limits();
    // What a posted request was for: a mount, the path of a device or link, or a field.
    struct Posted {
        const ZN_ENGINE_MOUNT* mount = nullptr;
        const char* path = nullptr;
        const char* field = nullptr;
    };
    // The process that makes the root: with a user namespace, one that has the rights of the host.
    Keeper& maker() { return user_ ? maker_ : first_; }
    int ask(wire::Request request, std::initializer_list<const char*> texts = {},
            int descriptor = -1, std::uint64_t* value = nullptr);
    int ask(Keeper& process, wire::Request request, std::initializer_list<const char*> texts = {},
            int descriptor = -1, std::uint64_t* value = nullptr);
    // Like ask(), but do not wait, unless rootless, where a failed request may be made in another
    // way. settle() waits until all of these are done and says which one has failed.
    int post(wire::Request request, std::initializer_list<const char*> texts, int descriptor,
             const Posted& posted);
    int post(const wire::Request& request, std::span<const char> text, int descriptor,
             const Posted& posted);
    int settle();
    int explain(int error);
    int explain(int error, const Keeper& process);
    int pivot();
    [[nodiscard]] std::uint64_t shared_propagation() const;
    int run_hooks();
    int mount_all();
    int choose_owners(const ZN_ENGINE_MOUNT& mount, EngineMount& wanted, znc::UniqueFd& own);
    bool label(EngineMount& wanted) const;
    int mount_one(const ZN_ENGINE_MOUNT& mount);
    int attach(int made, const char* destination, const ZN_ENGINE_MOUNT& mount);
    int mount_inner(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted);
    int say_mount(int error, const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted);
    int say_posted(int error, const Posted& posted);
    int bind_of_host(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted);
    int drop_unmapped_group(EngineMount& wanted) const;
    int mount_cgroup(const ZN_ENGINE_MOUNT& mount, const EngineMount& wanted);
    int bind_device(const char* path, const wire::Node& node);
    int make_device(const Device& device);
    int make_devices();
    int make_terminal();
    int set_parameters();
    int make_read_only(const char* path, std::uint64_t value, const char* field);
    int restrict_paths(wire::Op op, const List<Text>& paths, const char* field);
    int find_program(Keeper& process);

    const ZN_ENGINE_PLAN& plan_;
    Reason& reason_;
    EngineSettings settings_;
    znc::UniqueFd root_;
    bool devReadOnly_ = false;   // /dev becomes read-only when all is in it
    znc::UniqueFd pidNamespace_; // to be joined; invalid: none
    znc::UniqueFd report_;
    znc::UniqueFd control_; // a second descriptor of the socket, for keep()
    EngineUser user_;
    Keeper first_;
    Keeper maker_;
    std::array<Posted, 32> posted_; // since the last settle()
    std::size_t postedCount_ = 0;
    // Whether this process has only the rights of root in a user namespace.
    bool rootless_ = false;
    bool hasGroup_ = false;
    bool kept_ = false;
};

} // namespace zn

#endif
