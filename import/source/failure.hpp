// failure.hpp - the exception that all errors of an import throw, with the cause. main() turns it
// into a one-line message and an exit status; destructors clean up.
#ifndef ZNC_IMPORT_SOURCE_FAILURE_HPP
#define ZNC_IMPORT_SOURCE_FAILURE_HPP

#include "front/output.hpp"

#include <stdexcept>
#include <string>

namespace zncimport {

class Failure : public std::runtime_error {
  public:
    // `object` is the file, member or blob concerned, "" for none.
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
