// Fetches images into the store.
#include "cli/containers/container.hpp"
#include "cli/images/image_fetcher.hpp"
#include "cli/images/reference.hpp"
#include "commands.hpp"
#include "front/layout.hpp"

#include <fmt/format.h>
#include <stdexcept>

namespace zncctl {
namespace {

// The platform that --platform, --os and --arch select; images for other operating systems than
// Linux exist, but are never meant on this machine unless they are asked for.
std::vector<std::string> platform_options(const Arguments& args)
{
    std::string os = args.value("os", kHostOs);
    std::string arch = args.value("arch", host_arch().c_str());
    std::string variant;
    if (const char* platform = args.value("platform")) {
        const std::string text = platform;
        const std::size_t first = text.find('/');
        const std::size_t second = first == text.npos ? first : text.find('/', first + 1);
        os = text.substr(0, first);
        arch = first == text.npos ? "" : text.substr(first + 1, second - first - 1);
        variant = second == text.npos ? "" : text.substr(second + 1);
    }
    std::vector<std::string> options = {"--override-os=" + os};
    if (!arch.empty())
        options.push_back("--override-arch=" + arch);
    if (!variant.empty())
        options.push_back("--override-variant=" + variant);
    return options;
}

std::vector<std::string> skopeo_options(const Arguments& args)
{
    constexpr const char* kPassedOn[][2] = {{"tls-verify", "--src-tls-verify"},
                                            {"authfile", "--src-authfile"},
                                            {"creds", "--src-creds"},
                                            {"cert-dir", "--src-cert-dir"}};
    std::vector<std::string> options = platform_options(args);
    for (const auto& [own, of_skopeo] : kPassedOn)
        if (const char* value = args.value(own))
            options.push_back(fmt::format("{}={}", of_skopeo, value));
    return options;
}

int pull(const Arguments& args, const std::string& operand)
try {
    std::string problem;
    const auto what = fetch_source(operand, problem);
    if (!what)
        return failure(operand, problem);
    const Added added = fetch_image(*what, skopeo_options(args), args.has("quiet"));
    return added.status != kExitOk ? added.status : print_result(id_digits(added.id));
} catch (const std::runtime_error& error) {
    return failure(operand, error.what());
}

} // namespace

int cmd_pull(const Arguments& args)
{
    if (args.has("platform") && (args.has("os") || args.has("arch")))
        return usage_failure("--platform cannot be combined with --os and --arch");
    return for_each_id(args.all_operands(), true,
                       [&](const std::string& operand) { return pull(args, operand); });
}

} // namespace zncctl
