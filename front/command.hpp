// command.hpp - one command of a command line: its name, options and operands. The parser, usage
// lines and help texts are made from it. zncctl has a table of them (cli/commands/commands.cpp);
// the program that `zncctl import` runs has one.
#ifndef ZNC_FRONT_COMMAND_HPP
#define ZNC_FRONT_COMMAND_HPP

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

// What stands where a word is expected, for completion.
enum class Word { kAny, kDirectory, kFile, kContainer, kSignal, kChoice };

struct Option {
    char letter;       // 0: none
    const char* name;  // without the dashes; the key in Arguments
    const char* value; // what its value is called in the usage line; null: a flag
    const char* help;
    Word word = Word::kAny;
    const char* choices = ""; // of Word::kChoice, separated by blanks
};

// What the user gave, checked against the command's row.
class Arguments {
  public:
    void add_option(const std::string& name, std::string value)
    {
        options_.insert_or_assign(name, std::move(value));
    }
    void add_operand(std::string operand) { operands_.push_back(std::move(operand)); }

    [[nodiscard]] bool has(const std::string& name) const { return options_.contains(name); }

    // The value of an option, or `absent`. The last of several counts.
    [[nodiscard]] const char* value(const std::string& name, const char* absent = nullptr) const
    {
        const auto found = options_.find(name);
        return found != options_.end() ? found->second.c_str() : absent;
    }

    [[nodiscard]] std::size_t operands() const { return operands_.size(); }
    [[nodiscard]] const char* operand(std::size_t i, const char* absent = nullptr) const
    {
        return i < operands_.size() ? operands_[i].c_str() : absent;
    }
    [[nodiscard]] const std::vector<std::string>& all_operands() const { return operands_; }

  private:
    std::map<std::string, std::string> options_;
    std::vector<std::string> operands_;
};

inline constexpr std::size_t kMany = SIZE_MAX; // as many operands as there are

struct Command {
    const char* name;      // "image inspect": words as they are typed
    const char* aliases;   // other names, separated by blanks
    const char* arguments; // operands as the usage line shows them
    const char* help;
    std::span<const Option> options;
    std::size_t min_operands;
    std::size_t max_operands;
    Word word; // what the operands are
    const char* choices;
    int (*run)(const Arguments& args); // returns the exit status; null where another program has it
};

} // namespace zncctl

#endif
