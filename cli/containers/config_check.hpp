// config_check.hpp - checks a bundle's config.json and describes the findings: those of the
// library, and ambiguities (duplicate keys and the like) found before. Used by config check, and by
// create and run.
#ifndef ZNC_CLI_CONTAINERS_CONFIG_CHECK_HPP
#define ZNC_CLI_CONTAINERS_CONFIG_CHECK_HPP

#include "front/json.hpp"

#include <vector>

namespace zncctl {

struct ConfigFinding {
    bool refused;         // else ignored
    std::string path;     // "process.args[0]", "." for the document
    std::string expected; // expected type; "" for an unknown member
    std::string found;
};

// Nullopt if the text is not JSON, or if the library and this program would read it differently.
std::optional<Json> parse_config(std::string_view text, JsonNotes* notes = nullptr);

// The object in a file. Throws std::runtime_error with the path and the problem.
Json read_object(const std::string& path, Annotations annotations);

// Nullopt if the text is not JSON; `problem` then describes the error.
std::optional<std::vector<ConfigFinding>> check_config(std::string_view text, std::string& problem);

// Why `create` and `run` refuse a document that the library would accept: parsers would read it
// differently. "" if they do not.
std::string ambiguity(std::string_view text, std::optional<Json>* config = nullptr);

} // namespace zncctl

#endif
