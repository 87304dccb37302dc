// failure.hpp - how everything in here fails: by an exception that says what and why. main() turns
// it into one line and an exit status; nothing that was begun is left, because destructors run.
#ifndef ZNC_IMPORT_SOURCE_FAILURE_HPP
#define ZNC_IMPORT_SOURCE_FAILURE_HPP

#include "front/output.hpp"

#include <stdexcept>
#include <string>

namespace zncimport {

class Failure : public std::runtime_error {
  public:
    // `object`: the file, member or blob it is about, "" for none.
    Failure(std::string object, const std::string& message,
            zncctl::ExitStatus status = zncctl::kExitFailure)
        : std::runtime_error(message), object_(std::move(object)), status_(status)
    {
    }

    [[nodiscard]] const std::string& object() const { return object_; }
    [[nodiscard]] zncctl::ExitStatus status() const { return status_; }

  private:
    std::string object_;
    zncctl::ExitStatus status_;
};

} // namespace zncimport

#endif
