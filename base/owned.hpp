// owned.hpp - ownership by type for what POSIX hands out: descriptors, directory streams,
// malloc'd memory. Release never changes errno, so an early return keeps the reason of the
// failure. Parameters: an int is borrowed, a UniqueFd by value is taken.
//
// Used by the library, the platform and the front ends. Left out: anything with a kernel facility
// of its own (queues, mutexes), which its module wraps.
#ifndef ZNC_BASE_OWNED_HPP
#define ZNC_BASE_OWNED_HPP

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace znc {

// Keeps errno across clean-up code.
class ErrnoSaver {
  public:
    ErrnoSaver() noexcept : saved_(errno) {}
    ~ErrnoSaver() { errno = saved_; }
    ErrnoSaver(const ErrnoSaver&) = delete;
    ErrnoSaver& operator=(const ErrnoSaver&) = delete;

  private:
    int saved_;
};

class UniqueFd {
  public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    void reset(int fd = -1) noexcept
    {
        const int old = std::exchange(fd_, fd);
        if (old >= 0) {
            const ErrnoSaver keep;
            ::close(old);
        }
    }

    // Close and report what close said (a write that only fails now).
    [[nodiscard]] int close_checked() noexcept
    {
        const int old = release();
        return old >= 0 ? ::close(old) : 0;
    }

  private:
    int fd_ = -1;
};

struct FreeDeleter {
    void operator()(void* p) const noexcept
    {
        const ErrnoSaver keep;
        ::free(p);
    }
};
template <class T> using MallocPtr = std::unique_ptr<T, FreeDeleter>;

// A zeroed malloc'd record or array; null with errno ENOMEM when memory is short.
template <class T> MallocPtr<T> malloc_zeroed() noexcept
{
    return MallocPtr<T>(static_cast<T*>(::calloc(1, sizeof(T))));
}
template <class T> MallocPtr<T[]> malloc_array(std::size_t count) noexcept
{
    return MallocPtr<T[]>(static_cast<T*>(::calloc(count != 0 ? count : 1, sizeof(T))));
}

struct DirDeleter {
    void operator()(DIR* d) const noexcept
    {
        const ErrnoSaver keep;
        ::closedir(d);
    }
};
using UniqueDir = std::unique_ptr<DIR, DirDeleter>;

} // namespace znc

#endif
