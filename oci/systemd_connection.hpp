// systemd_connection.hpp - messages to systemd and its answers, by libsystemd. Used by
// systemd_bus.cpp.
#ifndef ZNC_OCI_SYSTEMD_CONNECTION_HPP
#define ZNC_OCI_SYSTEMD_CONNECTION_HPP

#include "systemd_bus.hpp"
#include "systemd_library.hpp"

#include <map>

namespace zncrun {

inline constexpr char kSystemdManager[] = "org.freedesktop.systemd1.Manager";
inline constexpr char kSystemdManagerPath[] = "/org/freedesktop/systemd1";
inline constexpr char kSystemdScope[] = "org.freedesktop.systemd1.Scope";

class SystemdBus::Connection {
  public:
    Connection();
    // A call of the manager, or of another interface and object.
    BusMessagePtr message(const char* member, const char* interface = kSystemdManager,
                          const std::string& path = kSystemdManagerPath);
    // Sends it and waits for the answer. Null if systemd answers with the error `accepted`.
    BusMessagePtr call(const BusMessagePtr& message, const std::string& what,
                       const char* accepted = nullptr);
    void add(const BusMessagePtr& message, char type, const void* value);
    void add_list(const BusMessagePtr& message, const UnitProperties& properties,
                  std::optional<std::uint32_t> pid = std::nullopt);
    // The further units of StartTransientUnit: none.
    void add_no_units(const BusMessagePtr& message);
    // Reads a property: its type is `type`.
    BusMessagePtr property(const std::string& path, const char* interface, const char* name,
                           const char* type);
    std::string text(const BusMessagePtr& message, char type);
    std::uint64_t number(const std::string& path, const char* name);
    std::string unit_path(const std::string& unit);
    // Remembers the results of all jobs that end from now on.
    void watch_jobs();
    // Waits for the end of the job that `answer` names.
    void wait_for_job(const BusMessagePtr& answer, const std::string& what);

  private:
    static int job_removed(sd_bus_message* message, void* connection, sd_bus_error* error);
    void open(char type, const char* contents, const BusMessagePtr& message);
    void close(const BusMessagePtr& message);
    // Each adds a variant.
    void add_variant(const BusMessagePtr& message, char type, const void* value);
    void append(const BusMessagePtr& message, const UnitValue& value);
    void append_list(const BusMessagePtr& message, const UnitValue& value);

    SystemdLibrary library_;
    BusPtr bus_;
    BusSlotPtr jobs_;
    std::map<std::string, std::string> results_;
};

} // namespace zncrun

#endif
