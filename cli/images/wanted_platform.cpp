#include "wanted_platform.hpp"

namespace zncctl {
namespace {

std::optional<std::string> option(const Arguments& args, const char* name)
{
    const char* value = args.value(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

} // namespace

WantedPlatform wanted_platform(const Arguments& args)
{
    const char* platform = args.value("platform");
    if (platform == nullptr)
        return {option(args, "os"), option(args, "arch"), ""};
    const std::string text = platform;
    const std::size_t first = text.find('/');
    if (first == text.npos)
        return {text, std::nullopt, ""};
    const std::size_t second = text.find('/', first + 1);
    return {text.substr(0, first), text.substr(first + 1, second - first - 1),
            second == text.npos ? "" : text.substr(second + 1)};
}

const char* platform_problem(const Arguments& args)
{
    return args.has("platform") && (args.has("os") || args.has("arch"))
               ? "--platform cannot be combined with --os and --arch"
               : "";
}

} // namespace zncctl
