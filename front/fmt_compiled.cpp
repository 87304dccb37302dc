// fmt_compiled.cpp - the formatting code of fmt, compiled once for all front ends. Debian has fmt
// as a shared library, which would have to be loaded at each start of zncctl, or as headers, which
// take every file that formats a text four times as long to compile. Here the headers define the
// functions; everywhere else they only declare them.
#define FMT_HEADER_ONLY
#include <fmt/format.h>

#include <cstdio>

// A function of a header is emitted where its address is taken, and with it all that it calls.
[[gnu::used]] static const auto kVformat =
    static_cast<std::string (*)(fmt::string_view, fmt::format_args)>(&fmt::vformat);
[[gnu::used]] static const auto kVprint =
    static_cast<void (*)(std::FILE*, fmt::string_view, fmt::format_args)>(&fmt::vprint);
