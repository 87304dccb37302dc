#include "output_file.hpp"

#include "front/files.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
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
    if (exists && !S_ISREG(st.st_mode)) // also a symbolic link, which is followed and kept
        file_.reset(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    else
        open_new(exists ? st.st_mode & 0777U : usual_mode());
    if (!file_)
        throw_error(path_);
}

// Nothing is left of a file without a name if zncctl is killed. Not all file systems have such
// files.
void OutputFile::open_new(mode_t mode)
{
    const std::string directory = std::filesystem::path(path_).parent_path();
    file_.reset(::open(directory.empty() ? "." : directory.c_str(),
                       O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
    has_no_name_ = file_.get() >= 0;
    if (!has_no_name_) {
        temporary_ = path_ + ".XXXXXX";
        file_.reset(::mkostemp(temporary_.data(), O_CLOEXEC));
        if (!file_)
            temporary_.clear();
    }
    if (file_ && ::fchmod(file_.get(), mode) != 0) {
        const znc::ErrnoSaver keep;
        file_.reset();
        if (!temporary_.empty())
            ::unlink(temporary_.c_str());
    }
}

// linkat() does not replace a file: the new one gets another name first. Without
// CAP_DAC_READ_SEARCH, a file without a name can be linked by its name in /dev/fd only.
bool OutputFile::give_name()
{
    constexpr int kNames = 100;
    const std::string file = fmt::format("/dev/fd/{}", file_.get());
    for (int number = 0; number < kNames; number++) {
        std::string name = fmt::format("{}.{}-{}", path_, ::getpid(), number);
        if (::linkat(file_.get(), "", AT_FDCWD, name.c_str(), AT_EMPTY_PATH) == 0 ||
            ::linkat(AT_FDCWD, file.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            temporary_ = std::move(name);
            return true;
        }
        if (errno != EEXIST)
            return false;
    }
    return false;
}

OutputFile::~OutputFile()
{
    const znc::ErrnoSaver keep;
    if (!temporary_.empty())
        ::unlink(temporary_.c_str());
}

void OutputFile::finish()
{
    if ((has_no_name_ && !give_name()) || file_.close_checked() != 0)
        throw_error(path_);
    if (!temporary_.empty() && ::rename(temporary_.c_str(), path_.c_str()) != 0)
        throw_error(path_);
    temporary_.clear();
}

} // namespace zncctl
