// gzip_fuzz.cpp - the gzip reader. What zlib takes for one whole gzip file must come out byte for
// byte; of anything else exactly as many bytes come as the trailer says.
#include "fuzz_input.hpp"
#include "gzip_length.hpp"
#include "memory_file.hpp"

#include "zncontainer.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#define Z_SOLO // its gzFile is not ours
#include <zlib.h>

namespace {

constexpr std::size_t kOutputMax = std::size_t{64} * 1024;
constexpr std::size_t kReadsMax = 1000;
constexpr int kOneGzipMember = 15 + 16;

void* allocate(void*, unsigned count, unsigned size)
{
    return std::calloc(count, size);
}

void release(void*, void* memory)
{
    std::free(memory);
}

// One for all inputs: making it costs more than using it.
z_stream& inflater()
{
    static z_stream stream = [] {
        z_stream made = {};
        made.zalloc = allocate;
        made.zfree = release;
        return made;
    }();
    static const int made = inflateInit2(&stream, kOneGzipMember);
    fuzz::require(made == Z_OK && inflateReset(&stream) == Z_OK, "zlib works");
    return stream;
}

// What is in a file that is one gzip member and nothing else; none for others and long ones.
std::optional<std::string> expected(std::string_view bytes)
{
    static Bytef out[kOutputMax];
    z_stream& stream = inflater();
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = out;
    stream.avail_out = sizeof out;
    if (inflate(&stream, Z_FINISH) != Z_STREAM_END || stream.avail_in != 0)
        return std::nullopt;
    return std::string(reinterpret_cast<char*>(out), stream.total_out);
}

// The header's time is nobody's: it says how much is asked for at once.
std::size_t request_size(std::string_view bytes)
{
    fuzz::Input input(bytes.substr(std::min<std::size_t>(bytes.size(), 4)));
    const std::size_t size = input.two_bytes();
    return size != 0 ? size : 512;
}

// All of it, or as much as one wants to wait for.
std::string read_some(gzFile file, std::size_t atOnce)
{
    constexpr char kMark = '\x5a';
    const std::unique_ptr<char[]> piece(new char[atOnce]); // exactly as much memory
    std::string out;
    for (std::size_t reads = 0; out.size() < kOutputMax && reads < kReadsMax; ++reads) {
        piece[atOnce - 1] = kMark;
        const int n = ugzread(file, piece.get(), static_cast<unsigned>(atOnce));
        fuzz::require(n >= 0 && static_cast<std::size_t>(n) <= atOnce, "no more than asked for");
        if (n == 0)
            break;
        const auto got = static_cast<std::size_t>(n);
        fuzz::require(got == atOnce || piece[atOnce - 1] == kMark,
                      "nothing is written behind what was read");
        out.append(piece.get(), got);
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const fuzz::MemoryFile memory;
    const fuzz::DescriptorCount descriptors;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::optional<std::string> content = expected(bytes);
    const gzFile file = ugzopen(memory.with(bytes), "rb");
    if (file == nullptr) {
        fuzz::require(!content.has_value(), "a good gzip file can be opened");
    } else {
        const std::size_t atOnce = request_size(bytes);
        const std::size_t wanted =
            std::min({fuzz::announced_size(bytes), kOutputMax, kReadsMax * atOnce});
        const std::string out = read_some(file, atOnce);
        ugzclose(file);
        fuzz::require(out.size() >= wanted && out.size() <= fuzz::announced_size(bytes),
                      "the trailer says how much comes");
        fuzz::require(!content || content->starts_with(out), "a good gzip file is read as it is");
    }
    descriptors.check();
    return 0;
}
