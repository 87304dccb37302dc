// guarded.hpp - memory followed by an inaccessible page, so that an access one byte past its end is
// a fault. For code that sanitizers do not instrument, such as assembly in a dependency.
#ifndef GUARDED_HPP
#define GUARDED_HPP

#include <cstddef>
#include <stdexcept>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

class Guarded {
  public:
    explicit Guarded(std::size_t size) : size_(size)
    {
        const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        const std::size_t room = (size + page - 1) / page * page;
        mapped_ = room + page;
        base_ = static_cast<unsigned char*>(
            mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base_ == MAP_FAILED || mprotect(base_ + room, page, PROT_NONE) != 0)
            throw std::runtime_error("mmap");
        data_ = base_ + room - size;
    }
    ~Guarded() { munmap(base_, mapped_); }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    [[nodiscard]] unsigned char* data() const { return data_; }
    [[nodiscard]] unsigned char* end() const { return data_ + size_; }
    [[nodiscard]] std::string_view text() const
    {
        return {reinterpret_cast<const char*>(data_), size_};
    }

  private:
    std::size_t size_;
    std::size_t mapped_ = 0;
    unsigned char* base_ = nullptr;
    unsigned char* data_ = nullptr;
};

#endif
