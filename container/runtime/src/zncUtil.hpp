// zncUtil.hpp - the tables and file-private operations of the utilities, for unit tests.
//
// What the rest of the library and its callers use is declared in the public header. All is
// constant or on the stack of the call. Left out: deleting trees that an image or a container wrote
// (zncTreeDelete).
#ifndef ZNCUTIL_HPP
#define ZNCUTIL_HPP

#include "zncontainer.h"

typedef struct zncUtilError {
    const int errCode;
    const char* errMsg; // without the final period
} ZNC_UTIL_ERROR;

typedef struct signalmap {
    const int signo;
    const char* sigstr; // without "SIG"
} SIGNALMAP;

inline constexpr int kZncUtilErrors = 40;
inline constexpr int kSignals = 42;
inline constexpr int kStates = 5;

extern const ZNC_UTIL_ERROR zncUtilErrorMap[kZncUtilErrors]; // the first matching row counts
extern const SIGNALMAP signalList[kSignals];
extern const char* const zncStateString[kStates]; // by CONTAINER_STATUS

// Whether a path names a directory; with `link` a symbolic link does not count as its target.
BOOL zncUtilNameIsDir(const char* pName, BOOL link);

// Scan a directory for its first subdirectory and, with `clean`, delete the files met before it. OK
// with its path in `pSubDir` (unless NULL); ERROR when there is none, and on failure.
STATUS zncUtilFindSubDirAndClean(const char* pName, char* pSubDir, int pSubDirLen, BOOL clean);

#endif
