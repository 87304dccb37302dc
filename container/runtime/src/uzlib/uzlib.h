/*
 * uzlib.h - streaming DEFLATE decompression with the uzlib interface: one structure and four
 * functions.
 *
 * The gzip reader uses this interface, so that a build can link the original uzlib. This header and
 * uzlib_adapter.cpp implement it with ISA-L (ZNC_INFLATE_ISAL) or zlib. The whole state is in the
 * structure: no memory is allocated and nothing must be released, but an initialised structure must
 * not be moved. Not supported: compression, zlib framing, decompression without a checksum.
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
    /* The input: [source, source_limit). Set by the caller; `source` advances as input is consumed.
     */
    const unsigned char* source;
    const unsigned char* source_limit;
    /*
     * Called when the input is used up; NULL: there is no more input. Returns the next byte, or -1
     * at the end, after which it is not called again. It may provide a whole buffer: then it
     * returns the first byte of the buffer and sets [source, source_limit) to the bytes after it.
     */
    int (*source_read_cb)(struct uzlib_uncomp* uncomp);

    /* The output: written from `dest` up to `dest_limit`; `dest` advances. */
    unsigned char* dest_start; /* where the whole output began; not used here */
    unsigned char* dest;
    unsigned char* dest_limit;

    /* The history window. This implementation keeps its own. */
    unsigned char* dict_ring;
    unsigned int dict_size;

    unsigned int checksum; /* CRC-32 of the output so far, once the stream has ended */
    char checksum_type;    /* 0: none; otherwise the gzip trailer's CRC-32 is compared */

    /* What follows belongs to the implementation. */
    signed char result; /* TINF_OK until the stream has ended, then its final result */
    char eof;           /* the callback has returned -1 */
    char held;          /* heldByte precedes the input */
    unsigned char heldByte;
#ifdef ZNC_INFLATE_ISAL
    struct inflate_state state;
#else
    size_t arenaUsed;
    union {
        max_align_t align;
        unsigned char bytes[96 * 1024];
    } arena; /* zlib's stream structure, then all memory that zlib allocates */
#endif
};

/* Must be called before the other functions; further calls have no effect. */
void uzlib_init(void);

/*
 * Initialise the structure for a stream. `dict` is the history window of `dictLen` bytes; it must
 * outlive the stream. Does not change the input members and the callback.
 */
void uzlib_uncompress_init(struct uzlib_uncomp* d, void* dict, unsigned int dictLen);

/* Consume a gzip header with its optional fields. TINF_OK, or TINF_DATA_ERROR if it is invalid. */
int uzlib_gzip_parse_header(struct uzlib_uncomp* d);

/*
 * Inflate until `dest` reaches `dest_limit` (TINF_OK) or the stream ends (TINF_DONE, or
 * TINF_CHKSUM_ERROR if the trailer's CRC-32 differs). TINF_DATA_ERROR for damaged or missing data;
 * the data that was inflated before is in the output.
 */
int uzlib_uncompress_chksum(struct uzlib_uncomp* d);

#ifdef __cplusplus
}
#endif
#endif
