#include "parse.hpp"

#include "words.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>

namespace zncctl {
namespace {

const Option* find_option(const Command& command, std::string_view name, char letter)
{
    for (const Option& option : command.options)
        if (name.empty() ? option.letter == letter : name == option.name)
            return &option;
    return nullptr;
}

// Whether the option may be among the words. Values and operands that look like it count, too.
bool may_be_in(const std::vector<std::string>& words, const Option& option)
{
    return std::any_of(words.begin(), words.end(), [&option](std::string_view word) {
        if (word.starts_with("--"))
            return word.substr(2, word.find('=') - 2) == option.name;
        return word.starts_with('-') && option.letter != 0 && word.find(option.letter) != word.npos;
    });
}

// Sets up the parser for one command and these words: CLI11 compares every option with all others,
// so it gets only those that may be in the words.
class CommandLine {
  public:
    CommandLine(const Command& command, const std::vector<std::string>& words,
                std::size_t after_mark)
        : command_(command), operands_(words.size()), after_mark_(after_mark)
    {
        app_.set_help_flag(find_option(command, "", 'h') != nullptr ? "--help" : "-h,--help");
        values_.resize(command.options.size());
        options_.resize(command.options.size());
        for (std::size_t i = 0; i < command.options.size(); i++)
            if (may_be_in(words, command.options[i]))
                options_[i] = add(command.options[i], values_[i]);
        // One option for each word: CLI11 would split an operand such as "[a,b]" if it were given a
        // list. The number of operands is checked afterwards.
        for (std::size_t i = 0; i < words.size(); i++)
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
            unknown_option(app_.remaining().front(), result);
            return result;
        } catch (const CLI::ParseError& e) {
            result.problem = problem(e);
            return result;
        }
        fill(result);
        return result;
    }

  private:
    CLI::Option* add(const Option& option, std::string& value)
    {
        std::string names = fmt::format("--{}", option.name);
        if (option.letter != 0)
            names = fmt::format("-{},{}", option.letter, names);
        if (option.value == nullptr)
            return app_.add_flag(names)->disable_flag_override();
        return app_.add_option(names, value)
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

    void unknown_option(std::string_view word, Parsed& result) const
    {
        const std::string_view name = word.substr(0, word.find('='));
        result.problem = fmt::format("unknown option '{}'", name);
        std::vector<std::string> names = {"--help"};
        for (const Option& option : command_.options)
            names.push_back(fmt::format("--{}", option.name));
        if (const std::string meant = closest_word(name, names); !meant.empty())
            result.hint = fmt::format("did you mean '{}'?", meant);
    }

    void fill(Parsed& result)
    {
        for (std::size_t i = 0; i < command_.options.size(); i++) {
            const Option& option = command_.options[i];
            if (options_[i] == nullptr)
                continue;
            for (const std::string& value : options_[i]->results())
                result.args.add_option(option.name, value);
        }
        for (std::size_t i = 0; i < operands_.size(); i++)
            if (app_.count(fmt::format("operand{}", i)) != 0)
                result.args.add_operand(std::move(operands_[i]));
        const std::size_t given = result.args.operands();
        // CLI11 takes options that look like negative numbers for operands.
        for (std::size_t i = 0; i + after_mark_ < given; i++)
            if (const std::string_view word = result.args.operand(i);
                word.size() > 1 && word[0] == '-')
                unknown_option(word, result);
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
    std::vector<CLI::Option*> options_; // owned by app_; null: not among the words
    std::vector<std::string> operands_;
    std::size_t after_mark_; // number of operands after "--"
};

// Whether the value of the option, or of the last of several letters, is in the next word.
bool takes_next_word(const Command& command, std::string_view word)
{
    if (word.starts_with("--")) {
        const Option* option = find_option(command, word.substr(2), 0);
        return option != nullptr && option->value != nullptr;
    }
    for (std::size_t i = 1; i < word.size(); i++)
        if (const Option* option = find_option(command, "", word[i]);
            option != nullptr && option->value != nullptr)
            return i + 1 == word.size();
    return false;
}

// For a command that runs a program: puts the mark that ends the options before the first operand.
std::vector<const char*> mark_program(const Command& command, std::span<char* const> words)
{
    std::vector<const char*> marked(words.begin(), words.end());
    std::size_t at = 0;
    bool named = false;
    while (at < marked.size() && marked[at][0] == '-' && marked[at][1] != '\0') {
        if (std::string_view(marked[at]) == "--")
            return marked;
        named = named || std::string_view(marked[at]) == "--name" ||
                std::string_view(marked[at]).starts_with("--name=");
        at += takes_next_word(command, marked[at]) ? 2 : 1;
    }
    if (at >= marked.size() || (command.program == ProgramWords::kAfterName && !named))
        return marked;
    const auto operand = marked.begin() + static_cast<std::ptrdiff_t>(at);
    if (command.program == ProgramWords::kAfterMark && operand + 1 != marked.end() &&
        std::string_view(operand[1]) == "--")
        marked.erase(operand + 1);
    marked.insert(marked.begin() + static_cast<std::ptrdiff_t>(at), "--");
    return marked;
}

const Option* signal_option(const Command& command)
{
    for (const Option& option : command.options)
        if (option.word == Word::kSignal)
            return &option;
    return nullptr;
}

// Whether a word is a signal that is given like an option: "-9", "-KILL".
bool is_signal_word(std::string_view word)
{
    const auto all = [text = word.substr(std::min<std::size_t>(word.size(), 1))](char low,
                                                                                 char high) {
        return std::all_of(text.begin(), text.end(), [=](char c) { return c >= low && c <= high; });
    };
    constexpr std::size_t kNameMin = 4; // "-HUP"; shorter ones can be several flags
    return word.starts_with('-') && word.size() > 1 &&
           (all('0', '9') || (word.size() >= kNameMin && all('A', 'Z')));
}

// CLI11 treats "--name=" as an option without a value: split it into two words, so that the value
// is "".
std::vector<std::string> to_texts(const Command& command, std::span<const char* const> words)
{
    std::vector<std::string> result;
    const Option* signal = signal_option(command);
    bool options_end = false;
    bool is_value = false;
    for (const char* word : words) {
        std::string text = word;
        options_end = options_end || text == "--";
        if (signal != nullptr && !options_end && !is_value && is_signal_word(text))
            text = fmt::format("--{}={}", signal->name, text.substr(1));
        is_value = !is_value && takes_next_word(command, text);
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
    std::vector<std::string> all =
        to_texts(command, command.program != ProgramWords::kNone
                              ? mark_program(command, words)
                              : std::vector<const char*>(words.begin(), words.end()));
    const auto mark = std::find(all.begin(), all.end(), "--");
    const auto after_mark = mark == all.end() ? 0 : all.end() - mark - 1;
    CommandLine line(command, all, static_cast<std::size_t>(after_mark));
    return line.parse(std::move(all));
}

} // namespace zncctl
