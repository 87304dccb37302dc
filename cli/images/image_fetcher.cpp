#include "image_fetcher.hpp"

#include "front/output.hpp"
#include "helper_program.hpp"
#include "reference.hpp"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace zncctl {
namespace {

constexpr const char* kSkopeo = "skopeo";
constexpr std::string_view kRegistry = "docker://";
// Sources of skopeo without a name of their own: the image is called as the directory.
constexpr std::string_view kDirectories[] = {"oci:", "dir:"};
// Sources behind whose prefix is a name.
constexpr std::string_view kEngines[] = {"containers-storage:", "docker-daemon:"};

std::optional<FetchSource> named(std::string source, std::string_view name, const char* host,
                                 std::string& problem)
{
    const auto reference = parse_reference(name, host);
    if (!reference) {
        problem = "it is not a valid name of an image";
        return std::nullopt;
    }
    return FetchSource{source.empty() ? fmt::format("{}{}", kRegistry, reference->text())
                                      : std::move(source),
                       reference->text(), reference->digest};
}

// The last component of the path, with the tag behind it.
std::string_view base_name(std::string_view path)
{
    while (path.ends_with('/'))
        path.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? path : path.substr(slash + 1);
}

int skopeo_failure(int error)
{
    const int status = failure(kSkopeo, std::strerror(error)); // NOLINT(concurrency-mt-unsafe)
    if (error == ENOENT)
        print_hint("'zncctl pull' fetches images with skopeo: install the package skopeo");
    return status;
}

} // namespace

std::optional<FetchSource> fetch_source(const std::string& operand, std::string& problem)
{
    if (operand.starts_with(kRegistry))
        return named("", std::string_view(operand).substr(kRegistry.size()), kDefaultRegistry,
                     problem);
    for (const std::string_view prefix : kDirectories)
        if (operand.starts_with(prefix))
            return named(operand, base_name(std::string_view(operand).substr(prefix.size())),
                         kLocalHost, problem);
    for (const std::string_view prefix : kEngines)
        if (operand.starts_with(prefix))
            return named(operand, std::string_view(operand).substr(prefix.size()), kDefaultRegistry,
                         problem);
    return named("", operand, kDefaultRegistry, problem);
}

Added fetch_image(const FetchSource& what, const std::vector<std::string>& options, bool quiet)
{
    const ImageStage stage;
    const std::string layout = stage.path() + "/pulled";
    std::vector<std::string> arguments = {"copy"};
    if (quiet)
        arguments.emplace_back("--quiet");
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {"--", what.source, fmt::format("oci:{}:image", layout)});
    const ProgramEnd end = run_program(kSkopeo, arguments, -1, Output::kError);
    if (end.error == 0 && end.status == kExitOk)
        return add_layout(layout, {what.name}, what.digest);
    Added failed;
    failed.status = end.error != 0 ? skopeo_failure(end.error)
                                   : failure(what.source, "skopeo could not copy the image");
    return failed;
}

} // namespace zncctl
