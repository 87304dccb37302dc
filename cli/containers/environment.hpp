// environment.hpp - the environment of a program that is started in a container.
#ifndef ZNC_CLI_CONTAINERS_ENVIRONMENT_HPP
#define ZNC_CLI_CONTAINERS_ENVIRONMENT_HPP

#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

// The PATH of a program whose image sets none.
inline constexpr const char* kDefaultPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

class Environment {
  public:
    // Starts with these entries, "NAME=VALUE" each. If several have the same name, the last one is
    // kept.
    explicit Environment(const std::vector<std::string>& entries);

    // Applies a user's "NAME=VALUE", or "NAME", which takes the value from zncctl's own environment
    // and changes nothing if there is none. False if the name is empty.
    bool apply(const std::string& text);
    void set(std::string_view name, std::string_view value);

    // Null if there is no such variable. The value ends where the entry ends.
    [[nodiscard]] const char* value(std::string_view name) const;

    [[nodiscard]] const std::vector<std::string>& entries() const { return entries_; }
    // For execve(): null-terminated, valid until the next change.
    [[nodiscard]] std::vector<char*> pointers();

  private:
    [[nodiscard]] std::vector<std::string>::const_iterator find(std::string_view name) const;
    void put(std::string entry);

    std::vector<std::string> entries_;
};

} // namespace zncctl

#endif
