// overlay_list.cpp - lists the mounted devices from the mount table.
#include "zarnel/overlay.h"

#include "base/owned.hpp"
#include "system/mount_table.hpp"

#include <cstring>

namespace {

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
    zn::mount_unescape(option);
    if (std::strncmp(option, kOne, sizeof kOne - 1) == 0)
        stack.lower[stack.count++] = option + sizeof kOne - 1;
    else if (std::strncmp(option, kList, sizeof kList - 1) == 0)
        add_list(stack, option + sizeof kList - 1);
    else if (std::strncmp(option, kUpper, sizeof kUpper - 1) == 0)
        stack.writable = TRUE;
}

STATUS visit_mount(const zn::Mount& mount, ZN_OVL_DEV_VISIT visit, void* context)
{
    if (std::strcmp(mount.type, "overlay") != 0 ||
        std::strncmp(mount.point, ZN_OVERLAY_DIR "/", sizeof ZN_OVERLAY_DIR) != 0)
        return OK;
    // The length of the options is an upper bound of the number of names.
    const auto lower = znc::malloc_array<const char*>(std::strlen(mount.options) + 1);
    if (!lower)
        return ERROR;
    Stack stack = {lower.get(), 0, FALSE};
    char* save = nullptr;
    for (char* option = ::strtok_r(mount.options, ",", &save); option != nullptr;
         option = ::strtok_r(nullptr, ",", &save))
        add_option(stack, option);
    visit(mount.point, stack.lower, stack.count, stack.writable, context);
    return OK;
}

} // namespace

STATUS znOvlDevEach(ZN_OVL_DEV_VISIT visit, void* context)
{
    zn::MountTable table;
    zn::Mount mount;
    while (table.next(mount))
        if (visit_mount(mount, visit, context) != OK)
            return ERROR;
    return table.complete() ? OK : ERROR;
}
