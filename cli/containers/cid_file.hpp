// cid_file.hpp - the file that --cidfile names, which receives the id of a new container. Used by
// run and create.
#ifndef ZNC_CLI_CONTAINERS_CID_FILE_HPP
#define ZNC_CLI_CONTAINERS_CID_FILE_HPP

#include "front/command.hpp"

#include "base/not_copied.hpp"
#include "base/owned.hpp"

namespace zncctl {

// The file is created before the container, so that no container is made without it. It is removed
// again unless write() is called.
class CidFile : znc::NotCopied {
  public:
    // Throws std::runtime_error if the file exists, also as a link, or cannot be created.
    explicit CidFile(const Arguments& args);
    ~CidFile();

    // False with errno set. Does nothing without the option.
    bool write(const std::string& id);

  private:
    std::string path_;
    znc::UniqueFd file_;
    bool written_ = false;
};

} // namespace zncctl

#endif
