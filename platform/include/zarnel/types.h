/*
 * types.h - the kernel's basic types, shared by every facility header.
 *
 * The public header of the container library declares STATUS, BOOL and the
 * handles again, so that an application needs no other header; both
 * declarations must stay identical, which every library file that includes
 * both of them checks at compile time.
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
typedef int32_t OBJ_HANDLE; /* a process, as the process layer names it */
typedef int32_t nsid_t;     /* a namespace of the namespace service */

#define OK 0
#define ERROR (-1)
#define TRUE 1
#define FALSE 0

#endif
