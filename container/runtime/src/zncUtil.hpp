// zncUtil.hpp - the tables and internal functions of the utilities, for unit tests.
//
// Functions for other modules are declared in the public header. There is no mutable state. Trees
// that an image or a container wrote must be deleted with zncTreeDelete.
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

extern const ZNC_UTIL_ERROR zncUtilErrorMap[kZncUtilErrors]; // the first matching row is used
extern const SIGNALMAP signalList[kSignals];
extern const char* const zncStateString[kStates]; // indexed by CONTAINER_STATUS

// Whether a path names a directory. With `link`, a symbolic link to a directory does not count.
BOOL zncUtilNameIsDir(const char* pName, BOOL link);

// Scans a directory for its first subdirectory and, with `clean`, deletes the files found before
// it. OK with the subdirectory's path in `pSubDir` (unless NULL); ERROR if there is none, or on
// failure.
STATUS zncUtilFindSubDirAndClean(const char* pName, char* pSubDir, int pSubDirLen, BOOL clean);

#endif
