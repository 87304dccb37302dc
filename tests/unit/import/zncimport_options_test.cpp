// Tests of the options of `zncctl import`.
#include "import/options.hpp"

#include <gtest/gtest.h>

using namespace zncimport;

namespace {

zncctl::Arguments words(const std::map<std::string, std::string>& options,
                        const std::string& source = "image", const std::string& layout = "layout")
{
    zncctl::Arguments args;
    for (const auto& [name, value] : options)
        args.add_option(name, value);
    args.add_operand(source);
    args.add_operand(layout);
    return args;
}

// Returns the error message for the arguments; "" if they are valid.
std::string problem(const std::map<std::string, std::string>& options)
{
    try {
        static_cast<void>(read_options(words(options)));
        return "";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), zncctl::kExitUsage);
        return failure.what();
    }
}

} // namespace

TEST(Options, TheUserIsKeptOnlyIfAsked)
{
    EXPECT_FALSE(read_options(words({})).config.keep_user);
    EXPECT_TRUE(read_options(words({{"keep-user", ""}})).config.keep_user);
}

TEST(Options, AListTakesOnlyASource)
{
    zncctl::Arguments args;
    args.add_operand("image");
    EXPECT_THROW(static_cast<void>(read_options(args)), Failure);
    args.add_option("list", "");
    EXPECT_TRUE(read_options(args).list);
    EXPECT_EQ(problem({{"list", ""}}), "--list takes only a source");
}

TEST(Options, WithoutAnyTheDefaultsHold)
{
    const Options options = read_options(words({}));
    EXPECT_EQ(options.source.path, "image");
    EXPECT_EQ(options.layout, "layout");
    EXPECT_EQ(options.tag, "");
    EXPECT_FALSE(options.replace || options.split || options.strict || options.dry_run ||
                 options.quiet);
    EXPECT_EQ(options.emit.hardlinks, Hardlinks::kAuto);
    EXPECT_EQ(options.emit.devices, Devices::kFail);
    EXPECT_EQ(options.emit.long_links, LongLinks::kFail);
    EXPECT_FALSE(options.emit.skip_unrepresentable);
    EXPECT_TRUE(has_compressor(options.compressor));
    EXPECT_EQ(options.limits.entries, Limits().entries);
}

TEST(Options, TheTagIsTheOptionsOrTheLayoutsOrNone)
{
    EXPECT_EQ(read_options(words({}, "image", "layout:1.0")).tag, "1.0");
    EXPECT_EQ(read_options(words({}, "image", "layout:1.0")).layout, "layout");
    EXPECT_EQ(read_options(words({{"tag", "2.0"}}, "image", "layout:1.0")).tag, "2.0");
    EXPECT_EQ(read_options(words({{"tag", "2.0"}})).tag, "2.0");
}

TEST(Options, EveryChoiceIsRead)
{
    const Options options = read_options(words({{"hardlinks", "symlink"},
                                                {"devices", "keep"},
                                                {"long-links", "hop"},
                                                {"compress", "zlib"},
                                                {"skip-unrepresentable", ""},
                                                {"split", ""},
                                                {"strict", ""},
                                                {"dry-run", ""},
                                                {"force", ""},
                                                {"quiet", ""},
                                                {"report", "losses.json"},
                                                {"set-os", "zarnel"},
                                                {"set-arch", "arm64"},
                                                {"platform", "linux/arm/v7"}}));
    EXPECT_EQ(options.emit.hardlinks, Hardlinks::kSymlink);
    EXPECT_EQ(options.emit.devices, Devices::kKeep);
    EXPECT_EQ(options.emit.long_links, LongLinks::kHop);
    EXPECT_EQ(options.compressor, Compressor::kZlib);
    EXPECT_TRUE(options.emit.skip_unrepresentable && options.split && options.strict &&
                options.dry_run && options.replace && options.quiet);
    EXPECT_EQ(options.report, "losses.json");
    EXPECT_EQ(options.config.set_os, "zarnel");
    EXPECT_EQ(options.config.set_arch, "arm64");
    EXPECT_EQ(options.wanted.os, "linux");
    EXPECT_EQ(options.wanted.arch, "arm");
    EXPECT_EQ(options.wanted.variant, "v7");
}

TEST(Options, LimitsAreNumbersOfAtLeastOne)
{
    const Options options = read_options(words({{"max-entries", "1"},
                                                {"max-bytes", "2"},
                                                {"max-ratio", "3"},
                                                {"max-depth", "4"},
                                                {"max-json", "5"},
                                                {"max-hardlink-bytes", "0"}}));
    EXPECT_EQ(options.limits.entries, 1U);
    EXPECT_EQ(options.limits.bytes, 2U);
    EXPECT_EQ(options.limits.ratio, 3U);
    EXPECT_EQ(options.limits.depth, 4U);
    EXPECT_EQ(options.limits.json, 5U);
    EXPECT_EQ(options.limits.hardlink_bytes, 0U);
    for (const char* limit : {"max-entries", "max-bytes", "max-ratio", "max-depth", "max-json"})
        EXPECT_EQ(problem({{limit, "0"}}), "--" + std::string(limit) + " must be at least 1");
    for (const char* text : {"", "x", "1k", "-1", " 1", "18446744073709551616"})
        EXPECT_NE(problem({{"max-bytes", text}}), "") << text;
}

TEST(Options, AnInvalidChoiceIsRefusedAndTheChoicesAreNamed)
{
    EXPECT_EQ(problem({{"hardlinks", "all"}}),
              "--hardlinks is \"auto\" or \"copy\" or \"symlink\"");
    EXPECT_EQ(problem({{"devices", ""}}), "--devices is \"fail\" or \"drop\" or \"keep\"");
    EXPECT_EQ(problem({{"long-links", "keep"}}), "--long-links is \"fail\" or \"hop\"");
    EXPECT_EQ(problem({{"compress", "xz"}}), "--compress is \"isal\" or \"zlib\"");
    EXPECT_NE(problem({{"platform", "arm"}}), "");
}

TEST(Options, TheTimeOfTheEnvironmentIsANumber)
{
    ::setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
    EXPECT_EQ(read_options(words({})).config.source_date_epoch, 1700000000);
    ::setenv("SOURCE_DATE_EPOCH", "yesterday", 1);
    EXPECT_NE(problem({}), "");
    ::unsetenv("SOURCE_DATE_EPOCH");
    EXPECT_FALSE(read_options(words({})).config.source_date_epoch.has_value());
}
