#include "output_file.hpp"

#include "front/files.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zncctl {
namespace {

// The permission bits that a new file gets.
mode_t usual_mode()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666U & ~mask;
}

} // namespace

OutputFile::OutputFile(std::string path) : path_(std::move(path))
{
    struct stat st = {};
    const bool exists = ::lstat(path_.c_str(), &st) == 0;
    if (exists && !S_ISREG(st.st_mode)) { // also a symbolic link, which is followed and kept
        file_.reset(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    } else {
        temporary_ = path_ + ".XXXXXX";
        file_.reset(::mkostemp(temporary_.data(), O_CLOEXEC));
        if (!file_)
            temporary_.clear();
    }
    if (!file_ || (!temporary_.empty() &&
                   ::fchmod(file_.get(), exists ? st.st_mode & 0777U : usual_mode()) != 0))
        throw_error(path_);
}

OutputFile::~OutputFile()
{
    const znc::ErrnoSaver keep;
    if (!temporary_.empty())
        ::unlink(temporary_.c_str());
}

void OutputFile::finish()
{
    if (file_.close_checked() != 0)
        throw_error(path_);
    if (!temporary_.empty() && ::rename(temporary_.c_str(), path_.c_str()) != 0)
        throw_error(path_);
    temporary_.clear();
}

} // namespace zncctl
