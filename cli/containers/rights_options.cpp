#include "rights_options.hpp"

#include "config_check.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <fmt/format.h>

#include "zarnel/ns.h"

namespace zncctl {
namespace {

using Names = std::vector<std::string>;

constexpr const char* kAll = "ALL";

// All capabilities, or only those that containers have by default.
Names known_capabilities(bool by_default)
{
    struct Search {
        bool by_default;
        Names names;
    } search = {by_default, {}};
    znnsCapabilitiesEach(
        [](const char* name, BOOL in_default, void* context) {
            auto* to = static_cast<Search*>(context);
            if (!to->by_default || in_default != FALSE)
                to->names.emplace_back(name);
        },
        &search);
    return search.names;
}

Names read_capabilities(const char* option, const std::vector<std::string>& values)
{
    const Names known = known_capabilities(false);
    Names names;
    for (const std::string& value : values)
        for (std::string_view rest = value; !rest.empty();) {
            const std::size_t end = std::min(rest.find(','), rest.size());
            std::string name(rest.substr(0, end));
            rest.remove_prefix(std::min(end + 1, rest.size()));
            for (char& c : name)
                if (c >= 'a' && c <= 'z')
                    c = static_cast<char>(c - 'a' + 'A');
            if (name != kAll && !name.starts_with("CAP_"))
                name.insert(0, "CAP_");
            if (name != kAll && !is_among(name, known))
                throw BadOption(
                    fmt::format("--{}: unknown capability '{}'", option, printable(value)));
            names.push_back(name);
        }
    return names;
}

Json read_profile(const std::string& path)
{
    if (path == "unconfined")
        return {{"defaultAction", "SCMP_ACT_ALLOW"}};
    return read_object(path, Annotations::kUnique);
}

void read_security_option(const std::string& text, ContainerOptions& options)
{
    const std::size_t at = std::min(text.find_first_of("=:"), text.size());
    const std::string name = text.substr(0, at);
    const std::string value = text.substr(std::min(at + 1, text.size()));
    if (name == "seccomp" && !value.empty())
        options.seccomp = read_profile(value);
    else if (name == "no-new-privileges" && (at == text.size() || value == "true"))
        options.no_new_privileges = true;
    else if (name == "no-new-privileges" && value == "false")
        options.no_new_privileges = false;
    else if (text != "label=disable" && text != "apparmor=unconfined")
        throw BadOption(fmt::format("--security-opt is \"seccomp=FILE\", \"seccomp=unconfined\" or "
                                    "\"no-new-privileges[=false]\", not '{}'",
                                    printable(text)));
}

} // namespace

void read_rights(const Arguments& args, ContainerOptions& options)
{
    options.added_capabilities = read_capabilities("cap-add", args.values("cap-add"));
    options.dropped_capabilities = read_capabilities("cap-drop", args.values("cap-drop"));
    for (const std::string& name : options.added_capabilities)
        if (is_among(name, options.dropped_capabilities))
            throw BadOption(fmt::format("{} is both added and dropped", name));
    for (const std::string& text : args.values("security-opt"))
        read_security_option(text, options);
}

std::vector<std::string> capabilities_of(const Json& process)
{
    const Json* given = member(process, "capabilities");
    return given != nullptr ? texts_of(member(given, "bounding")) : known_capabilities(true);
}

void apply_capabilities(Json& process, const ContainerOptions& options)
{
    const Names& added = options.added_capabilities;
    const Names& dropped = options.dropped_capabilities;
    if (added.empty() && dropped.empty())
        return;
    const Names extra = is_among(kAll, added) ? known_capabilities(false) : added;
    Names all = is_among(kAll, dropped) ? Names() : capabilities_of(process);
    for (const std::string& name : extra)
        if (!is_among(name, all))
            all.push_back(name);
    const auto is_dropped = [&](const std::string& name) { return is_among(name, dropped); };
    std::erase_if(all, is_dropped);
    // A program of a user other than root has only the capabilities that are added explicitly:
    // execve() keeps only ambient capabilities for such a user.
    const bool is_root = integer(member(member(process, "user"), "uid")).value_or(0) == 0;
    Names own = is_root ? all : extra;
    std::erase_if(own, is_dropped);
    const Names ambient = is_root ? Names() : own;
    process["capabilities"] = {{"bounding", all},
                               {"effective", own},
                               {"permitted", own},
                               {"inheritable", ambient},
                               {"ambient", ambient}};
}

} // namespace zncctl
