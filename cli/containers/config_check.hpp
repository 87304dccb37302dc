// config_check.hpp - what create makes of a bundle's config.json, in words: the library says it,
// and what readers understand differently is found before. Used by config check, and by create and
// run.
#ifndef ZNC_CLI_CONTAINERS_CONFIG_CHECK_HPP
#define ZNC_CLI_CONTAINERS_CONFIG_CHECK_HPP

#include "front/json.hpp"

#include <vector>

namespace zncctl {

struct ConfigFinding {
    bool refused;         // else ignored
    std::string path;     // "process.args[0]", "." for the document
    std::string expected; // what belongs there; "" for what is not known at all
    std::string found;
};

// Nothing for what is no config.json that the library and this program read alike.
std::optional<Json> parse_config(std::string_view text, JsonNotes* notes = nullptr);

// Nothing when it is no JSON; `problem` then says why.
std::optional<std::vector<ConfigFinding>> check_config(std::string_view text, std::string& problem);

// What of a document `create` and `run` refuse although the library takes it, because it does not
// mean what it says to every reader. "" for nothing.
std::string ambiguity(std::string_view text);

} // namespace zncctl

#endif
