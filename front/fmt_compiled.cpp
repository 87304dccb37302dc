// fmt_compiled.cpp - the formatting code of fmt, compiled once for all front ends. Debian provides
// fmt as a shared library, which would have to be loaded at each start of zncctl, or as headers,
// which make every file that includes them much slower to compile. In this file the headers define
// the functions; in all others they only declare them.
#define FMT_HEADER_ONLY
#include <fmt/format.h>

#include <cstdio>

// Taking the address of an inline function makes the compiler emit it, with all functions that it
// calls.
[[gnu::used]] static const auto kVformat =
    static_cast<std::string (*)(fmt::string_view, fmt::format_args)>(&fmt::vformat);
[[gnu::used]] static const auto kVprint =
    static_cast<void (*)(std::FILE*, fmt::string_view, fmt::format_args)>(&fmt::vprint);
