// seccomp_conditions.hpp - compiles rules with conditions on arguments. libseccomp is not used for
// them: if a call has several such rules, version 2.5 merges them incorrectly (a rule can then
// match calls that do not meet its conditions) and may not terminate.
#ifndef ZN_SECCOMP_CONDITIONS_HPP
#define ZN_SECCOMP_CONDITIONS_HPP

#include "settings.hpp"

#include <cstdint>
#include <initializer_list>
#include <linux/filter.h>
#include <span>

namespace zn {

inline constexpr unsigned kSeccompArgs = 6;

// The answer as the kernel and libseccomp encode it.
std::uint32_t seccomp_answer(const SeccompAnswer& answer);

// Appends code to be placed before that of libseccomp. The functions return 0 or an error number;
// EFBIG if the code is longer than the kernel accepts.
class SeccompConditions {
  public:
    explicit SeccompConditions(List<sock_filter>& code) : code_(code) {}

    // Adds an architecture, as libseccomp encodes it. All must be added before the first rule.
    int add_architecture(std::uint32_t architecture);

    // Adds the rules of the profile for the call `name`, which has only rules with conditions. They
    // are tested in the order of the profile; if none matches, the answer is the default one.
    // `unseen` is set to the strictest answer of the call's rules if there is an architecture where
    // the call is made by another one (32-bit socketcall and ipc) and its arguments are in memory,
    // where a filter cannot see them; otherwise to the default answer.
    int add(const SeccompProfile& profile, const char* name, std::uint32_t& unseen);

    // Answers ENOSYS to calls whose numbers are greater than those of all calls that the profile
    // names. The kernel numbers calls in the order in which they are added.
    int add_absent(const SeccompProfile& profile);

  private:
    int add_call(const SeccompProfile& profile, const char* name, std::uint32_t architecture,
                 std::uint32_t number);
    int add_rule(const SeccompRule& rule);
    int add_alternative(std::span<const SeccompArg> args, std::uint32_t answer);
    int add_comparison(const SeccompArg& arg);
    int add_absent_above(std::uint32_t architecture, std::uint32_t number);
    int append_all(std::initializer_list<sock_filter> all);
    int append(const sock_filter& one);

    List<sock_filter>& code_;
    List<std::uint32_t> architectures_;
};

} // namespace zn

#endif
