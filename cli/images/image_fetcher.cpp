#include "image_fetcher.hpp"

#include "front/layout.hpp"
#include "front/output.hpp"
#include "helper_program.hpp"
#include "reference.hpp"
#include "wanted_platform.hpp"

#include <cstring>
#include <fmt/format.h>

namespace zncctl {
namespace {

constexpr const char* kSkopeo = "skopeo";
constexpr std::string_view kRegistry = "docker://";
// Sources of skopeo without a name of their own: the image gets the name of the directory.
constexpr std::string_view kDirectories[] = {"oci:", "dir:"};
// Sources whose prefix is followed by a name.
constexpr std::string_view kEngines[] = {"containers-storage:", "docker-daemon:"};

std::optional<Reference> parse_name(std::string_view name, const char* host, std::string& problem)
{
    auto reference = parse_reference(name, host);
    if (!reference)
        problem = "it is not a valid name of an image";
    return reference;
}

std::optional<FetchSource> of_registry(std::string_view name, std::string& problem)
{
    const auto reference = parse_name(name, kDefaultRegistry, problem);
    if (!reference)
        return std::nullopt;
    return FetchSource{fmt::format("{}{}", kRegistry, reference->text()), reference->text(),
                       reference->digest};
}

// An image of another source than a registry is not named by a digest: nothing was compared with
// it.
std::optional<FetchSource> of_other(const std::string& source, std::string_view name,
                                    const char* host, std::string& problem)
{
    const auto reference = parse_name(name.substr(0, name.find('@')), host, problem);
    if (!reference)
        return std::nullopt;
    return FetchSource{source, reference->text(), ""};
}

// The last component of the path, with the tag behind it.
std::string_view base_name(std::string_view path)
{
    while (path.ends_with('/'))
        path.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? path : path.substr(slash + 1);
}

int skopeo_missing(const FetchSource& what, int error)
{
    if (error != ENOENT)
        return failure(kSkopeo, std::strerror(error)); // NOLINT(concurrency-mt-unsafe)
    const int status = failure(what.name, "skopeo, which fetches images, is not installed");
    print_hint("install the package skopeo, or add the image with 'zncctl load'");
    return status;
}

int skopeo_failed(const FetchSource& what, const std::string& printed)
{
    const std::string message = skopeo_message(printed);
    const int status =
        failure(what.name, message.empty() ? "skopeo could not fetch the image" : message);
    if (const std::string hint = fetch_hint(message); !hint.empty())
        print_hint(hint);
    return status;
}

// Undoes the quoting of skopeo's log. Escapes of characters that do not print are left as they are.
std::string unquoted(std::string_view text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size() && text[i] != '"'; i++) {
        if (text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == '"' || text[i + 1] == '\\'))
            i++;
        plain += text[i];
    }
    return plain;
}

} // namespace

std::optional<FetchSource> fetch_source(const std::string& operand, std::string& problem)
{
    if (operand.starts_with(kRegistry))
        return of_registry(std::string_view(operand).substr(kRegistry.size()), problem);
    for (const std::string_view prefix : kDirectories)
        if (operand.starts_with(prefix))
            return of_other(operand, base_name(std::string_view(operand).substr(prefix.size())),
                            kLocalHost, problem);
    for (const std::string_view prefix : kEngines)
        if (operand.starts_with(prefix))
            return of_other(operand, std::string_view(operand).substr(prefix.size()),
                            kDefaultRegistry, problem);
    return of_registry(operand, problem);
}

std::vector<std::string> fetch_options(const Arguments& args)
{
    constexpr const char* kPassedOn[][2] = {{"tls-verify", "--src-tls-verify"},
                                            {"authfile", "--src-authfile"},
                                            {"creds", "--src-creds"},
                                            {"cert-dir", "--src-cert-dir"}};
    // The default is Linux, also for an index that has images for other operating systems.
    const WantedPlatform platform = wanted_platform(args);
    std::vector<std::string> options = {"--override-os=" + platform.os.value_or(kHostOs),
                                        "--override-arch=" + platform.arch.value_or(host_arch())};
    if (!platform.variant.empty())
        options.push_back("--override-variant=" + platform.variant);
    for (const auto& [own, of_skopeo] : kPassedOn)
        if (const char* value = args.value(own))
            options.push_back(fmt::format("{}={}", of_skopeo, value));
    return options;
}

std::string skopeo_message(const std::string& printed)
{
    constexpr std::string_view kFatal = "level=fatal msg=\"";
    constexpr std::string_view kSource = "initializing source ";
    const std::size_t fatal = printed.rfind(kFatal);
    if (fatal == printed.npos) {
        const std::size_t end = printed.find_last_not_of('\n');
        const std::string text = printed.substr(0, end == printed.npos ? 0 : end + 1);
        return text.substr(text.rfind('\n') + 1);
    }
    std::string message = unquoted(std::string_view(printed).substr(fatal + kFatal.size()));
    // The beginning of the message repeats the name of the source.
    const std::size_t end = message.find(": ", kSource.size());
    if (message.starts_with(kSource) && end != message.npos)
        message.erase(0, end + 2);
    return message;
}

const char* fetch_hint(const std::string& message)
{
    struct Hint {
        const char* sign;
        const char* text;
    };
    constexpr Hint kHints[] = {
        {"server gave HTTP response to HTTPS", "--tls-verify=false accepts registries without TLS"},
        {"not look like a TLS handshake", "--tls-verify=false accepts registries without TLS"},
        {"x509:", "--tls-verify=false accepts any certificate, --cert-dir of 'zncctl pull' adds "
                  "one"},
        {"unauthorized", "there may be no such image, or it needs credentials: 'skopeo login' "
                         "stores them"},
        {"denied", "there may be no such image, or it needs credentials: 'skopeo login' stores "
                   "them"},
        {"manifest unknown", "the registry has no such image or tag"},
        {"reading manifest", "the registry may have no such image or tag"},
        {"no such host", "the registry does not answer: check its name and the network"},
        {"dial tcp", "the registry does not answer: check its name and the network"},
        {"pinging container registry", "the registry does not answer as one: check its name"},
    };
    for (const Hint& hint : kHints)
        if (message.find(hint.sign) != message.npos)
            return hint.text;
    return "";
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
    const ProgramEnd end = run_program(kSkopeo, arguments, -1, Output::kErrorsKept);
    if (end.error == 0 && end.status == kExitOk)
        return add_layout(layout, {what.name}, what.digest);
    Added failed;
    failed.status =
        end.error != 0 ? skopeo_missing(what, end.error) : skopeo_failed(what, end.output);
    return failed;
}

} // namespace zncctl
