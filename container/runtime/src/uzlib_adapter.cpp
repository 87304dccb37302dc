// uzlib_adapter.cpp - the uzlib interface, implemented with ISA-L or, where that is not available,
// with zlib. Called by the gzip reader.
#include "uzlib.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#ifndef ZNC_INFLATE_ISAL
#include <new>
#include <zlib.h> // included here, not in uzlib.h, because zlib's gzFile differs from ours
#endif

namespace {

enum class Step { kMore, kEnd, kError };

// Input and output of one call of the inflater, which advances both.
struct Run {
    const unsigned char* in;
    std::uint32_t inLeft;
    unsigned char* out;
    std::uint32_t outLeft;
};

#ifdef ZNC_INFLATE_ISAL

bool inflater_init(uzlib_uncomp& d)
{
    isal_inflate_init(&d.state);
    return true;
}

void inflater_use_crc(uzlib_uncomp& d)
{
    d.state.crc_flag = ISAL_GZIP_NO_HDR;
}

Step inflater_run(uzlib_uncomp& d, Run& run)
{
    inflate_state& s = d.state;
    s.next_in = const_cast<unsigned char*>(run.in); // only read
    s.avail_in = run.inLeft;
    s.next_out = run.out;
    s.avail_out = run.outLeft;
    const int rc = isal_inflate(&s);
    run = {s.next_in, s.avail_in, s.next_out, s.avail_out};
    if (rc != ISAL_DECOMP_OK)
        return Step::kError;
    if (s.block_state != ISAL_BLOCK_FINISH)
        return Step::kMore;
    d.checksum = s.crc;
    return Step::kEnd;
}

// The next byte after the deflate stream, if the inflater has already read it; else -1.
int inflater_overread(uzlib_uncomp& d)
{
    inflate_state& s = d.state;
    if (const int part = s.read_in_length % 8; part > 0) {
        s.read_in >>= part;
        s.read_in_length -= part;
    }
    if (s.read_in_length < 8)
        return -1;
    const int byte = static_cast<int>(s.read_in & 0xff);
    s.read_in >>= 8;
    s.read_in_length -= 8;
    return byte;
}

#else

constexpr int kRawDeflate = -15;

constexpr std::size_t kArenaAlign = alignof(std::max_align_t);

// Allocates from the arena; null when it is used up. Nothing is ever freed.
void* arena_take(uzlib_uncomp& d, std::size_t wanted)
{
    if (wanted > sizeof d.arena.bytes - d.arenaUsed)
        return nullptr;
    unsigned char* const piece = d.arena.bytes + d.arenaUsed;
    const std::size_t rounded = (wanted + kArenaAlign - 1) / kArenaAlign * kArenaAlign;
    d.arenaUsed = std::min(d.arenaUsed + rounded, sizeof d.arena.bytes);
    return piece;
}

z_stream& stream_of(uzlib_uncomp& d)
{
    return *std::launder(reinterpret_cast<z_stream*>(d.arena.bytes));
}

// zlib calls this during initialisation and once more for its window.
voidpf arena_alloc(voidpf opaque, uInt items, uInt size)
{
    return arena_take(*static_cast<uzlib_uncomp*>(opaque), std::size_t{items} * size);
}

void arena_free(voidpf, voidpf) {}

bool inflater_init(uzlib_uncomp& d)
{
    d.arenaUsed = 0;
    auto* const stream = new (arena_take(d, sizeof(z_stream))) z_stream{};
    stream->zalloc = arena_alloc;
    stream->zfree = arena_free;
    stream->opaque = &d;
    return inflateInit2(stream, kRawDeflate) == Z_OK;
}

void inflater_use_crc(uzlib_uncomp& d)
{
    d.checksum = static_cast<unsigned int>(crc32(0, Z_NULL, 0));
}

Step inflater_run(uzlib_uncomp& d, Run& run)
{
    z_stream& s = stream_of(d);
    unsigned char* const start = run.out;
    s.next_in = const_cast<unsigned char*>(run.in); // only read
    s.avail_in = run.inLeft;
    s.next_out = run.out;
    s.avail_out = run.outLeft;
    const int rc = inflate(&s, Z_NO_FLUSH);
    run = {s.next_in, s.avail_in, s.next_out, s.avail_out};
    if (d.checksum_type != 0)
        d.checksum =
            static_cast<unsigned int>(crc32(d.checksum, start, static_cast<uInt>(run.out - start)));
    if (rc == Z_STREAM_END)
        return Step::kEnd;
    return rc == Z_OK || rc == Z_BUF_ERROR ? Step::kMore : Step::kError;
}

int inflater_overread(uzlib_uncomp&)
{
    return -1;
}

#endif

std::uint32_t clamp32(std::ptrdiff_t n)
{
    return n <= 0 ? 0 : static_cast<std::uint32_t>(std::min<std::ptrdiff_t>(n, UINT32_MAX));
}

int call_for_input(uzlib_uncomp& d)
{
    if (d.source_read_cb == nullptr || d.eof != 0)
        return -1;
    const int byte = d.source_read_cb(&d);
    if (byte < 0)
        d.eof = 1;
    return byte;
}

int next_byte(uzlib_uncomp& d)
{
    if (d.held != 0) {
        d.held = 0;
        return d.heldByte;
    }
    return d.source < d.source_limit ? *d.source++ : call_for_input(d);
}

// Whether there is input for the inflater; calls the callback if the buffer is empty.
bool have_input(uzlib_uncomp& d)
{
    if (d.held != 0 || d.source < d.source_limit)
        return true;
    const int byte = call_for_input(d);
    if (byte < 0)
        return false;
    if (d.source < d.source_limit) {
        --d.source; // the byte returned is the first of the new buffer: put it back
    } else {
        d.heldByte = static_cast<unsigned char>(byte);
        d.held = 1;
    }
    return true;
}

// Runs the inflater on the available input, which may be empty: the inflater may still hold output.
// `progress` is set to whether any input was consumed or output produced.
Step run_once(uzlib_uncomp& d, bool& progress)
{
    const bool held = d.held != 0;
    Run run = {held ? &d.heldByte : d.source, held ? 1 : clamp32(d.source_limit - d.source), d.dest,
               clamp32(d.dest_limit - d.dest)};
    const Run before = run;
    const Step step = inflater_run(d, run);
    progress = run.inLeft != before.inLeft || run.outLeft != before.outLeft;
    d.dest = run.out;
    if (held)
        d.held = run.inLeft != 0 ? 1 : 0;
    else
        d.source += before.inLeft - run.inLeft;
    return step;
}

int check_trailer(uzlib_uncomp& d)
{
    if (d.checksum_type == 0)
        return TINF_DONE;
    std::uint32_t wanted = 0;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        int byte = inflater_overread(d);
        if (byte < 0)
            byte = next_byte(d);
        if (byte < 0)
            return TINF_DATA_ERROR;
        wanted |= static_cast<std::uint32_t>(byte) << shift;
    }
    return wanted == d.checksum ? TINF_DONE : TINF_CHKSUM_ERROR;
}

