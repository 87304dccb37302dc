// command.hpp - what a command of zncctl is. The table in commands.cpp is the only list of
// commands; the parser, the usage lines and the help texts read it. Handlers are in cmd_<name>.cpp.
#ifndef ZNCCTL_COMMAND_HPP
#define ZNCCTL_COMMAND_HPP

#include <cstddef>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace zncctl {

struct Option {
    char letter;       // 0: none
    const char* name;  // without the dashes; the key in Arguments
    const char* value; // what its value is called in the usage line; null: a flag
    const char* help;
};

// What the user gave, checked against the command's row. The texts are those of argv.
class Arguments {
  public:
    void add_option(const Option& option, const char* value)
    {
        options_.emplace_back(&option, value);
    }
    void add_operand(const char* operand) { operands_.push_back(operand); }

    [[nodiscard]] bool has(std::string_view name) const { return find(name) != nullptr; }

    // The value of an option, or `absent`. The last of several counts.
    [[nodiscard]] const char* value(std::string_view name, const char* absent = nullptr) const
    {
        const auto* found = find(name);
        return found != nullptr ? found->second : absent;
    }

    [[nodiscard]] std::size_t operands() const { return operands_.size(); }
    [[nodiscard]] const char* operand(std::size_t i, const char* absent = nullptr) const
    {
        return i < operands_.size() ? operands_[i] : absent;
    }

  private:
    using Given = std::pair<const Option*, const char*>;

    [[nodiscard]] const Given* find(std::string_view name) const
    {
        const Given* found = nullptr;
        for (const Given& given : options_)
            if (name == given.first->name)
                found = &given;
        return found;
    }

    std::vector<Given> options_;
    std::vector<const char*> operands_;
};

struct Command {
    const char* name;      // "image inspect": words as they are typed
    const char* arguments; // operands as the usage line shows them
    const char* help;
    std::span<const Option> options;
    std::size_t min_operands;
    std::size_t max_operands;
    int (*run)(const Arguments& args); // returns the exit status
};

std::span<const Command> commands();

int cmd_create(const Arguments& args);
int cmd_delete(const Arguments& args);
int cmd_image_inspect(const Arguments& args);
int cmd_inspect(const Arguments& args);
int cmd_kill(const Arguments& args);
int cmd_list(const Arguments& args);
int cmd_ping(const Arguments& args);
int cmd_start(const Arguments& args);
int cmd_state(const Arguments& args);
int cmd_unpack(const Arguments& args);

} // namespace zncctl

#endif
