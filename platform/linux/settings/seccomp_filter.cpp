#include "seccomp_filter.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zn {
namespace {

using znc::List;
using znc::UniqueFd;

// libseccomp writes the code to a descriptor. A pipe could block: its capacity may be one page.
UniqueFd memory_file()
{
    constexpr const char* kName = "zn-filter";
#ifdef MFD_NOEXEC_SEAL
    UniqueFd file(::memfd_create(kName, MFD_CLOEXEC | MFD_NOEXEC_SEAL));
    if (file || errno != EINVAL) // EINVAL: before Linux 6.3
        return file;
#endif
    return UniqueFd(::memfd_create(kName, MFD_CLOEXEC));
}

int append_code(int fd, List<sock_filter>& code)
{
    struct stat st = {};
    if (::fstat(fd, &st) != 0)
        return errno;
    const auto size = static_cast<std::size_t>(st.st_size);
    const std::size_t count = size / sizeof(sock_filter);
    if (count == 0 || size % sizeof(sock_filter) != 0)
        return EINVAL;
    if (count > kSeccompLengthMax || code.size() > kSeccompLengthMax - count)
        return EFBIG;
    std::array<sock_filter, 512> piece = {};
    for (std::size_t i = 0; i < count; i += piece.size()) {
        const std::size_t part = std::min(piece.size(), count - i);
        const std::size_t wanted = part * sizeof(sock_filter);
        const ssize_t n =
            ::pread(fd, piece.data(), wanted, static_cast<off_t>(i * sizeof(sock_filter)));
        if (n != static_cast<ssize_t>(wanted))
            return n < 0 ? errno : EIO;
        for (std::size_t k = 0; k < part; k++)
            if (code.append(piece[k]) == nullptr)
                return ENOMEM;
    }
    return 0;
}

} // namespace

bool SeccompFilter::is_available(std::uint32_t answer)
{
    constexpr unsigned kHasLogAndKillProcess = 3; // the API level of Linux 4.14
    constexpr unsigned kHasNotify = 5;            // of Linux 5.0
    const unsigned needed = answer == SCMP_ACT_NOTIFY ? kHasNotify
                            : answer == SCMP_ACT_LOG || answer == SCMP_ACT_KILL_PROCESS
                                ? kHasLogAndKillProcess
                                : 0;
    return needed == 0 || seccomp_api_get() >= needed;
}

int SeccompFilter::start(std::uint32_t fallback)
{
    if (!is_available(fallback) || !is_available(SCMP_ACT_KILL_PROCESS))
        return ENOTSUP;
    filter_.reset(seccomp_init(fallback));
    if (!filter_)
        return ENOMEM;
    fallback_ = fallback;
    // Errors of system calls are reported as they are, not as ECANCELED.
    int error = -seccomp_attr_set(filter_.get(), SCMP_FLTATR_API_SYSRAWRC, 1);
    // By default only the thread would end, which leaves a process in an unknown state.
    if (error == 0)
        error = -seccomp_attr_set(filter_.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
    // Binary search instead of one comparison for each rule.
    if (error == 0)
        error = -seccomp_attr_set(filter_.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2);
    return error;
}

int SeccompFilter::add_architecture(std::uint32_t architecture)
{
    const int error = -seccomp_arch_add(filter_.get(), architecture);
    if (error == EEXIST)
        return 0;
    return error == EDOM ? EINVAL : error; // EDOM: another byte order
}

int SeccompFilter::add(int number, std::uint32_t answer, std::span<const scmp_arg_cmp> conditions)
{
    if (answer == fallback_)
        return 0;
    return -seccomp_rule_add_array(filter_.get(), answer, number,
                                   static_cast<unsigned>(conditions.size()), conditions.data());
}

int SeccompFilter::compile(List<sock_filter>& code) const
{
    const UniqueFd file = memory_file();
    if (!file)
        return errno;
    const int error = -seccomp_export_bpf(filter_.get(), file.get());
    return error != 0 ? error : append_code(file.get(), code);
}

} // namespace zn
