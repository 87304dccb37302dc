/*
 * cJSON_Additions.h - additions to cJSON: reading and writing files, and numbers as integers.
 * Used by the bundle configuration, the image reader and the message layer.
 */
#ifndef CJSON_ADDITIONS_H
#define CJSON_ADDITIONS_H

#include <stdint.h>
#include <sys/types.h>

#include <cjson/cJSON.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Reads and parses a file; the caller deletes the tree. NULL with errno set if it cannot be read
 * (EFBIG: larger than 64 MiB; EINVAL: not a regular file) or parsed (EINVAL). Anything but white
 * space after the document is an error.
 */
cJSON* cJSON_load_from_file(const char* path);

/* The same for a document in memory: `len` bytes at `text`, followed by a NUL. */
cJSON* cJSON_parse_whole(const char* text, size_t len);

/*
 * Writes a tree, formatted, to the file `path`, created with the permission bits `mode`; an
 * existing file is replaced. The file is synced to disk. Returns 0, or -1 with errno set; an
 * incomplete file is removed.
 */
int cJSON_dump_to_file(const cJSON* tree, const char* path, mode_t mode);

/* The value of a number, clamped to the type's range and truncated; 0 for other items and NULL. */
int32_t cJSON_integer_value(const cJSON* item);
int64_t cJSON_integer64_value(const cJSON* item);

#ifdef __cplusplus
}
#endif
#endif
