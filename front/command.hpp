// command.hpp - describes one command: its name, options and operands. The parser, the usage lines
// and the help texts work from this description. zncctl has a table of commands
// (cli/commands/commands.cpp), zncctl-import has a single one.
#ifndef ZNC_FRONT_COMMAND_HPP
#define ZNC_FRONT_COMMAND_HPP

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace zncctl {

// What kind of word is expected, for completion.
enum class Word { kAny, kDirectory, kFile, kContainer, kImage, kSignal, kChoice };

struct Option {
    char letter;       // 0: none
    const char* name;  // without the dashes; the key in Arguments
    const char* value; // name of its value in the usage line; null: a flag
    const char* help;
    Word word = Word::kAny;
    const char* choices = ""; // for Word::kChoice, separated by blanks
};

// The options and operands that the user gave, checked against the command's description.
class Arguments {
  public:
    void add_option(const std::string& name, std::string value)
    {
        options_[name].push_back(std::move(value));
    }
    void add_operand(std::string operand) { operands_.push_back(std::move(operand)); }
    void replace_operand(std::size_t i, std::string operand) { operands_[i] = std::move(operand); }

    [[nodiscard]] bool has(const std::string& name) const { return options_.contains(name); }

    // The value of an option, or `absent`. If it is given several times, the last one is used.
    [[nodiscard]] const char* value(const std::string& name, const char* absent = nullptr) const
    {
        const auto found = options_.find(name);
        return found != options_.end() ? found->second.back().c_str() : absent;
    }
    // The values of an option that may be given several times, in their order.
    [[nodiscard]] std::vector<std::string> values(const std::string& name) const
    {
        const auto found = options_.find(name);
        return found != options_.end() ? found->second : std::vector<std::string>();
    }

    [[nodiscard]] std::size_t operands() const { return operands_.size(); }
    [[nodiscard]] const char* operand(std::size_t i, const char* absent = nullptr) const
    {
        return i < operands_.size() ? operands_[i].c_str() : absent;
    }
    [[nodiscard]] const std::vector<std::string>& all_operands() const { return operands_; }

  private:
    std::map<std::string, std::vector<std::string>> options_;
    std::vector<std::string> operands_;
};

inline constexpr std::size_t kMany = SIZE_MAX; // no upper limit

// Whether the words after the first operand belong to another program, so that none of them is an
// option.
enum class ProgramWords {
    kNone,
    kAll,
    kAfterMark, // the same, but a "--" between the first operand and these words is dropped
    kAfterName, // only if the option --name precedes them
};

struct Command {
    const char* name;      // for example "image inspect"
    const char* aliases;   // other names, separated by blanks
    const char* arguments; // operands as the usage line shows them
    const char* help;
    std::span<const Option> options;
    std::size_t min_operands;
    std::size_t max_operands;
    Word word; // what kind of words the operands are
    const char* choices;
    int (*run)(const Arguments& args); // returns the exit status; null in zncctl-import
    ProgramWords program = ProgramWords::kNone;
};

} // namespace zncctl

#endif
