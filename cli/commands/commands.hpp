// commands.hpp - the table of zncctl's commands, the functions that implement them (each in
// cmd_<name>.cpp), and the texts generated from the table. There is no other list of the commands.
// Used by main, the completion scripts, the manual pages and the tests that compare them.
#ifndef ZNC_CLI_COMMANDS_COMMANDS_HPP
#define ZNC_CLI_COMMANDS_COMMANDS_HPP

#include "front/command.hpp"

namespace zncctl {

std::span<const Command> commands();

struct Found {
    const Command* command = nullptr; // null: unknown command
    std::size_t words = 0;            // number of words that its name has
};

// Finds the command that the first words name, by its name or an alias.
Found find_command(std::span<char* const> words);

// Why there is no such command although container engines have it, and what to do instead; "" for
// others. `words` are not empty.
std::string_view reason_for_absence(std::span<char* const> words);

std::string usage_line(); // "usage: zncctl COMMAND ...\n"
std::string help_text();
// For a manual page in scdoc format: the synopsis of each command, followed by its options.
std::string manual_text();

std::string bash_completion();
std::string zsh_completion();
std::string fish_completion();

int cmd_attach(const Arguments& args);
int cmd_completion(const Arguments& args);
int cmd_config_check(const Arguments& args);
int cmd_container_prune(const Arguments& args);
int cmd_cp(const Arguments& args);
int cmd_create(const Arguments& args);
int cmd_delete(const Arguments& args);
int cmd_diff(const Arguments& args);
int cmd_events(const Arguments& args);
int cmd_exec(const Arguments& args);
int cmd_export(const Arguments& args);
int cmd_image_check(const Arguments& args);
int cmd_image_inspect(const Arguments& args);
int cmd_image_ls(const Arguments& args);
int cmd_import(const Arguments& args);
int cmd_info(const Arguments& args);
int cmd_inspect(const Arguments& args);
int cmd_kill(const Arguments& args);
int cmd_list(const Arguments& args);
int cmd_logs(const Arguments& args);
int cmd_pause(const Arguments& args);
int cmd_ping(const Arguments& args);
int cmd_ps(const Arguments& args);
int cmd_resume(const Arguments& args);
int cmd_run(const Arguments& args);
int cmd_spec(const Arguments& args);
int cmd_start(const Arguments& args);
int cmd_state(const Arguments& args);
int cmd_stats(const Arguments& args);
int cmd_stop(const Arguments& args);
int cmd_storage_df(const Arguments& args);
int cmd_storage_gc(const Arguments& args);
int cmd_top(const Arguments& args);
int cmd_unpack(const Arguments& args);
int cmd_update(const Arguments& args);
int cmd_version(const Arguments& args);
int cmd_wait(const Arguments& args);

// The image store.
int cmd_image_prune(const Arguments& args);
int cmd_images(const Arguments& args);
int cmd_load(const Arguments& args);
int cmd_pull(const Arguments& args);
int cmd_rmi(const Arguments& args);
int cmd_tag(const Arguments& args);

} // namespace zncctl

#endif
