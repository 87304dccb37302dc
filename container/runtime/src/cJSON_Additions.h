/*
 * cJSON_Additions.h - functions beside cJSON: whole files, and numbers as integers.
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
 * Read and parse a whole file; the caller deletes the tree. NULL with the task error number set
 * when it cannot be read (EFBIG: larger than 64 MiB; EINVAL: not a regular file) or parsed
 * (EINVAL). Anything but white space behind the document is an error.
 */
cJSON* cJSON_load_from_file(const char* path);

/* The same of a document in memory, `len` bytes at `text`, the byte behind which is a NUL. */
cJSON* cJSON_parse_whole(const char* text, size_t len);

/*
 * Print a tree, formatted, into the file `path`, created with the permission bits `mode`; a file of
 * that name is replaced. It is on disk when this returns. 0, or -1 with the task error number
 * set; no partial file stays.
 */
int cJSON_dump_to_file(const cJSON* tree, const char* path, mode_t mode);

/* A number item's value, saturated at the type's range, fractions cut; 0 for others and NULL. */
int32_t cJSON_integer_value(const cJSON* item);
int64_t cJSON_integer64_value(const cJSON* item);

#ifdef __cplusplus
}
#endif
#endif
