// config_check.hpp - what create makes of a bundle's config.json: members it refuses, members it
// takes for absent because they are of another type, and members it does not know. Used by config
// check.
#ifndef ZNC_CLI_CONTAINERS_CONFIG_CHECK_HPP
#define ZNC_CLI_CONTAINERS_CONFIG_CHECK_HPP

#include "front/json.hpp"

#include <vector>

namespace zncctl {

struct ConfigFinding {
    bool refused;         // else ignored
    std::string path;     // "process.args[0]"
    std::string expected; // what belongs there; "" for what is not known at all
    std::string found;
    bool in_list = false; // an element of a list: the library would take the list as ending there
};

std::vector<ConfigFinding> check_config(const cJSON* document);

// What of a document `create` and `run` refuse although the library takes it, because it does not
// mean what it says: a key that is there twice, a list with an element of a wrong type. "" for
// nothing.
std::string ambiguity(const cJSON* document);

} // namespace zncctl

#endif
