#include "commands.hpp"
#include "front/output.hpp"

int zncctl::cmd_completion(const Arguments& args)
{
    const std::string shell = args.operand(0);
    if (shell == "bash")
        return print_result(bash_completion());
    if (shell == "zsh")
        return print_result(zsh_completion());
    if (shell == "fish")
        return print_result(fish_completion());
    return usage_failure("completion scripts exist for bash, zsh and fish");
}
