// sys.hpp - system calls for code without a C library. Each returns the kernel's result; errors are
// negative error numbers.
#ifndef ZN_HELPER_SYS_HPP
#define ZN_HELPER_SYS_HPP

#include <asm/unistd.h>
#include <cstddef>
#include <cstdint>

namespace zn::sys {

#if defined(__x86_64__)
inline long call(long nr, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0)
{
    long result;
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(nr), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8)
                     : "rcx", "r11", "memory");
    return result;
}
#elif defined(__aarch64__)
inline long call(long nr, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0)
{
    register long x8 __asm__("x8") = nr;
    register long x0 __asm__("x0") = a;
    register long x1 __asm__("x1") = b;
    register long x2 __asm__("x2") = c;
    register long x3 __asm__("x3") = d;
    register long x4 __asm__("x4") = e;
    __asm__ volatile("svc 0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2), "r"(x3), "r"(x4) : "memory");
    return x0;
}
#else
#error "the helper knows the system calls of x86_64 and aarch64"
#endif

// Maps a file read-only. The address, or a negative error number.
inline long map_file(std::size_t length, int fd)
{
    constexpr long kRead = 1;
    constexpr long kPrivate = 2;
    const auto size = static_cast<long>(length);
#if defined(__x86_64__)
    long result;
    register long r10 __asm__("r10") = kPrivate;
    register long r8 __asm__("r8") = fd;
    register long r9 __asm__("r9") = 0;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(__NR_mmap), "D"(0), "S"(size), "d"(kRead), "r"(r10), "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
    return result;
#else
    register long x8 __asm__("x8") = __NR_mmap;
    register long x0 __asm__("x0") = 0;
    register long x1 __asm__("x1") = size;
    register long x2 __asm__("x2") = kRead;
    register long x3 __asm__("x3") = kPrivate;
    register long x4 __asm__("x4") = fd;
    register long x5 __asm__("x5") = 0;
    __asm__ volatile("svc 0"
                     : "+r"(x0)
                     : "r"(x8), "r"(x1), "r"(x2), "r"(x3), "r"(x4), "r"(x5)
                     : "memory");
    return x0;
#endif
}

template <class T> inline long arg(T* p)
{
    return static_cast<long>(reinterpret_cast<std::uintptr_t>(p));
}

// The magic number of the file system of an open file, or a negative error number.
inline long file_system_type(int fd)
{
    struct { // statfs
        long type;
        long rest[31];
    } fs = {};
    const long result = call(__NR_fstatfs, fd, arg(&fs));
    return result < 0 ? result : fs.type;
}

// A seccomp filter may deny exit_group; the trap instruction then ends the process.
[[noreturn]] inline void exit_group(int code)
{
    for (;;) {
        call(__NR_exit_group, code);
        __builtin_trap();
    }
}

// A descriptor closed when it goes out of scope.
class Fd {
  public:
    explicit Fd(long fd = -1) : fd_(static_cast<int>(fd)) {}
    Fd(Fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd& operator=(Fd&& other) noexcept
    {
        const int taken = other.fd_;
        other.fd_ = -1;
        reset();
        fd_ = taken;
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int error() const { return fd_ < 0 ? -fd_ : 0; } // the error number if opening failed
    // Gives up ownership. Returns the descriptor or the negative error number.
    [[nodiscard]] int release()
    {
        const int taken = fd_;
        fd_ = -1;
        return taken;
    }
    void reset()
    {
        if (fd_ >= 0)
            call(__NR_close, fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

} // namespace zn::sys

// The compiler generates calls of these.
extern "C" {
void* memcpy(void* to, const void* from, std::size_t n);
void* memmove(void* to, const void* from, std::size_t n);
void* memset(void* to, int value, std::size_t n);
int memcmp(const void* a, const void* b, std::size_t n);
std::size_t strlen(const char* s);
}

#endif
