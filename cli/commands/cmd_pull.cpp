// Fetches images into the store.
#include "cli/containers/container.hpp"
#include "cli/images/image_fetcher.hpp"
#include "cli/images/reference.hpp"
#include "cli/images/wanted_platform.hpp"
#include "commands.hpp"

#include <stdexcept>

namespace zncctl {
namespace {

int pull(const Arguments& args, const std::string& operand)
try {
    std::string problem;
    const auto what = fetch_source(operand, problem);
    if (!what)
        return failure(operand, problem);
    const Added added = fetch_image(*what, fetch_options(args), args.has("quiet"));
    return added.status != kExitOk ? added.status : print_result(id_digits(added.id));
} catch (const std::runtime_error& error) {
    return failure(operand, error.what());
}

} // namespace

int cmd_pull(const Arguments& args)
{
    if (const std::string problem = platform_problem(args); !problem.empty())
        return usage_failure(problem);
    return for_each_id(args.all_operands(), true,
                       [&](const std::string& operand) { return pull(args, operand); });
}

} // namespace zncctl
