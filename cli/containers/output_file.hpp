// output_file.hpp - a file that the user names for a result. A regular file is replaced when it is
// complete. Used by export.
#ifndef ZNC_CLI_CONTAINERS_OUTPUT_FILE_HPP
#define ZNC_CLI_CONTAINERS_OUTPUT_FILE_HPP

#include <string>
#include <sys/types.h>

#include "base/not_copied.hpp"
#include "base/owned.hpp"

namespace zncctl {

class OutputFile : znc::NotCopied {
  public:
    // Opens the file: a new one in its directory that takes its name later, or itself if it is no
    // regular file. Throws std::runtime_error.
    explicit OutputFile(std::string path);
    ~OutputFile(); // without finish(), removes the new file

    [[nodiscard]] int fd() const { return file_.get(); }
    // Throws std::runtime_error.
    void finish();

  private:
    void open_new(mode_t mode);
    bool give_name();

    std::string path_;
    std::string temporary_; // "": none
    znc::UniqueFd file_;
    bool has_no_name_ = false; // the new file
};

} // namespace zncctl

#endif
