// seccomp_profile.hpp - profiles of seccomp filters, as the reader of a configuration makes them.
#ifndef SECCOMP_PROFILE_HPP
#define SECCOMP_PROFILE_HPP

#include "seccomp_code.hpp"
#include "settings/seccomp.hpp"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

using zn::SeccompAction;
using zn::SeccompAnswer;
using zn::SeccompArg;
using zn::SeccompCode;
using zn::SeccompCompare;
using zn::SeccompProfile;

inline constexpr SeccompAnswer kAllow = {SeccompAction::kAllow, 0};
constexpr SeccompAnswer error(std::uint32_t number)
{
    return {SeccompAction::kErrno, number};
}

// A profile, written down in one expression.
struct Profile : SeccompProfile {
    explicit Profile(SeccompAnswer otherwise = kAllow)
    {
        given = true;
        fallback = otherwise;
    }
    Profile& rule(const std::vector<std::string>& names, SeccompAnswer answer,
                  const std::vector<SeccompArg>& args = {})
    {
        zn::SeccompRule one;
        one.answer = answer;
        for (const std::string& name : names)
            EXPECT_NE(one.names.append(znc::copy_text(name)), nullptr);
        for (const SeccompArg& arg : args)
            EXPECT_NE(one.args.append(arg), nullptr);
        EXPECT_NE(rules.append(std::move(one)), nullptr);
        return *this;
    }
    Profile& architecture(const std::string& name)
    {
        EXPECT_NE(architectures.append(znc::copy_text(name)), nullptr);
        return *this;
    }
    Profile& flag(const std::string& name)
    {
        EXPECT_NE(flags.append(znc::copy_text(name)), nullptr);
        return *this;
    }
};

inline SeccompCode compiled(const SeccompProfile& profile)
{
    SeccompCode code;
    zn::SettingsFault fault;
    EXPECT_EQ(zn::seccomp_compile(profile, code, fault), 0) << fault.field << ": " << fault.reason;
    EXPECT_STREQ(fault.field, "");
    return code;
}

// Returns "<error>: <field>: <reason>".
inline std::string refusal(const SeccompProfile& profile)
{
    SeccompCode code;
    zn::SettingsFault fault;
    const int result = zn::seccomp_compile(profile, code, fault);
    EXPECT_EQ(code.code.size(), 0U);
    EXPECT_EQ(code.flags, 0U);
    return std::string(::strerrorname_np(result)) + ": " + fault.field + ": " + fault.reason;
}

// What a condition means.
inline bool holds(const SeccompArg& arg, const CallArgs& args)
{
    const std::uint64_t given = args[arg.index];
    switch (arg.compare) {
    case SeccompCompare::kNe:
        return given != arg.value;
    case SeccompCompare::kLt:
        return given < arg.value;
    case SeccompCompare::kLe:
        return given <= arg.value;
    case SeccompCompare::kEq:
        return given == arg.value;
    case SeccompCompare::kGe:
        return given >= arg.value;
    case SeccompCompare::kGt:
        return given > arg.value;
    case SeccompCompare::kMaskedEq:
        return (given & arg.value) == (arg.valueTwo & arg.value);
    }
    return false;
}

#endif
