// engine_join.hpp - joins the existing namespaces of a configuration while the first process of a
// container is created, so that it is created in them. Called by engine.cpp.
#ifndef ZN_ENGINE_JOIN_HPP
#define ZN_ENGINE_JOIN_HPP

#include "engine_reason.hpp"
#include "engine_settings.hpp"

namespace zn {

// Joins the namespaces; the time namespace applies only to children. The PID namespace is joined by
// the helper.
class JoinedNamespaces {
  public:
    // 0, or an error number with the reason said.
    int enter(const EngineSettings& settings, Reason& reason);
    // Returns to the namespaces that this process had. 0 or an error number.
    int leave();

  private:
    int enter_one(const char* path, const char* file, unsigned long flag);

    struct Left {
        znc::UniqueFd own;
        unsigned long flag = 0;
    };
    List<Left> left_;
};

} // namespace zn

#endif
