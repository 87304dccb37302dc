#include "options.hpp"

#include "front/layout.hpp"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>

namespace zncimport {
namespace {

[[noreturn]] void usage(const std::string& problem)
{
    throw Failure("", problem, zncctl::kExitUsage);
}

template <class Number> Number number_of(const char* text, const char* name)
{
    Number number = 0;
    const char* const end = text + std::strlen(text);
    const auto [rest, error] = std::from_chars(text, end, number);
    if (error != std::errc() || rest != end || rest == text)
        usage(fmt::format("{} '{}' is not a number", name, text));
    return number;
}

void read_limit(const zncctl::Arguments& args, const char* option, std::uint64_t& limit)
{
    if (const char* text = args.value(option); text != nullptr)
        limit = number_of<std::uint64_t>(text, option);
    if (limit == 0)
        usage(fmt::format("--{} must be at least 1", option));
}

void read_limits(const zncctl::Arguments& args, Limits& limits)
{
    read_limit(args, "max-entries", limits.entries);
    read_limit(args, "max-bytes", limits.bytes);
    read_limit(args, "max-ratio", limits.ratio);
    read_limit(args, "max-depth", limits.depth);
    read_limit(args, "max-json", limits.json);
    if (const char* text = args.value("max-hardlink-bytes"); text != nullptr)
        limits.hardlink_bytes = number_of<std::uint64_t>(text, "max-hardlink-bytes");
}

// Returns the choice that the option's value selects; without the option, the first one.
template <class Choice, std::size_t N>
Choice choice(const zncctl::Arguments& args, const char* option,
              const std::pair<std::string_view, Choice> (&choices)[N])
{
    const std::string_view text = args.value(option, choices[0].first.data());
    for (const auto& [word, meaning] : choices)
        if (word == text)
            return meaning;
    std::string words;
    for (const auto& [word, meaning] : choices)
        words += fmt::format("{}\"{}\"", words.empty() ? "" : " or ", word);
    usage(fmt::format("--{} is {}", option, words));
}

EmitOptions read_emit_options(const zncctl::Arguments& args)
{
    EmitOptions options;
    options.hardlinks = choice<Hardlinks>(
        args, "hardlinks",
        {{"auto", Hardlinks::kAuto}, {"copy", Hardlinks::kCopy}, {"symlink", Hardlinks::kSymlink}});
    options.devices = choice<Devices>(
        args, "devices",
        {{"fail", Devices::kFail}, {"drop", Devices::kDrop}, {"keep", Devices::kKeep}});
    options.long_links = choice<LongLinks>(args, "long-links",
                                           {{"fail", LongLinks::kFail}, {"hop", LongLinks::kHop}});
    options.skip_unrepresentable = args.has("skip-unrepresentable");
    return options;
}

Compressor read_compressor(const zncctl::Arguments& args)
{
    const auto compressor = choice<Compressor>(
        args, "compress", {{"isal", Compressor::kIsal}, {"zlib", Compressor::kZlib}});
    if (has_compressor(compressor))
        return compressor;
    if (args.has("compress"))
        usage("this program was built without ISA-L; use --compress=zlib");
    return Compressor::kZlib;
}

ConfigOptions read_config_options(const zncctl::Arguments& args)
{
    ConfigOptions options;
    options.set_os = args.value("set-os", "");
    options.set_arch = args.value("set-arch", "");
    options.keep_user = args.has("keep-user");
    const char* const epoch = std::getenv("SOURCE_DATE_EPOCH"); // NOLINT: there is one thread yet
    if (epoch != nullptr && *epoch != 0)
        options.source_date_epoch = number_of<std::int64_t>(epoch, "SOURCE_DATE_EPOCH");
    return options;
}

} // namespace

Options read_options(const zncctl::Arguments& args)
{
    Options options;
    options.source = split_source_name(args.operand(0));
    options.wanted.name = options.source.name;
    options.source_name = args.value("source-name", "standard input");
    if (const char* platform = args.value("platform"); platform != nullptr)
        read_platform(platform, options.wanted);
    options.list = args.has("list");
    if (options.list == (args.operands() == 2))
        usage(options.list ? "--list takes only a source" : "a layout is missing");
    const std::string target = args.operand(1, "");
    const zncctl::ImageName name = zncctl::split_image_name(target);
    options.layout = name.layout;
    options.tag = args.value("tag", name.layout != target ? name.tag.c_str() : "");
    options.replace = args.has("force");
    options.split = args.has("split");
    options.strict = args.has("strict");
    options.dry_run = args.has("dry-run");
    options.quiet = args.has("quiet");
    options.report = args.value("report", "");
    options.compressor = read_compressor(args);
    options.emit = read_emit_options(args);
    options.config = read_config_options(args);
    read_limits(args, options.limits);
    return options;
}

} // namespace zncimport
