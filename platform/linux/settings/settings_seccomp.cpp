// settings_seccomp.cpp - reads "linux.seccomp". Whether the kernel and libseccomp support the
// architectures and flags is checked when the filter is compiled.
#include "settings_sections.hpp"

namespace zn {
namespace {

constexpr std::int64_t kDataMax = 0xffff; // SECCOMP_RET_DATA

constexpr Word<SeccompAction> kActions[] = {
    {"SCMP_ACT_KILL", SeccompAction::kKillThread},
    {"SCMP_ACT_KILL_THREAD", SeccompAction::kKillThread},
    {"SCMP_ACT_KILL_PROCESS", SeccompAction::kKillProcess},
    {"SCMP_ACT_TRAP", SeccompAction::kTrap},
    {"SCMP_ACT_ERRNO", SeccompAction::kErrno},
    {"SCMP_ACT_TRACE", SeccompAction::kTrace},
    {"SCMP_ACT_ALLOW", SeccompAction::kAllow},
    {"SCMP_ACT_LOG", SeccompAction::kLog},
    {"SCMP_ACT_NOTIFY", SeccompAction::kNotify},
};

constexpr Word<SeccompCompare> kCompares[] = {
    {"SCMP_CMP_NE", SeccompCompare::kNe},
    {"SCMP_CMP_LT", SeccompCompare::kLt},
    {"SCMP_CMP_LE", SeccompCompare::kLe},
    {"SCMP_CMP_EQ", SeccompCompare::kEq},
    {"SCMP_CMP_GE", SeccompCompare::kGe},
    {"SCMP_CMP_GT", SeccompCompare::kGt},
    {"SCMP_CMP_MASKED_EQ", SeccompCompare::kMaskedEq},
};

bool read_action(JsonReader& reader, const Node& at, SeccompAnswer& answer)
{
    return read_word(reader, at, kActions, "unknown action", answer.action);
}

bool read_number(JsonReader& reader, const Node& at, SeccompAnswer& answer)
{
    std::int64_t value = 0;
    if (!reader.integer(at, 0, kDataMax, value))
        return false;
    answer.number = static_cast<std::uint32_t>(value);
    return true;
}

// Checks the number `name` of an answer, if the object has one.
bool check_number(JsonReader& reader, const Node& object, const char* name,
                  const SeccompAnswer& answer)
{
    const Node at{member_of(object, name), &object, name};
    if (at.value == nullptr)
        return true;
    if (answer.action == SeccompAction::kErrno)
        return answer.number <= kSeccompErrnoMax ||
               reader.refuse(at, "not a whole number from 0 to %d",
                             static_cast<int>(kSeccompErrnoMax));
    return answer.action == SeccompAction::kTrace ||
           reader.refuse(at, "the action has no error number");
}

// Reads a name that begins with `prefix` ("SCMP_ARCH_", "SECCOMP_FILTER_FLAG_").
template <std::size_t kSize>
bool read_prefixed(JsonReader& reader, const Node& at, Text& text, const char (&prefix)[kSize],
                   const char* what)
{
    if (!reader.required_text(at, text))
        return false;
    const std::string_view name = text.get();
    return (name.size() >= kSize && name.substr(0, kSize - 1) == prefix) ||
           reader.refuse_text(at, what);
}

bool read_architecture(JsonReader& reader, const Node& at, Text& text)
{
    return read_prefixed(reader, at, text, "SCMP_ARCH_", "unknown architecture");
}

bool read_flag(JsonReader& reader, const Node& at, Text& text)
{
    return read_prefixed(reader, at, text, "SECCOMP_FILTER_FLAG_", "unknown flag");
}

// ---------------------------------------------------------------- rules

bool read_compare(JsonReader& reader, const Node& at, SeccompArg& arg)
{
    return read_word(reader, at, kCompares, "unknown comparison", arg.compare);
}

constexpr Member<SeccompArg> kArg[] = {
    {"index", read_integer<&SeccompArg::index, 0, 5>, Presence::kRequired},
    {"value", read_integer<&SeccompArg::value, 0, kExactMax>, Presence::kRequired},
    {"valueTwo", read_integer<&SeccompArg::valueTwo, 0, kExactMax>},
    {"op", read_compare, Presence::kRequired},
};

bool read_names(JsonReader& reader, const Node& at, SeccompRule& rule)
{
    return read_list(reader, at, rule.names, read_required_text) &&
           (!rule.names.empty() || reader.refuse(at, "is empty"));
}

constexpr Member<SeccompRule> kRule[] = {
    {"names", read_names, Presence::kRequired},
    {"action", read_with<&SeccompRule::answer, read_action>, Presence::kRequired},
    {"errnoRet", read_with<&SeccompRule::answer, read_number>},
    {"args", read_list_of<&SeccompRule::args, read_table<kArg, SeccompArg>>},
};

bool read_rule(JsonReader& reader, const Node& at, SeccompRule& rule)
{
    return read_object(reader, at, kRule, rule) &&
           check_number(reader, at, "errnoRet", rule.answer);
}

// ---------------------------------------------------------------- profile

// Opaque data, which may be long and contain any character.
bool read_metadata(JsonReader& reader, const Node& at, SeccompProfile& profile)
{
    profile.hasMetadata = cJSON_IsString(at.value) != 0 && at.value->valuestring[0] != '\0';
    return cJSON_IsString(at.value) != 0 || reader.refuse(at, "not a string");
}

constexpr Member<SeccompProfile> kProfile[] = {
    {"defaultAction", read_with<&SeccompProfile::fallback, read_action>, Presence::kRequired},
    {"defaultErrnoRet", read_with<&SeccompProfile::fallback, read_number>},
    {"architectures", read_list_of<&SeccompProfile::architectures, read_architecture>},
    {"flags", read_list_of<&SeccompProfile::flags, read_flag>},
    {"listenerPath", read_text<&SeccompProfile::listenerPath>},
    {"listenerMetadata", read_metadata},
    {"syscalls", read_list_of<&SeccompProfile::rules, read_rule>},
};

} // namespace

bool read_seccomp(JsonReader& reader, const Node& at, SeccompProfile& profile)
{
    profile.given = true;
    return read_object(reader, at, kProfile, profile) &&
           check_number(reader, at, "defaultErrnoRet", profile.fallback);
}

} // namespace zn
