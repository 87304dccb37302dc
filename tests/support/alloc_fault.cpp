#include "alloc_fault.hpp"

#include <cerrno>
#include <cstddef>

#include <cjson/cJSON.h>

extern "C" {
void* __real_malloc(std::size_t n);
void* __real_calloc(std::size_t n, std::size_t size);
void* __real_realloc(void* p, std::size_t n);
char* __real_strdup(const char* s);
void free(void* p);
void* __wrap_malloc(std::size_t n);
void* __wrap_calloc(std::size_t n, std::size_t size);
void* __wrap_realloc(void* p, std::size_t n);
char* __wrap_strdup(const char* s);
}

namespace {

thread_local bool counting = false;
thread_local unsigned asked = 0;
thread_local unsigned failing = 0;

bool fails()
{
    if (!counting || ++asked != failing)
        return false;
    errno = ENOMEM;
    return true;
}

} // namespace

void* __wrap_malloc(std::size_t n)
{
    return fails() ? nullptr : __real_malloc(n);
}
void* __wrap_calloc(std::size_t n, std::size_t size)
{
    return fails() ? nullptr : __real_calloc(n, size);
}
void* __wrap_realloc(void* p, std::size_t n)
{
    return fails() ? nullptr : __real_realloc(p, n);
}
char* __wrap_strdup(const char* s)
{
    return fails() ? nullptr : __real_strdup(s);
}

namespace alloc_fault {

void arm(unsigned nth)
{
    cJSON_Hooks hooks = {__wrap_malloc, free};
    cJSON_InitHooks(&hooks);
    asked = 0;
    failing = nth;
    counting = true;
}

unsigned disarm()
{
    counting = false;
    cJSON_InitHooks(nullptr);
    return asked;
}

} // namespace alloc_fault
