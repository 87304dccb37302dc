/*
 * uzlib.h - streaming DEFLATE decompression behind the uzlib interface: one record, four functions.
 *
 * The gzip reader is written against this interface, so that a build can link a real uzlib. This
 * header and uzlib_adapter.cpp offer it over ISA-L (ZNC_INFLATE_ISAL) or zlib. The whole state is
 * in the record: nothing is allocated and nothing needs releasing, but an initialised record must
 * not move. Left out: compression, zlib framing, decompression without a checksum.
 */
#ifndef UZLIB_H
#define UZLIB_H

#ifdef ZNC_INFLATE_ISAL
#include <isa-l/igzip_lib.h>
#else
#include <stddef.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define TINF_OK 0            /* the destination is full, or the header was accepted */
#define TINF_DONE 1          /* the stream has ended */
#define TINF_DATA_ERROR (-3) /* the data is damaged or ends early */
#define TINF_CHKSUM_ERROR (-4)
#define TINF_DICT_ERROR (-5)

struct uzlib_uncomp {
    /* The input: [source, source_limit). The caller sets it; both move on as it is consumed. */
    const unsigned char* source;
    const unsigned char* source_limit;
    /*
     * Called when the input is used up; NULL: there is no more. Returns the next byte, or -1 at the
     * end (it is then not called again). It may bring a whole buffer: it then returns the
     * buffer's first byte and leaves [source, source_limit) on those behind it.
     */
    int (*source_read_cb)(struct uzlib_uncomp* uncomp);

    /* The output: written from `dest` up to `dest_limit`, never beyond; `dest` moves on. */
    unsigned char* dest_start; /* where the whole output began; not used here */
    unsigned char* dest;
    unsigned char* dest_limit;

    /* The history window. This implementation keeps its own. */
    unsigned char* dict_ring;
    unsigned int dict_size;

    unsigned int checksum; /* CRC-32 of the output so far, once the stream has ended */
    char checksum_type;    /* 0: none; otherwise the gzip trailer's CRC-32 is compared */

    /* What follows belongs to the implementation. */
    signed char result; /* TINF_OK while the stream goes on, then its outcome for ever */
    char eof;           /* the callback said so */
    char held;          /* heldByte is to be consumed before the input */
    unsigned char heldByte;
#ifdef ZNC_INFLATE_ISAL
    struct inflate_state state;
#else
    size_t arenaUsed;
    union {
        max_align_t align;
        unsigned char bytes[96 * 1024];
    } arena; /* zlib's stream record, then all that zlib allocates */
#endif
};

/* Once before all others, any number of times. */
void uzlib_init(void);

/*
 * Make the record ready for a stream. `dict` is the history window of `dictLen` bytes; it must
 * outlive the stream. The input fields and the callback are left as they are.
 */
void uzlib_uncompress_init(struct uzlib_uncomp* d, void* dict, unsigned int dictLen);

/* Consume a gzip header with all its optional fields. TINF_OK, or TINF_DATA_ERROR if it is none. */
int uzlib_gzip_parse_header(struct uzlib_uncomp* d);

/*
 * Inflate until `dest` reaches `dest_limit` (TINF_OK) or the stream ends (TINF_DONE, or
 * TINF_CHKSUM_ERROR if the trailer's CRC-32 differs). TINF_DATA_ERROR for damaged or missing data;
 * what was inflated before stands in the output.
 */
int uzlib_uncompress_chksum(struct uzlib_uncomp* d);

#ifdef __cplusplus
}
#endif
#endif
