#include "tar_fixture.hpp"

#include <fcntl.h>
#include <sys/stat.h>

TarFaults tarFaults;

namespace fs = std::filesystem;

extern "C" {
ssize_t __real_write(int fd, const void* buf, size_t n);
ssize_t __real_read(int fd, void* buf, size_t n);
int __real_clock_gettime(clockid_t clock, timespec* now);
int __real_utimensat(int dir, const char* path, const timespec times[2], int flags);
int __real_close(int fd);
int __real_fchmod(int fd, mode_t mode);
ssize_t __wrap_write(int fd, const void* buf, size_t n);
ssize_t __wrap_read(int fd, void* buf, size_t n);
int __wrap_clock_gettime(clockid_t clock, timespec* now);
int __wrap_utimensat(int dir, const char* path, const timespec times[2], int flags);
int __wrap_close(int fd);
int __wrap_fchmod(int fd, mode_t mode);
}

ssize_t __wrap_write(int fd, const void* buf, size_t n)
{
    if (tarFaults.failWrite == 0 || --tarFaults.failWrite != 0)
        return __real_write(fd, buf, n);
    if (tarFaults.partialWrite >= 0)
        return __real_write(fd, buf, static_cast<size_t>(tarFaults.partialWrite));
    errno = ENOSPC;
    return -1;
}

ssize_t __wrap_read(int fd, void* buf, size_t n)
{
    if (tarFaults.readSizes != nullptr)
        tarFaults.readSizes->push_back(n);
    if (tarFaults.failRead == 0 || --tarFaults.failRead != 0)
        return __real_read(fd, buf, n);
    errno = EIO;
    return -1;
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    if (tarFaults.failClock && clock == CLOCK_REALTIME) {
        errno = EINVAL;
        return -1;
    }
    const int rc = __real_clock_gettime(clock, now);
    if (tarFaults.nanoseconds)
        now->tv_nsec = *tarFaults.nanoseconds;
    return rc;
}

int __wrap_utimensat(int dir, const char* path, const timespec times[2], int flags)
{
    if (!tarFaults.failUtimensat)
        return __real_utimensat(dir, path, times, flags);
    errno = EPERM;
    return -1;
}

int __wrap_close(int fd)
{
    struct stat st;
    const bool directory = tarFaults.failCloseOfDirectory != 0 && fstat(fd, &st) == 0 &&
                           S_ISDIR(st.st_mode) && (fcntl(fd, F_GETFL) & O_PATH) == 0;
    const int rc = __real_close(fd);
    if (!directory || --tarFaults.failCloseOfDirectory != 0)
        return rc;
    errno = EIO;
    return -1;
}

int __wrap_fchmod(int fd, mode_t mode)
{
    struct stat st;
    if (!tarFaults.failChmodOfDirectory || fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode))
        return __real_fchmod(fd, mode);
    errno = EIO;
    return -1;
}

Tree snapshot(const std::string& root)
{
    Tree tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat st;
        EXPECT_EQ(lstat(entry.path().c_str(), &st), 0);
        Entry e = {st.st_mode, S_ISDIR(st.st_mode) ? 0 : st.st_size, st.st_mtim, {}};
        if (S_ISLNK(st.st_mode))
            e.content = fs::read_symlink(entry.path());
        else if (S_ISREG(st.st_mode))
            e.content = test_tree::read_file(entry.path());
        tree[entry.path().lexically_relative(root)] = e;
    }
    return tree;
}

std::vector<std::string> record_files(const std::string& root)
{
    std::vector<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        if (entry.path().filename().string().starts_with(".tard@#"))
            found.push_back(entry.path());
    return found;
}

TarTest::TarTest()
{
    tarFaults = {};
    fs::create_directory(target_);
    fs::create_directory(outside_);
    test_tree::write_file(outside_ + "/secret", "precious");
    fs::create_directory(outside_ + "/dir");
    for (const char* name : {"/secret", "/dir", ""}) {
        const timespec old[2] = {{1000, 0}, {2000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, (outside_ + name).c_str(), old, 0), 0);
    }
    precious_ = snapshot(outside_);
}

void TarTest::TearDown()
{
    tarFaults = {};
    EXPECT_EQ(snapshot(outside_), precious_) << "something outside the target changed";
    struct stat st;
    ASSERT_EQ(lstat(outside_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 2000);
    std::size_t entries = 0;
    for (const auto& entry : fs::directory_iterator(dir_.path()))
        entries += entry.path() != archive_ ? 1 : 0;
    EXPECT_EQ(entries, 2U) << "something was made beside the target";
    if (!mayLeaveRecordFile_) {
        EXPECT_EQ(record_files(target_), std::vector<std::string>{});
    }
}

STATUS TarTest::extract(const std::string& bytes, std::size_t bfactor)
{
    test_tree::write_file(archive_, bytes);
    const std::ptrdiff_t before = open_descriptors();
    errno = 0;
    const STATUS status = zncTarExtract(archive_.c_str(), target_.c_str(), bfactor, FALSE);
    const int error = errno;
    EXPECT_EQ(open_descriptors(), before);
    errno = error;
    return status;
}

time_t TarTest::mtime(const std::string& name) const
{
    struct stat st;
    EXPECT_EQ(lstat(at(name).c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mtim.tv_nsec, 0);
    return st.st_mtim.tv_sec;
}

bool TarTest::is_dir(const std::string& name) const
{
    struct stat st;
    return lstat(at(name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}
