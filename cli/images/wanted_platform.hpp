// wanted_platform.hpp - the platform that the options --platform, --os and --arch select.
#ifndef ZNC_CLI_IMAGES_WANTED_PLATFORM_HPP
#define ZNC_CLI_IMAGES_WANTED_PLATFORM_HPP

#include "front/command.hpp"

#include <optional>
#include <string>

namespace zncctl {

struct WantedPlatform {
    std::optional<std::string> os; // nullopt: not given
    std::optional<std::string> arch;
    std::string variant; // "": not given
};

// Reads the options; --platform is "OS", "OS/ARCH" or "OS/ARCH/VARIANT".
WantedPlatform wanted_platform(const Arguments& args);

// Why the options cannot be used together, or "".
const char* platform_problem(const Arguments& args);

} // namespace zncctl

#endif
