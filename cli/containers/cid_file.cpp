#include "cid_file.hpp"

#include "front/files.hpp"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdexcept>

namespace zncctl {

CidFile::CidFile(const Arguments& args) : path_(args.value("cidfile", ""))
{
    if (!args.has("cidfile"))
        return;
    file_.reset(::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file_ && errno == EEXIST)
        throw std::runtime_error(
            fmt::format("{}: it exists already: another container may be using it", path_));
    if (!file_)
        throw_error(path_);
}

CidFile::~CidFile()
{
    const znc::ErrnoSaver keep;
    if (file_ && !written_)
        ::unlink(path_.c_str());
}

bool CidFile::write(const std::string& id)
{
    written_ = !file_ || write_all(file_.get(), id);
    return written_;
}

} // namespace zncctl
