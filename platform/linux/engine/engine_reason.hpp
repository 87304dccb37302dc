// engine_reason.hpp - writes the error message of a function of zarnel/engine.h. Used by the files
// of this folder.
#ifndef ZN_ENGINE_REASON_HPP
#define ZN_ENGINE_REASON_HPP

#include "helper/wire.hpp"
#include "settings/settings_reader.hpp"

#include <cstddef>

namespace zn {

class Reason {
  public:
    Reason(char* text, std::size_t size) : text_(text), size_(size) {}

    // Each function returns `error`. It writes a message unless `error` is 0 or a message was
    // written before.
    int say(int error, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // "FORMAT: message of the error".
    int say_errno(int error, const char* format, ...) __attribute__((format(printf, 3, 4)));
    int say_fault(int error, const SettingsFault& fault);
    // How the container's first process, a child of this one, has ended: by a signal, for example
    // because its memory limit is too low, or with a status. If it has not, as say_errno().
    int say_first(int error, int pidfd);
    // In the form that engines expect: exec: "sh": executable file not found in $PATH.
    int say_program(int error, wire::SpawnReport::Kind kind, const char* program,
                    const char* directory);

  private:
    char* text_;
    std::size_t size_;
    bool given_ = false;
};

} // namespace zn

#endif
