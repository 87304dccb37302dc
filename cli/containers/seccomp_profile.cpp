// seccomp_profile.cpp - converts the profiles of container engines, whose rules have conditions.
#include "rights_options.hpp"

#include "front/words.hpp"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <sys/utsname.h>

namespace zncctl {
namespace {

struct Architecture {
    const char* machine; // as reported by uname(2)
    const char* name;    // in the conditions of rules
    const char* seccomp;
};

constexpr std::array kArchitectures = {
    Architecture{"x86_64", "amd64", "SCMP_ARCH_X86_64"},
    Architecture{"aarch64", "arm64", "SCMP_ARCH_AARCH64"},
    Architecture{"riscv64", "riscv64", "SCMP_ARCH_RISCV64"},
};

// Members of profiles that do not exist in a container's configuration: conditions and comments.
constexpr std::array<std::string_view, 6> kDropped = {"includes", "excludes", "comment",
                                                      "errno",    "name",     "errnoRet"};

struct Version {
    unsigned major = 0;
    unsigned minor = 0;
};

Version version_of(std::string_view text)
{
    const std::size_t dot = std::min(text.find('.'), text.size());
    std::string_view minor = text.substr(std::min(dot + 1, text.size()));
    minor = minor.substr(0, minor.find_first_not_of("0123456789"));
    return {to_number<unsigned>(text.substr(0, dot)).value_or(0),
            to_number<unsigned>(minor).value_or(0)};
}

// The machine that the rules are for.
class Conditions {
  public:
    explicit Conditions(const std::vector<std::string>& capabilities) : capabilities_(capabilities)
    {
        utsname system = {};
        if (::uname(&system) != 0)
            throw std::runtime_error("the kernel version cannot be determined");
        kernel_ = version_of(system.release);
        for (const Architecture& known : kArchitectures)
            if (std::string_view(system.machine) == known.machine)
                architecture_ = &known;
        if (architecture_ == nullptr)
            throw std::runtime_error(fmt::format(
                "the seccomp profile has conditions that are not known for {}", system.machine));
    }

    [[nodiscard]] const char* architecture() const { return architecture_->seccomp; }

    [[nodiscard]] bool meets(const Json& rule) const
    {
        const Json* includes = member(rule, "includes");
        const Json* excludes = member(rule, "excludes");
        const auto has = [&](const Json& name) { return has_capability(name); };
        const auto is = [&](const Json& name) { return name == architecture_->name; };
        const Json& arches = children(member(includes, "arches"));
        const Json& caps = children(member(includes, "caps"));
        const Json& no_arches = children(member(excludes, "arches"));
        const Json& no_caps = children(member(excludes, "caps"));
        return (arches.empty() || std::any_of(arches.begin(), arches.end(), is)) &&
               std::all_of(caps.begin(), caps.end(), has) && is_kernel_from(includes, true) &&
               std::none_of(no_arches.begin(), no_arches.end(), is) &&
               std::none_of(no_caps.begin(), no_caps.end(), has) &&
               !is_kernel_from(excludes, false);
    }

  private:
    [[nodiscard]] bool has_capability(const Json& name) const
    {
        return name.is_string() && std::find(capabilities_.begin(), capabilities_.end(),
                                             name.get<std::string>()) != capabilities_.end();
    }

    [[nodiscard]] bool is_kernel_from(const Json* condition, bool absent) const
    {
        const std::string text = text_of(condition, "minKernel");
        if (text.empty())
            return absent;
        const Version least = version_of(text);
        return kernel_.major != least.major ? kernel_.major > least.major
                                            : kernel_.minor >= least.minor;
    }

    const std::vector<std::string>& capabilities_;
    Version kernel_;
    const Architecture* architecture_ = nullptr;
};

Json plain_rule(const Json& rule)
{
    Json plain = Json::object();
    if (const std::string name = text_of(rule, "name"); !name.empty())
        plain["names"] = {name};
    for (const auto& item : rule.items()) {
        if (!is_among(item.key(), kDropped) && !item.value().is_null() &&
            (item.key() != "args" || !item.value().empty()))
            plain[item.key()] = item.value();
    }
    // The number is for this action only; engines write it for others, too.
    const Json* number = member(rule, "errnoRet");
    if (number != nullptr && !number->is_null() &&
        (text_of(rule, "action") == "SCMP_ACT_ERRNO" ||
         text_of(rule, "action") == "SCMP_ACT_TRACE"))
        plain["errnoRet"] = *number;
    return plain;
}

Json architectures_of(const Json* map, const Conditions& conditions)
{
    Json result = Json::array();
    for (const Json& entry : children(map)) {
        if (text_of(entry, "architecture") != conditions.architecture())
            continue;
        result.push_back(conditions.architecture());
        for (const Json& other : children(member(entry, "subArchitectures")))
            result.push_back(other);
    }
    return result;
}

bool has_conditions(const Json& profile)
{
    if (member(profile, "archMap") != nullptr)
        return true;
    for (const Json& rule : children(member(profile, "syscalls")))
        for (const std::string_view name : kDropped)
            if (name != "errnoRet" && member(rule, name) != nullptr)
                return true;
    return false;
}

} // namespace

Json seccomp_of_profile(const Json& profile, const std::vector<std::string>& capabilities)
{
    if (!has_conditions(profile))
        return profile;
    const Conditions conditions(capabilities);
    Json result = Json::object();
    for (const auto& item : profile.items())
        if (item.key() != "archMap" && item.key() != "syscalls" && item.key() != "defaultErrno" &&
            !item.value().is_null())
            result[item.key()] = item.value();
    if (const Json* map = member(profile, "archMap"); map != nullptr)
        result["architectures"] = architectures_of(map, conditions);
    Json rules = Json::array();
    for (const Json& rule : children(member(profile, "syscalls")))
        if (conditions.meets(rule))
            rules.push_back(plain_rule(rule));
    result["syscalls"] = std::move(rules);
    return result;
}

} // namespace zncctl
