#include "container_options.hpp"

#include "environment.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/output.hpp"
#include "front/progress.hpp"
#include "limits.hpp"
#include "mount_options.hpp"
#include "network_files.hpp"
#include "rights_options.hpp"

#include "cli/images/image_settings.hpp"
#include "cli/images/pull_policy.hpp"
#include "cli/images/wanted_platform.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <random>
#include <sys/stat.h>

namespace zncctl {
namespace {

constexpr std::size_t kHostNameMax = 64; // the kernel's limit

// A configuration is JSON, which can contain only UTF-8.
const std::string& checked(const char* what, const std::string& text)
{
    if (!is_utf8(text))
        throw BadOption(fmt::format("{} '{}' is not valid UTF-8", what, printable(text)));
    return text;
}

std::vector<std::string> read_entrypoint(const std::string& text)
{
    if (text.empty())
        return {};
    const auto json = text.starts_with('[') ? parse_json(text) : std::nullopt;
    if (!is_array(json ? &*json : nullptr))
        return {checked("--entrypoint", text)};
    std::vector<std::string> words;
    for (const Json& word : *json) {
        if (!word.is_string())
            throw BadOption("--entrypoint is a program or a JSON array of strings");
        words.push_back(word.get<std::string>());
    }
    return words;
}

// Takes the next line of an environment file, without a carriage return at its end.
std::string_view next_line(std::string_view& rest)
{
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

std::string read_small_file(const std::string& path)
{
    constexpr off_t kMax = 1024 * 1024;
    struct stat st = {};
    const znc::UniqueFd file = znc::open_regular(path.c_str(), &st);
    if (!file)
        throw std::runtime_error(fmt::format("{}: {}", path, read_error_text()));
    if (st.st_size > kMax)
        throw std::runtime_error(fmt::format("{}: it is larger than 1 MiB", path));
    const znc::FileText text = znc::read_text(file.get(), st);
    if (text.bytes == nullptr)
        throw std::runtime_error(fmt::format("{}: {}", path, error_text()));
    return {text.bytes.get(), text.len};
}

void read_environment_file(const std::string& path, Environment& environment)
{
    const std::string text = read_small_file(path);
    std::string_view rest = text;
    for (std::size_t number = 1; !rest.empty(); number++) {
        std::string_view line = next_line(rest);
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        if (line.empty() || line.front() == '#')
            continue;
        const std::string_view name = line.substr(0, line.find('='));
        if (name.empty() || name.find_first_of(std::string_view(" \t\0", 3)) != name.npos ||
            line.find('\0') != line.npos || !is_utf8(line))
            throw std::runtime_error(fmt::format("{}: line {} is not NAME=VALUE", path, number));
        environment.apply(std::string(line));
    }
}

std::vector<std::string> read_environment(const Arguments& args)
{
    Environment environment({});
    for (const std::string& path : args.values("env-file"))
        read_environment_file(path, environment);
    for (const std::string& text : args.values("env"))
        if (!environment.apply(checked("--env", text)))
            throw BadOption(fmt::format("'{}' does not name a variable", text));
    for (const std::string& entry : environment.entries())
        if (!is_utf8(entry)) // the value comes from zncctl's own environment and may be secret
            throw BadOption(fmt::format("the value of the variable '{}' is not valid UTF-8",
                                        printable(entry.substr(0, entry.find('=')))));
    return environment.entries();
}

Json read_labels(const Arguments& args)
{
    Json labels = Json::object();
    for (const std::string& text : args.values("label")) {
        const std::size_t equals = std::min(text.find('='), text.size());
        const std::string name = text.substr(0, equals);
        if (name.empty() || has_controls(text))
            throw BadOption(fmt::format(
                "--label is NAME[=VALUE] without control characters, not '{}'", printable(text)));
        if (name == kStickyAnnotation)
            throw BadOption(fmt::format("the label '{}' is reserved", name));
        labels[name] = text.substr(std::min(equals + 1, text.size()));
    }
    return labels;
}

std::string read_directory(const Arguments& args)
{
    std::string directory = checked("--workdir", args.value("workdir", ""));
    if (args.has("workdir") && !directory.starts_with('/'))
        throw BadOption("--workdir must be an absolute path");
    return directory;
}

std::string read_host_name(const Arguments& args)
{
    std::string name = args.value("hostname", "");
    if (args.has("hostname") &&
        (name.empty() || name.size() > kHostNameMax || host_name_of(name) != name))
        throw BadOption(fmt::format("--hostname is 1 to {} letters, digits, '-', '.' and '_', "
                                    "not '{}'",
                                    kHostNameMax, printable(name)));
    return name;
}

void read_flags(const Arguments& args, ContainerOptions& options)
{
    options.tty = args.has("tty");
    options.interactive = args.has("interactive");
    options.remove = args.has("rm");
    options.read_only = args.has("read-only");
    if (const std::string problem = platform_problem(args); !problem.empty())
        throw BadOption(problem);
    if (!is_pull_policy_known(args))
        throw BadOption("--pull is \"missing\", \"always\" or \"never\"");
    if (const std::string policy = args.value("restart", "no"); policy != "no")
        throw BadOption(fmt::format("--restart {} is not supported: no process restarts "
                                    "containers; let a service manager start zncctl",
                                    printable(policy)));
}

} // namespace

bool ContainerOptions::changes_configuration() const
{
    return !command.empty() || entrypoint || !environment.empty() || !directory.empty() ||
           !user.empty() || !host_name.empty() || !labels.empty() || !mounts.empty() ||
           !limits.empty() || !added_capabilities.empty() || !dropped_capabilities.empty() ||
           no_new_privileges || !seccomp.is_null() || read_only;
}

ContainerOptions read_container_options(const Arguments& args, std::vector<std::string> command)
{
    ContainerOptions options;
    if (!Progress(args.value("progress", "auto")).known())
        throw BadOption(std::string(kProgressKinds));
    for (const std::string& word : command)
        checked("the word", word);
    options.command = std::move(command);
    if (const char* entrypoint = args.value("entrypoint"))
        options.entrypoint = read_entrypoint(entrypoint);
    options.environment = read_environment(args);
    options.directory = read_directory(args);
    options.user = checked("--user", args.value("user", ""));
    if (args.has("user") && options.user.empty())
        throw BadOption("--user must name a user");
    options.host_name = read_host_name(args);
    options.labels = read_labels(args);
    options.mounts = read_mounts(args);
    read_rights(args, options);
    std::string problem;
    auto limits = limits_of(args, problem);
    if (!limits)
        throw BadOption(problem);
    options.limits = *std::move(limits);
    read_flags(args, options);
    return options;
}

int read_container_options(const Arguments& args, std::vector<std::string> command, int failed,
                           ContainerOptions& options)
try {
    options = read_container_options(args, std::move(command));
    return kExitOk;
} catch (const BadOption& bad) {
    return usage_failure(bad.what());
} catch (const std::runtime_error& error) {
    static_cast<void>(failure("", error.what()));
    return failed;
}

namespace {

// The library accepts more characters, but ids with these could not be distinguished from options
// and from operands like "ID:PATH".
bool is_name(std::string_view name)
{
    const auto is_plain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    return !name.empty() && is_plain(name[0]) && std::all_of(name.begin(), name.end(), [&](char c) {
        return is_plain(c) || c == '.' || c == '_' || c == '-';
    });
}

} // namespace

std::string id_of_new_container(const Arguments& args)
{
    if (const char* name = args.value("name")) {
        if (!is_name(name))
            throw BadOption(fmt::format("--name: '{}' must consist of letters, digits, \".\", "
                                        "\"_\" and \"-\", and begin with a letter or digit",
                                        printable(name)));
        return name;
    }
    std::random_device random;
    return fmt::format("{:08x}{:04x}", random(), random() & 0xffffU);
}

} // namespace zncctl
