#include "parse.hpp"

#include <algorithm>

namespace zncctl {
namespace {

// Splits "image inspect" at its spaces and compares with the words typed.
std::size_t words_matched(std::string_view name, std::span<char* const> words)
{
    std::size_t count = 0;
    while (!name.empty()) {
        const std::size_t end = std::min(name.find(' '), name.size());
        if (count >= words.size() || name.substr(0, end) != words[count])
            return 0;
        count++;
        name.remove_prefix(std::min(end + 1, name.size()));
    }
    return count;
}

class Parser {
  public:
    Parser(const Command& command, std::span<char* const> words) : command_(command), words_(words)
    {
    }

    Parsed run()
    {
        bool options_end = false;
        while (next_ < words_.size() && result_.problem.empty() && !result_.help) {
            const char* word = words_[next_++];
            const std::string_view text = word;
            if (options_end || text.size() < 2 || text[0] != '-')
                result_.args.add_operand(word);
            else if (text == "--")
                options_end = true;
            else if (text[1] == '-')
                long_option(word + 2);
            else
                short_options(word + 1);
        }
        if (result_.problem.empty() && !result_.help)
            count_operands();
        return std::move(result_);
    }

  private:
    void long_option(const char* word)
    {
        const std::string_view text = word;
        const std::size_t equals = text.find('=');
        const std::string_view name = text.substr(0, equals);
        const char* joined = equals != text.npos ? word + equals + 1 : nullptr;
        if (name == "help" && joined == nullptr) {
            result_.help = true;
            return;
        }
        for (const Option& option : command_.options)
            if (name == option.name) {
                take(option, joined);
                return;
            }
        result_.problem = "unknown option '--" + std::string(name) + "'";
    }

    void short_options(const char* letters)
    {
        while (*letters != '\0' && result_.problem.empty() && !result_.help) {
            const char letter = *letters++;
            const Option* option = by_letter(letter);
            if (option == nullptr) {
                if (letter == 'h')
                    result_.help = true;
                else
                    result_.problem = std::string("unknown option '-") + letter + "'";
            } else if (option->value != nullptr) {
                take(*option, *letters != '\0' ? letters : nullptr);
                return;
            } else {
                take(*option, nullptr);
            }
        }
    }

    const Option* by_letter(char letter) const
    {
        for (const Option& option : command_.options)
            if (option.letter == letter)
                return &option;
        return nullptr;
    }

    void take(const Option& option, const char* joined)
    {
        if (option.value == nullptr && joined != nullptr)
            result_.problem = std::string("option '--") + option.name + "' takes no value";
        else if (option.value == nullptr)
            result_.args.add_option(option, nullptr);
        else if (joined != nullptr)
            result_.args.add_option(option, joined);
        else if (next_ < words_.size())
            result_.args.add_option(option, words_[next_++]);
        else
            result_.problem = std::string("option '--") + option.name + "' needs a value";
    }

    void count_operands()
    {
        const std::size_t given = result_.args.operands();
        if (given < command_.min_operands)
            result_.problem = "too few arguments";
        else if (given > command_.max_operands)
            result_.problem = "too many arguments";
    }

    const Command& command_;
    std::span<char* const> words_;
    std::size_t next_ = 0;
    Parsed result_;
};

// "-s, --signal SIG"
std::string option_text(const Option& option, const char* between)
{
    std::string text;
    if (option.letter != 0)
        text = std::string("-") + option.letter + between;
    text += std::string("--") + option.name;
    if (option.value != nullptr)
        text += std::string(" ") + option.value;
    return text;
}

std::string table_row(const std::string& left, const char* right, std::size_t width)
{
    return "  " + left + std::string(width - left.size() + 2, ' ') + right + "\n";
}

} // namespace

Found find_command(std::span<char* const> words)
{
    for (const Command& command : commands())
        if (const std::size_t count = words_matched(command.name, words); count != 0)
            return {&command, count};
    return {};
}

Parsed parse(const Command& command, std::span<char* const> words)
{
    return Parser(command, words).run();
}

std::string usage_line(const Command& command)
{
    std::string line = std::string("usage: zncctl ") + command.name;
    for (const Option& option : command.options)
        line += " [" + option_text(option, "|") + "]";
    if (command.arguments[0] != '\0')
        line += std::string(" ") + command.arguments;
    return line + "\n";
}

std::string usage_line()
{
    return "usage: zncctl COMMAND [ARGUMENTS] | --help | --version\n";
}

std::string help_text(const Command& command)
{
    std::string text = usage_line(command) + "\n" + command.help + "\n";
    std::size_t width = 0;
    for (const Option& option : command.options)
        width = std::max(width, option_text(option, ", ").size());
    if (width != 0)
        text += "\noptions:\n";
    for (const Option& option : command.options)
        text += table_row(option_text(option, ", "), option.help, width);
    return text;
}

std::string help_text()
{
    std::string text = usage_line() + "\ncommands:\n";
    std::size_t width = 0;
    for (const Command& command : commands())
        width = std::max(width, std::string_view(command.name).size());
    for (const Command& command : commands())
        text += table_row(command.name, command.help, width);
    return text + "\n'zncctl COMMAND --help' tells more about one command.\n";
}

} // namespace zncctl
