// ns_surroundings.hpp - what a new keeper takes over from its owner. A spare keeper that was made
// before one of these changed is not used, since it would differ from a new one.
#ifndef ZN_NS_SURROUNDINGS_HPP
#define ZN_NS_SURROUNDINGS_HPP

#include <array>
#include <cstddef>
#include <sys/resource.h>
#include <sys/utsname.h>

namespace zn {

class Surroundings {
  public:
    // False if something cannot be read or is too long.
    bool read();
    bool operator==(const Surroundings& other) const;

  private:
    static constexpr std::size_t kProcessorsMax = 8192;

    struct utsname names_;
    std::array<unsigned long, kProcessorsMax / (8 * sizeof(unsigned long))> processors_;
    int policy_ = 0;
    int priority_ = 0;
    int nice_ = 0;
    int ioPriority_ = 0;
    std::array<struct rlimit, RLIM_NLIMITS> limits_;
    std::array<char, 2048> groups_; // control groups
    std::array<char, 16> score_;    // for when memory is exhausted
};

} // namespace zn

#endif
