// engine_join.hpp - joins the existing namespaces of a configuration while the first process of a
// container is created, so that it is created in them.
#ifndef ZN_ENGINE_JOIN_HPP
#define ZN_ENGINE_JOIN_HPP

#include "engine_reason.hpp"
#include "engine_settings.hpp"
#include "launch.hpp"

#include <span>

namespace zn {

// Joins the namespaces; the time namespace applies only to children. The PID namespace is joined by
// the helper.
//
// A caller without the rights of the host could not return to namespaces of the host, so that the
// child joins in its place, except for the time namespace, which only a process with memory of its
// own may join.
class JoinedNamespaces {
  public:
    // 0, or an error number with the reason said.
    int enter(const EngineSettings& settings, Reason& reason);
    // Those that the child joins.
    [[nodiscard]] std::span<const LaunchNamespace> left_to_child() const { return later_.all(); }
    // Returns to the namespaces that this process had. 0 or an error number.
    int leave();

  private:
    int enter_one(const char* path, const char* file, unsigned long flag);
    int leave_to_child(const char* path, unsigned long flag);

    struct Left {
        znc::UniqueFd own;
        unsigned long flag = 0;
    };
    List<Left> left_;
    List<znc::UniqueFd> opened_;
    List<LaunchNamespace> later_;
};

// The subset of `flags` whose namespaces of the process differ, or may differ, from those of this
// one. Without the rights of root of the host, setns() into a namespace of the host fails even for
// its members.
unsigned long namespaces_to_join(pid_t pid, unsigned long flags);

} // namespace zn

#endif
