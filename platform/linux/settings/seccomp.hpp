// seccomp.hpp - compiles a seccomp filter to the kernel's code, with libseccomp. The code
// is installed by the helper program, which cannot parse. The functions
// keep no state: equal parameters give equal code. On failure `code` is unchanged.
#ifndef ZN_SECCOMP_HPP
#define ZN_SECCOMP_HPP

#include "settings.hpp"
#include "settings_reader.hpp"

#include <linux/filter.h>

namespace zn {

struct SeccompCode {
    List<sock_filter> code;
    unsigned flags = 0; // SECCOMP_FILTER_FLAG_ bits
};

// Compiles a profile of a configuration. 0, or an error number with `fault` set: EINVAL (unknown
// architecture or flag, a number out of range, a filter that is too long for the kernel), ENOTSUP
// (an action or flag that the kernel or this system cannot do), ENOMEM, or that of a failed call.
// Unknown system call names are skipped, as the OCI runtime specification requires. The native
// architecture is always included; calls through one that is not named end the process.
int seccomp_compile(const SeccompProfile& profile, SeccompCode& code, SettingsFault& fault);

// The filter of containers whose configuration has none: an allow-list. Calls that it knows and
// does not allow fail with EPERM, unknown ones with ENOSYS, so that C libraries fall back to older
// calls. Only the native interface is allowed; calls through another one end the process.
// `capabilities` is the bounding set: some calls are allowed only with the capability they need. 0,
// or an error number as above.
int seccomp_default(std::uint64_t capabilities, SeccompCode& code);

} // namespace zn

#endif
