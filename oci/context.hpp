// context.hpp - what all commands of zncrun share: the options before the command, and how commands
// fail.
#ifndef ZNC_OCI_CONTEXT_HPP
#define ZNC_OCI_CONTEXT_HPP

#include "front/command.hpp"

#include <stdexcept>
#include <string>

namespace zncrun {

using zncctl::Arguments;

// The version of the runtime specification that is implemented.
inline constexpr char kSpecification[] = "1.2.0";

#ifndef ZNC_ENGINE_ROOT // an option of the build
#define ZNC_ENGINE_ROOT "/run/zncrun"
#endif
inline constexpr char kDefaultRoot[] = ZNC_ENGINE_ROOT;

// That, or "zncrun" in XDG_RUNTIME_DIR if the caller is not root of the host.
std::string default_root();

inline constexpr int kExecFailed = 255; // exit status of exec if the program was not started

// The options before the command.
struct Context {
    std::string root = default_root(); // of the state directories
    std::string log;                   // file; "": none
    bool log_json = false;
    bool debug = false;
    bool systemd = false; // control groups by systemd
    bool groups = true;   // containers have control groups
};

// Exception for a failed command; the message goes to the log and to standard error.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Each runs one command and returns the exit status.
int run_create(const Context& context, const Arguments& args);
int run_start(const Context& context, const Arguments& args);
int run_run(const Context& context, const Arguments& args);
int run_exec(const Context& context, const Arguments& args);
int run_state(const Context& context, const Arguments& args);
int run_kill(const Context& context, const Arguments& args);
int run_delete(const Context& context, const Arguments& args);
int run_pause(const Context& context, const Arguments& args);
int run_resume(const Context& context, const Arguments& args);
int run_update(const Context& context, const Arguments& args);
int run_ps(const Context& context, const Arguments& args);
int run_events(const Context& context, const Arguments& args);
int run_list(const Context& context, const Arguments& args);
int run_features(const Context& context, const Arguments& args);
int run_spec(const Context& context, const Arguments& args);

} // namespace zncrun

#endif
