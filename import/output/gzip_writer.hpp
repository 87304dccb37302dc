// gzip_writer.hpp - one gzip member (no name, time 0), compressed on all processors. Used for the
// new layer.
//
// The input is cut into pieces of a fixed size, each compressed on its own with the end of the one
// before as its dictionary, so that the number of processors changes nothing about the bytes.
#ifndef ZNC_IMPORT_OUTPUT_GZIP_WRITER_HPP
#define ZNC_IMPORT_OUTPUT_GZIP_WRITER_HPP

#include "emit.hpp"

namespace zncimport {

enum class Compressor { kIsal, kZlib };

class GzipWriter {
  public:
    // `sink` gets the compressed bytes in order, in the caller's thread. `threads` 0: as many as
    // there are processors.
    GzipWriter(Compressor compressor, ByteSink sink, unsigned threads = 0);
    ~GzipWriter(); // without finish(): what is under way is dropped
    GzipWriter(const GzipWriter&) = delete;
    GzipWriter& operator=(const GzipWriter&) = delete;

    void write(std::span<const std::byte> bytes);
    // Ends the member. Nothing may be written afterwards.
    void finish();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// Whether this build has it: ISA-L is not there for every processor.
bool has_compressor(Compressor compressor);

} // namespace zncimport

#endif
