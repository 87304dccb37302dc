/*
 * types.h - basic types of the Zarnel kernel's interface, used by all headers in this directory.
 *
 * The public header of the container library repeats STATUS, BOOL and the handles, so that an
 * application needs no other header. Both sets of declarations must stay identical; the compiler
 * checks this in every library file that includes both.
 */
#ifndef ZARNEL_TYPES_H
#define ZARNEL_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

typedef int STATUS;
typedef int32_t BOOL;
typedef uint8_t UINT8;
typedef uint32_t UINT32;
typedef int32_t OBJ_HANDLE; /* a process id */
typedef int32_t nsid_t;     /* a namespace of the namespace service */

#define OK 0
#define ERROR (-1)
#define TRUE 1
#define FALSE 0

#endif
