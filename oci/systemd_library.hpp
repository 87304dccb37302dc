// systemd_library.hpp - the functions of libsystemd that systemd_bus.cpp uses, found when the
// library is loaded, and owners of what they return.
#ifndef ZNC_OCI_SYSTEMD_LIBRARY_HPP
#define ZNC_OCI_SYSTEMD_LIBRARY_HPP

#include "base/not_copied.hpp"
#include "context.hpp"

#include <dlfcn.h>
#include <memory>
#include <systemd/sd-bus.h>

#include <fmt/format.h>

namespace zncrun {

// Stays loaded until the process ends: the library may have registered functions for that.
class SystemdLibrary : znc::NotCopied {
  public:
    SystemdLibrary()
        : handle_(::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE), ::dlclose)
    {
        if (handle_ == nullptr)
            throw Failure(fmt::format("systemd: {}", ::dlerror()));
    }

#define ZN_SYSTEMD_FUNCTION(name)                                                                  \
    decltype(&::sd_##name) const name = find<decltype(&::sd_##name)>("sd_" #name)
  private:
    template <class Function> Function find(const char* name) const
    {
        void* const found = ::dlsym(handle_.get(), name);
        if (found == nullptr)
            throw Failure(fmt::format("systemd: libsystemd.so.0 has no function {}", name));
        return reinterpret_cast<Function>(found);
    }
    std::unique_ptr<void, int (*)(void*)> handle_;

  public:
    ZN_SYSTEMD_FUNCTION(bus_new);
    ZN_SYSTEMD_FUNCTION(bus_set_address);
    ZN_SYSTEMD_FUNCTION(bus_set_bus_client);
    ZN_SYSTEMD_FUNCTION(bus_start);
    ZN_SYSTEMD_FUNCTION(bus_open_system);
    ZN_SYSTEMD_FUNCTION(bus_flush_close_unref);
    ZN_SYSTEMD_FUNCTION(bus_call);
    ZN_SYSTEMD_FUNCTION(bus_process);
    ZN_SYSTEMD_FUNCTION(bus_wait);
    ZN_SYSTEMD_FUNCTION(bus_match_signal);
    ZN_SYSTEMD_FUNCTION(bus_slot_unref);
    ZN_SYSTEMD_FUNCTION(bus_path_encode);
    ZN_SYSTEMD_FUNCTION(bus_error_free);
    ZN_SYSTEMD_FUNCTION(bus_message_new_method_call);
    ZN_SYSTEMD_FUNCTION(bus_message_append_basic);
    ZN_SYSTEMD_FUNCTION(bus_message_append_array);
    ZN_SYSTEMD_FUNCTION(bus_message_open_container);
    ZN_SYSTEMD_FUNCTION(bus_message_close_container);
    ZN_SYSTEMD_FUNCTION(bus_message_enter_container);
    ZN_SYSTEMD_FUNCTION(bus_message_read_basic);
    ZN_SYSTEMD_FUNCTION(bus_message_unref);
#undef ZN_SYSTEMD_FUNCTION
};

// Releases an object by a function of the library.
template <class Object> struct SystemdRelease {
    Object* (*release)(Object*) = nullptr;
    void operator()(Object* object) const { release(object); }
};
using BusPtr = std::unique_ptr<sd_bus, SystemdRelease<sd_bus>>;
using BusSlotPtr = std::unique_ptr<sd_bus_slot, SystemdRelease<sd_bus_slot>>;
using BusMessagePtr = std::unique_ptr<sd_bus_message, SystemdRelease<sd_bus_message>>;

} // namespace zncrun

#endif
