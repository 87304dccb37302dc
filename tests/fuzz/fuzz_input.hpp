// fuzz_input.hpp - what the fuzz targets share: reading their input piece by piece, and saying that
// something that must hold does not.
//
// A target is one file with LLVMFuzzerTestOneInput. In a build with ZNC_FUZZ libFuzzer calls it; in
// all others replay_main.cpp does, with the inputs kept in the tree.
#ifndef FUZZ_INPUT_HPP
#define FUZZ_INPUT_HPP

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// An input that breaks a promise is reported like one that crashes.
inline void require(bool holds, const char* promise)
{
    if (holds)
        return;
    std::fprintf(stderr, "broken: %s\n", promise);
    std::abort();
}

// A result that only shows that it could be worked out.
inline void use(std::size_t value)
{
    asm volatile("" : : "r"(value));
}

// Takes an input from its front. What is not there is zero, or empty.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : left_(reinterpret_cast<const char*>(data), size)
    {
    }
    explicit Input(std::string_view bytes) : left_(bytes) {}

    [[nodiscard]] bool empty() const { return left_.empty(); }
    [[nodiscard]] std::string_view rest() const { return left_; }

    unsigned byte()
    {
        const std::string_view one = bytes(1);
        return one.empty() ? 0 : static_cast<unsigned char>(one[0]);
    }
    unsigned two_bytes()
    {
        const unsigned high = byte();
        return high << 8 | byte();
    }
    std::string_view bytes(std::size_t count)
    {
        const std::string_view taken = left_.substr(0, count);
        left_.remove_prefix(taken.size());
        return taken;
    }
    // Up to `separator`, which is taken too.
    std::string_view until(char separator)
    {
        const std::size_t at = left_.find(separator);
        const std::string_view taken = left_.substr(0, at);
        left_.remove_prefix(at == std::string_view::npos ? left_.size() : at + 1);
        return taken;
    }

  private:
    std::string_view left_;
};

} // namespace fuzz

#endif
