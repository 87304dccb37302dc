// Tests that everything generated from the table of commands is consistent: usage, help, synopses
// in the manual, completions.
#include "cli/commands/commands.hpp"
#include "front/usage.hpp"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

using namespace zncctl;

namespace {

using Words = std::set<std::string>;

// Returns all options mentioned in a text, such as "-f" and "--force".
Words options_in(const std::string& text)
{
    static const std::regex kOption("(^|[^-A-Za-z0-9])(--?[a-z][-a-z]*)");
    Words words;
    for (std::sregex_iterator it(text.begin(), text.end(), kOption), end; it != end; ++it)
        words.insert((*it)[2]);
    words.erase("--help");
    return words;
}

Words options_of(const Command& command)
{
    Words words;
    for (const Option& option : command.options) {
        words.insert(std::string("--") + option.name);
        if (option.letter != 0)
            words.insert(std::string("-") + option.letter);
    }
    return words;
}

// Returns the text between two markers, searching after the first one.
std::string between(const std::string& text, const std::string& from, const std::string& to)
{
    const std::size_t start = text.find(from);
    if (start == text.npos)
        return "";
    return text.substr(start + from.size(),
                       text.find(to, start + from.size()) - start - from.size());
}

// Returns the lines of the fish script that complete the options of this command.
std::string fish_lines(const Command& command)
{
    std::string condition = std::string("-n '__fish_seen_subcommand_from ") + command.name;
    if (const std::size_t blank = condition.rfind(' ');
        std::string_view(command.name).find(' ') != std::string_view::npos)
        condition.replace(blank, 1, "; and __fish_seen_subcommand_from ");
    else if (command.aliases[0] != '\0')
        condition += std::string(" ") + command.aliases;
    condition += "'";
    std::istringstream script(fish_completion());
    std::string lines;
    for (std::string line; std::getline(script, line);)
        if (line.find(condition) != line.npos)
            lines += line + "\n";
    return lines;
}

Words fish_options(const std::string& lines)
{
    static const std::regex kLong(" -l ([-a-z]+)");
    static const std::regex kShort(" -s ([a-z])");
    Words words;
    for (std::sregex_iterator it(lines.begin(), lines.end(), kLong), end; it != end; ++it)
        words.insert("--" + (*it)[1].str());
    for (std::sregex_iterator it(lines.begin(), lines.end(), kShort), end; it != end; ++it)
        words.insert("-" + (*it)[1].str());
    return words;
}

} // namespace

TEST(Texts, UsageHelpAndSynopsisNameTheSameOptions)
{
    for (const Command& command : commands()) {
        const Words wanted = options_of(command);
        EXPECT_EQ(usage_line(command).find("[OPTION...]") != std::string::npos, !wanted.empty())
            << command.name;
        EXPECT_EQ(options_in(synopsis(command)), wanted) << command.name;
        const std::string help = help_text(command);
        for (const std::string& option : wanted)
            EXPECT_NE(help.find(option), help.npos) << command.name << option;
    }
}

TEST(Texts, TheSynopsisBeginsAndEndsAsTheUsageLine)
{
    for (const Command& command : commands()) {
        std::string plain = synopsis(command);
        std::erase_if(plain, [](char c) { return c == '*' || c == '_'; });
        std::string usage = usage_line(command).substr(std::string("usage: ").size());
        std::erase_if(usage, [](char c) { return c == '_'; });
        const std::string options = " [OPTION...]";
        const std::size_t at = std::min(usage.find(options), usage.size());
        EXPECT_TRUE(plain.starts_with(usage.substr(0, at))) << command.name;
        EXPECT_TRUE(plain.ends_with(usage.substr(at == usage.size() ? 0 : at + options.size())))
            << command.name;
    }
}

TEST(Texts, TheManualTextHoldsEverySynopsisAndHelp)
{
    const std::string manual = manual_text();
    for (const Command& command : commands()) {
        EXPECT_NE(manual.find(synopsis(command) + "\t" + command.help), manual.npos)
            << command.name;
        for (const Option& option : command.options)
            EXPECT_NE(manual.find(std::string("\t\t") + option.help), manual.npos) << option.name;
    }
}

TEST(Completion, BashOffersEveryCommandWithItsOptions)
{
    const std::string script = bash_completion();
    for (const Command& command : commands()) {
        const std::string part =
            between(script, std::string("    '") + command.name + "'", "\n        ;;\n    ");
        ASSERT_NE(part, "") << command.name;
        const std::size_t list = part.find("compgen -W '--help");
        ASSERT_NE(list, part.npos) << command.name;
        EXPECT_EQ(options_in(between(part.substr(list), "'", "'")), options_of(command))
            << command.name;
    }
}

TEST(Completion, ZshOffersEveryCommandWithItsOptions)
{
    const std::string script = zsh_completion();
    for (const Command& command : commands()) {
        const std::string part =
            between(script, std::string("    '") + command.name + "'", "\n        ;;\n");
        ASSERT_NE(part, "") << command.name;
        Words found;
        static const std::regex kName("'(--?[a-z][-a-z]*)\\[");
        for (std::sregex_iterator it(part.begin(), part.end(), kName), end; it != end; ++it)
            found.insert((*it)[1]);
        found.erase("--help");
        EXPECT_EQ(found, options_of(command)) << command.name;
    }
}

TEST(Completion, FishOffersEveryCommandWithItsOptions)
{
    for (const Command& command : commands())
        EXPECT_EQ(fish_options(fish_lines(command)), options_of(command)) << command.name;
}

TEST(Completion, FirstWordsAndAliasesAreOfferedByAll)
{
    const std::string bash = bash_completion();
    const std::string first = between(bash, "compgen -W '", "'");
    for (const Command& command : commands()) {
        const std::string name(command.name);
        EXPECT_NE((" " + first + " ").find(" " + name.substr(0, name.find(' ')) + " "), first.npos)
            << name;
    }
    EXPECT_NE((" " + first + " ").find(" ps "), first.npos);
}
