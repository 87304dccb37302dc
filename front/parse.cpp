#include "parse.hpp"

#include "words.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>

namespace zncctl {
namespace {

// Sets up the parser for one command.
class CommandLine {
  public:
    CommandLine(const Command& command, std::size_t words, std::size_t after_mark)
        : command_(command), operands_(words), after_mark_(after_mark)
    {
        app_.set_help_flag("-h,--help");
        values_.resize(command.options.size());
        for (std::size_t i = 0; i < command.options.size(); i++)
            add(command.options[i], values_[i]);
        // One option for each word: CLI11 would split an operand such as "[a,b]" if it were given a
        // list. The number of operands is checked afterwards.
        for (std::size_t i = 0; i < words; i++)
            app_.add_option(fmt::format("operand{}", i), operands_[i]);
    }

    Parsed parse(std::vector<std::string> words)
    {
        std::reverse(words.begin(), words.end()); // CLI11 expects the words in reverse order
        Parsed result;
        try {
            app_.parse(words);
        } catch (const CLI::CallForHelp&) {
            result.help = true;
            return result;
        } catch (const CLI::ExtrasError&) {
            result.problem = fmt::format("unknown option '{}'", app_.remaining().front());
            return result;
        } catch (const CLI::ParseError& e) {
            result.problem = problem(e);
            return result;
        }
        fill(result);
        return result;
    }

  private:
    void add(const Option& option, std::string& value)
    {
        std::string names = fmt::format("--{}", option.name);
        if (option.letter != 0)
            names = fmt::format("-{},{}", option.letter, names);
        if (option.value == nullptr)
            app_.add_flag(names)->disable_flag_override();
        else
            app_.add_option(names, value)
                ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
                ->allow_extra_args(false);
    }

    // Translates CLI11's message, which begins with the option's name: "--signal: ..." or "all was
    // given a ...".
    std::string problem(const CLI::ParseError& error) const
    {
        const std::string_view text = error.what();
        for (const Option& option : command_.options) {
            const std::string name = fmt::format("--{}", option.name);
            if (text.find(name) == text.npos && !text.starts_with(std::string(option.name) + " "))
                continue;
            if (option.value == nullptr)
                return fmt::format("option '{}' takes no value", name);
            return fmt::format("option '{}' needs a value", name);
        }
        return std::string(text);
    }

    void fill(Parsed& result)
    {
        for (std::size_t i = 0; i < command_.options.size(); i++) {
            const Option& option = command_.options[i];
            if (app_.count(fmt::format("--{}", option.name)) != 0)
                result.args.add_option(option.name, values_[i]);
        }
        for (std::size_t i = 0; i < operands_.size(); i++)
            if (app_.count(fmt::format("operand{}", i)) != 0)
                result.args.add_operand(std::move(operands_[i]));
        const std::size_t given = result.args.operands();
        // CLI11 takes options that look like negative numbers for operands.
        for (std::size_t i = 0; i + after_mark_ < given; i++)
            if (const std::string_view word = result.args.operand(i);
                word.size() > 1 && word[0] == '-')
                result.problem = fmt::format("unknown option '{}'", word);
        if (!result.problem.empty())
            return;
        if (given < command_.min_operands)
            result.problem = "too few arguments";
        else if (given > command_.max_operands)
            result.problem = "too many arguments";
    }

    const Command& command_;
    CLI::App app_;
    std::vector<std::string> values_;
    std::vector<std::string> operands_;
    std::size_t after_mark_; // number of operands after "--"
};

// CLI11 treats "--name=" as an option without a value: split it into two words, so that the value
// is "".
std::vector<std::string> to_texts(std::span<char* const> words)
{
    std::vector<std::string> result;
    bool options_end = false;
    for (const char* word : words) {
        std::string text = word;
        options_end = options_end || text == "--";
        const bool empty_value =
            !options_end && text.starts_with("--") && text.find('=') + 1 == text.size();
        if (empty_value)
            text.pop_back();
        result.push_back(std::move(text));
        if (empty_value)
            result.emplace_back();
    }
    return result;
}

} // namespace

Parsed parse(const Command& command, std::span<char* const> words)
{
    std::vector<std::string> all = to_texts(words);
    const auto mark = std::find(all.begin(), all.end(), "--");
    const auto after_mark = mark == all.end() ? 0 : all.end() - mark - 1;
    CommandLine line(command, all.size(), static_cast<std::size_t>(after_mark));
    return line.parse(std::move(all));
}

} // namespace zncctl
