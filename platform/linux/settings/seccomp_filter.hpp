// seccomp_filter.hpp - a filter under construction in libseccomp. Used for the filters of profiles
// and for the default filter; each object is independent of all others.
#ifndef ZN_SECCOMP_FILTER_HPP
#define ZN_SECCOMP_FILTER_HPP

#include "base/list.hpp"

#include <cstddef>
#include <cstdint>
#include <linux/filter.h>
#include <memory>
#include <seccomp.h>
#include <span>

namespace zn {

// The kernel refuses longer filters.
inline constexpr std::size_t kSeccompLengthMax = BPF_MAXINSNS;

// The functions return 0 or an error number.
class SeccompFilter {
  public:
    // Whether the kernel knows the answer, an SCMP_ACT_ value.
    static bool is_available(std::uint32_t answer);

    // Starts a filter for the native architecture. Calls without a rule get the answer `fallback`;
    // calls through another interface end the process. ENOTSUP: the kernel does
    // not know the answer.
    int start(std::uint32_t fallback);

    // Adds an architecture, to which all later rules apply, too. EINVAL if it cannot be combined
    // with the native one.
    int add_architecture(std::uint32_t architecture);

    // Adds a rule: calls with this number that meet all conditions get this answer. Has no effect
    // if the answer is that of calls without a rule. A call must not have several rules with
    // conditions on different arguments, see seccomp_conditions.hpp.
    int add(int number, std::uint32_t answer, std::span<const scmp_arg_cmp> conditions = {});

    // Appends the compiled filter to `code`. EFBIG if the result is longer than kSeccompLengthMax.
    int compile(znc::List<sock_filter>& code) const;

  private:
    struct Release {
        void operator()(void* filter) const noexcept { seccomp_release(filter); }
    };
    std::unique_ptr<void, Release> filter_;
    std::uint32_t fallback_ = 0;
};

} // namespace zn

#endif
