// keeper_request.hpp - requests with paths to a helper that serves them (keeper_link.hpp). Used by
// the namespace service and by engines' containers.
#ifndef ZN_KEEPER_REQUEST_HPP
#define ZN_KEEPER_REQUEST_HPP

#include "keeper_link.hpp"
#include "settings/settings.hpp"

#include <initializer_list>
#include <span>

namespace zn {

// The texts of a request, one after another, each with its NUL.
class RequestText {
  public:
    // Each returns false, and adds nothing, if the texts do not fit.
    [[nodiscard]] bool add(const char* text, const char* prefix = "");
    [[nodiscard]] bool add(std::span<const char> texts, std::uint32_t count);
    [[nodiscard]] bool add_all(std::initializer_list<const char*> texts);

    [[nodiscard]] bool empty() const { return count_ == 0; }
    void clear() { len_ = count_ = 0; }
    // The request with the length and number of the texts; all() is sent with it.
    [[nodiscard]] wire::Request of(wire::Request request) const;
    [[nodiscard]] std::span<const char> all() const { return {text_, len_}; }

  private:
    char text_[8192];
    std::uint32_t len_ = 0;
    std::uint32_t count_ = 0;
};

// Sends one or two texts. These functions return 0 or an error number.
int keeper_tell(Keeper& keeper, wire::Request request, const char* first,
                const char* second = nullptr);
int keeper_tell(Keeper& keeper, wire::Op op, const char* path);

// The owner is given by ids of the host.
int keeper_make_device(Keeper& keeper, const Device& device, std::uint32_t uid, std::uint32_t gid);

// The key "net.ipv4.ip_forward" is the file net/ipv4/ip_forward; a slash in the key is a dot in the
// file name.
int keeper_set_parameter(Keeper& keeper, const Sysctl& parameter);

} // namespace zn

#endif
