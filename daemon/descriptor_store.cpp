#include "descriptor_store.hpp"

#include "notify.hpp"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

namespace zncd {
namespace {

constexpr int kFirst = 3; // number of the first descriptor that is handed over

// A variable as a number, which must not be negative; 0 if it is not set or anything else.
long number_in(const char* variable)
{
    const char* const value = std::getenv(variable);
    const std::string_view text = value != nullptr ? value : "";
    long number = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
    return read.ec == std::errc() && read.ptr == text.data() + text.size() && number > 0 ? number
                                                                                         : 0;
}

// Takes the first name of a list that is separated by colons.
std::string_view next_name(std::string_view& names)
{
    const std::size_t end = std::min(names.find(':'), names.size());
    const std::string_view name = names.substr(0, end);
    names.remove_prefix(std::min(end + 1, names.size()));
    return name;
}

STATUS store(const char* name, int descriptor)
{
    const std::string state = std::string("FDSTORE=1\nFDNAME=") + name;
    return notify_with(state.c_str(), descriptor) ? OK : ERROR;
}

// The manager may have dropped it already: it does so when the other end of a socket is closed.
void drop(const char* name)
{
    const std::string state = std::string("FDSTOREREMOVE=1\nFDNAME=") + name;
    notify(state.c_str());
}

} // namespace

DescriptorStore::DescriptorStore()
{
    const char* const list = std::getenv("LISTEN_FDNAMES");
    const std::string copy = list != nullptr ? list : "";
    std::string_view names = copy;
    const long count = number_in("LISTEN_PID") == ::getpid() ? number_in("LISTEN_FDS") : 0;
    for (int fd = kFirst; fd < kFirst + count && ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0; fd++)
        if (next_name(names).starts_with(ZN_KEEP_PREFIX))
            held_.push_back(fd);
}

znKeepManager DescriptorStore::manager() const
{
    const bool present = std::getenv("NOTIFY_SOCKET") != nullptr;
    return {present ? store : nullptr, present ? drop : nullptr, held_.data(), held_.size()};
}

} // namespace zncd
