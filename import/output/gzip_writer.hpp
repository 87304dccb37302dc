// gzip_writer.hpp - writes one gzip member (no name, time 0), compressed by all processors. Used
// for the new layer.
//
// The input is split into pieces of a fixed size. Each is compressed independently, with the end of
// the previous piece as its dictionary, so that the output does not depend on the number of
// threads.
#ifndef ZNC_IMPORT_OUTPUT_GZIP_WRITER_HPP
#define ZNC_IMPORT_OUTPUT_GZIP_WRITER_HPP

#include "base/not_copied.hpp"
#include "emit.hpp"

namespace zncimport {

enum class Compressor { kIsal, kZlib };

class GzipWriter : znc::NotCopied {
  public:
    // Passes the compressed bytes to `sink` in order, on the caller's thread. If `threads` is 0,
    // uses one thread per processor.
    GzipWriter(Compressor compressor, ByteSink sink, unsigned threads = 0);
    ~GzipWriter(); // without finish(), unfinished pieces are discarded

    void write(std::span<const std::byte> bytes);
    // Ends the member. Do not write afterwards.
    void finish();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// Returns whether this build has the compressor: ISA-L does not support every processor.
bool has_compressor(Compressor compressor);

} // namespace zncimport

#endif
