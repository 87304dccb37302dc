// start.cpp - the helper's entry point: calls the part of the helper that argv[0] names.

#include "helper.hpp"
#include "sys.hpp"
#include "wire.hpp"

extern "C" {

void* memcpy(void* to, const void* from, std::size_t n)
{
    auto* out = static_cast<char*>(to);
    const auto* in = static_cast<const char*>(from);
    while (n-- != 0)
        *out++ = *in++;
    return to;
}

void* memmove(void* to, const void* from, std::size_t n)
{
    auto* out = static_cast<char*>(to);
    const auto* in = static_cast<const char*>(from);
    if (out <= in)
        return memcpy(to, from, n);
    while (n-- != 0)
        out[n] = in[n];
    return to;
}

void* memset(void* to, int value, std::size_t n)
{
    auto* out = static_cast<char*>(to);
    while (n-- != 0)
        *out++ = static_cast<char>(value);
    return to;
}

int memcmp(const void* a, const void* b, std::size_t n)
{
    const auto* x = static_cast<const unsigned char*>(a);
    const auto* y = static_cast<const unsigned char*>(b);
    for (; n != 0; n--, x++, y++)
        if (*x != *y)
            return *x < *y ? -1 : 1;
    return 0;
}

std::size_t strlen(const char* s)
{
    std::size_t n = 0;
    while (s[n] != '\0')
        n++;
    return n;
}

[[noreturn, gnu::used]] void zn_helper_main(long* stack)
{
    const int argc = static_cast<int>(stack[0]);
    char** argv = reinterpret_cast<char**>(stack + 1);
    char** envp = argv + argc + 1;
    if (argc > 0 && zn::text_equal(argv[0], zn::wire::kKeeperName))
        zn::keeper_run();
    if (argc > 0 && zn::text_equal(argv[0], zn::wire::kStarterName))
        zn::starter_run();
    if (argc > 0 && zn::text_equal(argv[0], zn::wire::kHolderName))
        zn::holder_run();
    if (argc > 0 && zn::text_equal(argv[0], zn::wire::kStoreName))
        zn::store_run();
    if (argc > zn::wire::kSpawnerFixedArgs && zn::text_equal(argv[0], zn::wire::kSpawnerName))
        zn::spawner_run(argv, envp);
    if (argc > zn::wire::kInitFixedArgs && zn::text_equal(argv[0], zn::wire::kInitName))
        zn::init_run(argv, envp);
    if (argc > zn::wire::kInitFixedArgs && zn::text_equal(argv[0], zn::wire::kEntrantName))
        zn::entrant_run(argv, envp);
    if (argc > zn::wire::kInitFixedArgs && zn::text_equal(argv[0], zn::wire::kMakerName))
        zn::maker_run(argv, envp);
    zn::sys::exit_group(2);
}

} // extern "C"

// Entry point: argc, argv and envp are on the stack, and there is no return address.
#if defined(__x86_64__)
__asm__(".text\n.globl _start\n.type _start,@function\n_start:\n"
        "  xor %ebp,%ebp\n  mov %rsp,%rdi\n  and $-16,%rsp\n  call zn_helper_main\n");
#elif defined(__aarch64__)
__asm__(".text\n.globl _start\n.type _start,%function\n_start:\n"
        "  mov x29,#0\n  mov x30,#0\n  mov x0,sp\n  bl zn_helper_main\n");
#endif
