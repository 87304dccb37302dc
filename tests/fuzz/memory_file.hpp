// memory_file.hpp - a file in memory with a path, for code under test that opens what it reads.
#ifndef MEMORY_FILE_HPP
#define MEMORY_FILE_HPP

#include "fuzz_input.hpp"

#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

class MemoryFile {
  public:
    MemoryFile() : fd_(memfd_create("fuzz", MFD_CLOEXEC))
    {
        require(fd_ > 0, "there are files in memory");
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~MemoryFile() { close(fd_); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // Its path, with these bytes in it.
    const char* with(std::string_view bytes) const
    {
        const bool written = ftruncate(fd_, 0) == 0 && pwrite(fd_, bytes.data(), bytes.size(), 0) ==
                                                           static_cast<ssize_t>(bytes.size());
        require(written, "memory files can be written");
        return path_.c_str();
    }

  private:
    int fd_;
    std::string path_;
};

// Whether as many descriptors are open as when it was made, in one call of the target: between two
// libFuzzer opens files of its own.
class DescriptorCount {
  public:
    DescriptorCount() : first_(lowest_free()) {}
    void check() const { require(lowest_free() == first_, "no descriptor is left open"); }

  private:
    static int lowest_free()
    {
        const int fd = dup(2);
        close(fd);
        return fd;
    }
    int first_;
};

} // namespace fuzz

#endif
