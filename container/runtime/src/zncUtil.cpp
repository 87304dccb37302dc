// zncUtil.cpp - error messages, deletion of trees, names of signals and states, input of secrets,
// hexadecimal text, layer extraction.
#include "zncUtil.hpp"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "zarnel/fs.h"
#include "zarnel/terminal.h"
#include "zncOwned.hpp"

#include <cstdio>
#include <sys/stat.h>

namespace {

constexpr std::size_t kErrorTextSize = 256;
constexpr std::size_t kSignalNameMax = 10;

const char* known_message(int errCode)
{
    for (const ZNC_UTIL_ERROR& row : zncUtilErrorMap)
        if (row.errCode == errCode)
            return row.errMsg;
    return nullptr;
}

// Writes the name of a directory with a final "/" to `path`. Returns the position after it, or
// `end` if it does not fit.
char* place_directory(char* path, char* end, const char* name)
{
    char* out = znc::copy_end(path, end, name);
    if (out == end || (out > path && out[-1] == '/'))
        return out;
    return znc::copy_end(out, end, "/");
}

// One pass of zncUtilXdelete: follows the first subdirectory of each level down to a leaf, and
// removes that. False if the operation is over; its result is then in `result`.
bool delete_one_leaf(const char* source, char* current, char* next, STATUS* result)
{
    const znc::UniqueDir source_dir(opendir(source));
    if (source_dir == nullptr ||
        znc::copy_end(current, current + znc::kPathMax, source) == current + znc::kPathMax) {
        *result = ERROR;
        return false;
    }
    while (zncUtilFindSubDirAndClean(current, next, znc::kPathMax, TRUE) == OK)
        std::swap(current, next);
    // The loop may have ended at an error: try once more to remove the files before the rmdir.
    static_cast<void>(zncUtilFindSubDirAndClean(current, nullptr, 0, TRUE));
    static_cast<void>(rmdir(current));
    *result = OK;
    return strncmp(current, source, znc::kPathMax) != 0;
}

} // namespace

void zncUtilShowErr(int errCode)
{
    if (errCode == 0)
        return;
    const znc::ErrnoSaver keep;
    char text[kErrorTextSize];
    const char* message = known_message(errCode);
    if (message == nullptr) {
        znErrorText(errCode, text, sizeof text);
        message = text;
    }
    printf("Error: %s.\n", message);
}

BOOL zncUtilNameIsDir(const char* pName, BOOL link)
{
    if (pName == nullptr || *pName == '\0')
        return FALSE;
    struct stat st;
    const int found = link ? lstat(pName, &st) : stat(pName, &st);
    return found == 0 && S_ISDIR(st.st_mode) ? TRUE : FALSE;
}

STATUS zncUtilFindSubDirAndClean(const char* pName, char* pSubDir, int pSubDirLen, BOOL clean)
{
    if (pName == nullptr)
        return ERROR;
    const znc::UniqueDir dir(opendir(pName));
    if (dir == nullptr)
        return ERROR;
    const znc::MallocPtr<char[]> path = znc::malloc_array<char>(znc::kPathMax);
    if (path == nullptr)
        return ERROR;
    char* const end = path.get() + znc::kPathMax;
    char* const name_start = place_directory(path.get(), end, pName);
    if (name_start == end)
        return ERROR;
    while (const struct dirent* entry = znc::next_entry(dir.get())) {
        if (znc::copy_end(name_start, end, entry->d_name) == end)
            return ERROR;
        if (zncUtilNameIsDir(path.get(), FALSE)) {
            if (pSubDir == nullptr)
                return OK;
            char* const sub_end = pSubDir + pSubDirLen;
            return znc::copy_end(pSubDir, sub_end, path.get()) != sub_end ? OK : ERROR;
        }
        if (clean && unlink(path.get()) != 0)
            return ERROR;
    }
    return ERROR;
}

STATUS zncUtilXdelete(const char* source)
{
    if (source == nullptr)
        return znc::fail(EINVAL);
    if (!zncUtilNameIsDir(source, FALSE))
        return unlink(source) == 0 ? OK : ERROR;
    const znc::MallocPtr<char[]> paths = znc::malloc_array<char>(2 * znc::kPathMax);
    if (paths == nullptr)
        return ERROR;
    STATUS result = OK;
    while (delete_one_leaf(source, paths.get(), paths.get() + znc::kPathMax, &result))
        ; // no limit: a directory that cannot be removed is tried for ever
    return result;
}

STATUS zncUtilCredGetFromStdin(char* credential, size_t credential_size, const char* prompt_info)
{
    printf("%s", prompt_info);
    fflush(stdout);
    int options = 0;
    if (znTermOptionsGet(STDIN_FILENO, &options) != OK)
        return ERROR;
    options &= ~ZN_TERM_OPT_ECHO;
    if (znTermOptionsSet(STDIN_FILENO, options) != OK)
        return ERROR;
    const bool got = fgets(credential, static_cast<int>(credential_size), stdin) != nullptr;
    const std::size_t len = got ? strlen(credential) : 0;
    if (len > 0 && (credential[len - 1] == '\n' || credential[len - 1] == '\r'))
        credential[len - 1] = '\0';
    printf("\n"); // the newline typed was not echoed
    // Echo stays off: the caller may ask for more secrets.
    static_cast<void>(znTermOptionsSet(STDIN_FILENO, options));
    return got ? OK : ERROR;
}

int zncUtilSignalNo(const char* sigstr)
{
    if (sigstr == nullptr)
        return -1;
    for (const SIGNALMAP& row : signalList)
        if (strncmp(sigstr, row.sigstr, kSignalNameMax) == 0)
            return row.signo;
    return -1;
}

const char* zncUtilStateIdToString(int state)
{
    return zncStateString[state >= 0 && state < kStates ? state : STATE_UNKNOWN];
}

STATUS zncUtilBinToHex(char* output, size_t outBufSize, uint8_t* input, size_t len)
{
    // Compare by division: 2 * len + 1 could overflow.
    if (output == nullptr || input == nullptr || outBufSize == 0 || len == 0 ||
        len > (outBufSize - 1) / 2)
        return znc::fail(EINVAL);
    constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < len; ++i) {
        *output++ = kDigits[input[i] >> 4];
        *output++ = kDigits[input[i] & 0x0f];
    }
    *output = '\0';
    return OK;
}
