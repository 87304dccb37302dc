// cJSON_Additions.cpp - whole files, and numbers as integers.
#include "cJSON_Additions.h"

#include "zarnel/fs.h"
#include "zncOwned.hpp"

#include <fcntl.h>
#include <limits>
#include <sys/stat.h>

namespace {

constexpr off_t kFileMax = off_t{64} * 1024 * 1024;

struct Text {
    znc::MallocPtr<char[]> bytes; // NUL-terminated; null: not read, errno says why
    std::size_t len = 0;
};

// A regular file whose size can be read. Not blocking: the name may be a FIFO's.
znc::UniqueFd open_document(const char* path, std::size_t* size)
{
    znc::UniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0)
        return znc::UniqueFd();
    if (!S_ISREG(st.st_mode) || st.st_size > kFileMax) {
        errno = S_ISREG(st.st_mode) ? EFBIG : EINVAL;
        return znc::UniqueFd();
    }
    *size = static_cast<std::size_t>(st.st_size);
    return fd;
}

Text read_document(const char* path)
{
    std::size_t size = 0;
    const znc::UniqueFd fd = open_document(path, &size);
    if (!fd)
        return Text();
    Text text;
    text.bytes = znc::malloc_array<char>(size + 1);
    while (text.bytes != nullptr && text.len < size) {
        const ssize_t got = read(fd.get(), text.bytes.get() + text.len, size - text.len);
        if (got == 0)
            break;
        if (got > 0)
            text.len += static_cast<std::size_t>(got);
        else if (errno != EINTR)
            text.bytes.reset();
    }
    return text;
}

bool only_white_space(const char* from, const char* end)
{
    for (; from < end; ++from)
        if (*from != ' ' && *from != '\t' && *from != '\n' && *from != '\r')
            return false;
    return true;
}

bool write_all(int fd, const char* text, std::size_t len)
{
    while (len > 0) {
        const ssize_t put = write(fd, text, len);
        if (put >= 0) {
            text += put;
            len -= static_cast<std::size_t>(put);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

template <class Int> Int saturated(const cJSON* item)
{
    if (!cJSON_IsNumber(item))
        return 0;
    const double value = item->valuedouble;
    // The highest integer itself may not be a double; one more always is.
    constexpr double kBelow = -static_cast<double>(std::numeric_limits<Int>::min());
    if (value >= kBelow)
        return std::numeric_limits<Int>::max();
    if (value <= -kBelow)
        return std::numeric_limits<Int>::min();
    return value == value ? static_cast<Int>(value) : 0; // not a number: 0
}

} // namespace

cJSON* cJSON_load_from_file(const char* path)
{
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const Text text = read_document(path);
    if (text.bytes == nullptr)
        return nullptr;
    const char* stopped = text.bytes.get();
    errno = 0;
    znc::CJsonPtr tree(cJSON_ParseWithLengthOpts(text.bytes.get(), text.len, &stopped, 0));
    if (tree != nullptr && only_white_space(stopped, text.bytes.get() + text.len))
        return tree.release();
    errno = tree == nullptr && errno == ENOMEM ? ENOMEM : EINVAL;
    return nullptr;
}

int cJSON_dump_to_file(const cJSON* tree, const char* path, mode_t mode)
{
    if (tree == nullptr || path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const znc::CJsonText text(cJSON_Print(tree));
    if (text == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    znc::UniqueFd fd(znFileCreate(path, mode));
    if (!fd)
        return -1;
    if (write_all(fd.get(), text.get(), strlen(text.get())) && fd.close_checked() == 0)
        return 0;
    const znc::ErrnoSaver keep;
    unlink(path);
    return -1;
}

int32_t cJSON_integer_value(const cJSON* item)
{
    return saturated<int32_t>(item);
}

int64_t cJSON_integer64_value(const cJSON* item)
{
    return saturated<int64_t>(item);
}
