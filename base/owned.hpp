// owned.hpp - owning types for POSIX resources: descriptors, directory streams, malloc'd memory.
// Releasing a resource preserves errno, so an early return keeps the error of the failure. In
// parameters, an int is a descriptor that is not owned; a UniqueFd by value takes ownership.
//
// Used by the library, the platform and the programs. Queues and mutexes have types of their own in
// the modules that use them.
#ifndef ZNC_BASE_OWNED_HPP
#define ZNC_BASE_OWNED_HPP

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace znc {

// Preserves errno in cleanup code.
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

    // Closes the descriptor and returns the result of close(), which may report a delayed write
    // error.
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

// Allocates a zeroed object or array; null with errno ENOMEM on failure.
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