int inflate_to_limit(uzlib_uncomp& d)
{
    while (d.dest < d.dest_limit) {
        bool progress = false;
        const Step step = run_once(d, progress);
        if (step == Step::kError)
            return TINF_DATA_ERROR;
        if (step == Step::kEnd)
            return check_trailer(d);
        if (!progress && (d.held != 0 || d.source < d.source_limit))
            return TINF_DATA_ERROR;
        if (d.dest < d.dest_limit && !have_input(d))
            return TINF_DATA_ERROR;
    }
    return TINF_OK;
}

constexpr int kFlagHeaderCrc = 0x02;
constexpr int kFlagExtra = 0x04;
constexpr int kFlagName = 0x08;
constexpr int kFlagComment = 0x10;
constexpr int kFlagsReserved = 0xe0;

bool skip_bytes(uzlib_uncomp& d, unsigned count)
{
    while (count-- > 0)
        if (next_byte(d) < 0)
            return false;
    return true;
}

bool skip_text(uzlib_uncomp& d)
{
    int byte;
    do {
        byte = next_byte(d);
    } while (byte > 0);
    return byte == 0;
}

bool skip_extra(uzlib_uncomp& d)
{
    const int low = next_byte(d);
    const int high = next_byte(d);
    return low >= 0 && high >= 0 && skip_bytes(d, static_cast<unsigned>(high << 8 | low));
}

bool read_header(uzlib_uncomp& d)
{
    constexpr unsigned kTimeFlagsSystem = 6;
    if (next_byte(d) != 0x1f || next_byte(d) != 0x8b || next_byte(d) != 8)
        return false;
    const int flags = next_byte(d);
    if (flags < 0 || (flags & kFlagsReserved) != 0 || !skip_bytes(d, kTimeFlagsSystem))
        return false;
    if ((flags & kFlagExtra) != 0 && !skip_extra(d))
        return false;
    if ((flags & kFlagName) != 0 && !skip_text(d))
        return false;
    if ((flags & kFlagComment) != 0 && !skip_text(d))
        return false;
    return (flags & kFlagHeaderCrc) == 0 || skip_bytes(d, 2);
}

} // namespace

void uzlib_init(void) {}

void uzlib_uncompress_init(uzlib_uncomp* d, void* dict, unsigned int dictLen)
{
    d->dict_ring = static_cast<unsigned char*>(dict);
    d->dict_size = dictLen;
    d->checksum = 0;
    d->checksum_type = 0;
    d->eof = 0;
    d->held = 0;
    d->result = inflater_init(*d) ? TINF_OK : TINF_DATA_ERROR;
}

int uzlib_gzip_parse_header(uzlib_uncomp* d)
{
    if (!read_header(*d))
        return TINF_DATA_ERROR;
    d->checksum_type = 1;
    inflater_use_crc(*d);
    return TINF_OK;
}

int uzlib_uncompress_chksum(uzlib_uncomp* d)
{
    if (d->result == TINF_OK)
        d->result = static_cast<signed char>(inflate_to_limit(*d));
    return d->result;
}
