// overlay_list.cpp - lists the mounted devices from /proc/self/mountinfo.
#include "zarnel/overlay.h"

#include "base/owned.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const noexcept
    {
        const znc::ErrnoSaver keep;
        std::fclose(file);
    }
};

// Decodes octal escapes ("\\040") in place; the kernel uses them for spaces, newlines, commas and
// backslashes in fields.
void unescape(char* text)
{
    char* out = text;
    for (const char* at = text; *at != '\0'; out++) {
        if (at[0] == '\\' && at[1] >= '0' && at[1] <= '3' && at[2] != '\0' && at[3] != '\0') {
            *out = static_cast<char>((at[1] - '0') * 64 + (at[2] - '0') * 8 + (at[3] - '0'));
            at += 4;
        } else {
            *out = *at++;
        }
    }
    *out = '\0';
}

struct Stack {
    const char** lower;
    std::uint32_t count;
    BOOL writable;
};

// Splits a list "a:b:c" in place. A colon or backslash in a name is preceded by a backslash.
void add_list(Stack& stack, char* list)
{
    char* out = list;
    stack.lower[stack.count++] = list;
    for (const char* at = list; *at != '\0'; at++) {
        if (*at == '\\' && at[1] != '\0') {
            *out++ = *++at;
        } else if (*at == ':') {
            *out++ = '\0';
            stack.lower[stack.count++] = out;
        } else {
            *out++ = *at;
        }
    }
    *out = '\0';
}

// The kernel shows the lower directories in one option, or (since 6.8) each in an option of its
// own.
void add_option(Stack& stack, char* option)
{
    constexpr char kList[] = "lowerdir=";
    constexpr char kOne[] = "lowerdir+=";
    constexpr char kUpper[] = "upperdir=";
    unescape(option);
    if (std::strncmp(option, kOne, sizeof kOne - 1) == 0)
        stack.lower[stack.count++] = option + sizeof kOne - 1;
    else if (std::strncmp(option, kList, sizeof kList - 1) == 0)
        add_list(stack, option + sizeof kList - 1);
    else if (std::strncmp(option, kUpper, sizeof kUpper - 1) == 0)
        stack.writable = TRUE;
}

// "36 25 0:32 / /overlay/name rw ... - overlay overlay rw,lowerdir=...": the mount point is the
// fifth field, the options are the last.
STATUS visit_line(char* line, ZN_OVL_DEV_VISIT visit, void* context)
{
    constexpr int kMountPoint = 4;
    char* rest = std::strstr(line, " - overlay ");
    char* options = std::strrchr(line, ' ');
    if (rest == nullptr || options == nullptr)
        return OK;
    *rest = '\0';
    char* save = nullptr;
    char* field = ::strtok_r(line, " ", &save);
    for (int i = 0; i < kMountPoint && field != nullptr; i++)
        field = ::strtok_r(nullptr, " ", &save);
    if (field == nullptr)
        return OK;
    unescape(field);
    if (std::strncmp(field, ZN_OVERLAY_DIR "/", sizeof ZN_OVERLAY_DIR) != 0)
        return OK;
    options++;
    options[std::strcspn(options, "\n")] = '\0';
    const auto lower = znc::malloc_array<const char*>(std::strlen(options) +
                                                      1); // an upper bound of the number of names
    if (!lower)
        return ERROR;
    Stack stack = {lower.get(), 0, FALSE};
    for (char* option = ::strtok_r(options, ",", &save); option != nullptr;
         option = ::strtok_r(nullptr, ",", &save))
        add_option(stack, option);
    visit(field, stack.lower, stack.count, stack.writable, context);
    return OK;
}

} // namespace

STATUS znOvlDevEach(ZN_OVL_DEV_VISIT visit, void* context)
{
    const std::unique_ptr<std::FILE, FileCloser> table(std::fopen("/proc/self/mountinfo", "re"));
    if (!table)
        return ERROR;
    char* line = nullptr;
    std::size_t room = 0;
    STATUS status = OK;
    while (status == OK && ::getline(&line, &room, table.get()) > 0)
        status = visit_line(line, visit, context);
    const znc::MallocPtr<char> owned(line);
    return status == OK && std::feof(table.get()) != 0 ? OK : ERROR;
}
