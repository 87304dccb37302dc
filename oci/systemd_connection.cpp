#include "systemd_connection.hpp"

#include "base/owned.hpp"
#include "front/files.hpp"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <unistd.h>

namespace zncrun {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kCallWait = std::chrono::seconds(25);
constexpr auto kJobWait = std::chrono::seconds(20);

constexpr char kSystemd[] = "org.freedesktop.systemd1";
constexpr char kUnitPath[] = "/org/freedesktop/systemd1/unit";

[[noreturn]] void fail(const std::string& what, const std::string& why)
{
    throw Failure(fmt::format("systemd: {}: {}", what, why));
}

// The library returns negative error numbers.
std::string text_of(int result)
{
    errno = -result;
    return zncctl::error_text();
}

int check(int result, const std::string& what)
{
    if (result < 0)
        fail(what, text_of(result));
    return result;
}

std::uint64_t microseconds(Clock::duration time)
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

// The bus of the user. Characters that are special in addresses are refused.
std::string user_address()
{
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address != nullptr)
        return address;
    const char* own = std::getenv("XDG_RUNTIME_DIR");
    const std::string directory =
        own != nullptr && own[0] == '/' ? own : fmt::format("/run/user/{}", ::geteuid());
    if (directory.find_first_of(",;%=") != directory.npos)
        fail("the bus of the user", "XDG_RUNTIME_DIR cannot be used in an address");
    return fmt::format("unix:path={}/bus", directory);
}

} // namespace

SystemdBus::Connection::Connection()
{
    const bool isUser = uses_user_manager();
    const std::string what = isUser ? "cannot connect to the bus of the user"
                                    : "cannot connect to the bus of the system";
    sd_bus* bus = nullptr;
    if (!isUser) {
        check(library_.bus_open_system(&bus), what);
        bus_ = {bus, {library_.bus_flush_close_unref}};
        return;
    }
    check(library_.bus_new(&bus), what);
    bus_ = {bus, {library_.bus_flush_close_unref}};
    check(library_.bus_set_address(bus, user_address().c_str()), what);
    check(library_.bus_set_bus_client(bus, 1), what);
    check(library_.bus_start(bus), what);
}

BusMessagePtr SystemdBus::Connection::message(const char* member, const char* interface,
                                              const std::string& path)
{
    sd_bus_message* made = nullptr;
    check(library_.bus_message_new_method_call(bus_.get(), &made, kSystemd, path.c_str(), interface,
                                               member),
          member);
    return {made, {library_.bus_message_unref}};
}

BusMessagePtr SystemdBus::Connection::call(const BusMessagePtr& message, const std::string& what,
                                           const char* accepted)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* answer = nullptr;
    const int result =
        library_.bus_call(bus_.get(), message.get(), microseconds(kCallWait), &error, &answer);
    const std::string name = error.name != nullptr ? error.name : "";
    const std::string why =
        error.message != nullptr ? fmt::format("{} ({})", error.message, name) : text_of(result);
    library_.bus_error_free(&error);
    BusMessagePtr owned = {answer, {library_.bus_message_unref}};
    if (result < 0 && (accepted == nullptr || name != accepted))
        fail(what, why);
    return owned;
}

void SystemdBus::Connection::add(const BusMessagePtr& message, char type, const void* value)
{
    check(library_.bus_message_append_basic(message.get(), type, value), "message");
}

void SystemdBus::Connection::open(char type, const char* contents, const BusMessagePtr& message)
{
    check(library_.bus_message_open_container(message.get(), type, contents), "message");
}

void SystemdBus::Connection::close(const BusMessagePtr& message)
{
    check(library_.bus_message_close_container(message.get()), "message");
}

void SystemdBus::Connection::add_variant(const BusMessagePtr& message, char type, const void* value)
{
    const char contents[] = {type, '\0'};
    open('v', contents, message);
    add(message, type, value);
    close(message);
}

// Numbers have the types of D-Bus: i and u have 32 bits, x and t 64.
void SystemdBus::Connection::append(const BusMessagePtr& message, const UnitValue& value)
{
    if (const auto* flag = std::get_if<bool>(&value)) {
        const int number = *flag ? 1 : 0;
        add_variant(message, 'b', &number);
    } else if (const auto* text = std::get_if<std::string>(&value)) {
        add_variant(message, 's', text->c_str());
    } else if (const auto* i32 = std::get_if<std::int32_t>(&value)) {
        add_variant(message, 'i', i32);
    } else if (const auto* u32 = std::get_if<std::uint32_t>(&value)) {
        add_variant(message, 'u', u32);
    } else if (const auto* i64 = std::get_if<std::int64_t>(&value)) {
        add_variant(message, 'x', i64);
    } else if (const auto* u64 = std::get_if<std::uint64_t>(&value)) {
        add_variant(message, 't', u64);
    } else {
        append_list(message, value);
    }
}

void SystemdBus::Connection::append_list(const BusMessagePtr& message, const UnitValue& value)
{
    if (const auto* bytes = std::get_if<std::vector<std::uint8_t>>(&value)) {
        open('v', "ay", message);
        check(library_.bus_message_append_array(message.get(), 'y', bytes->data(), bytes->size()),
              "message");
        close(message);
        return;
    }
    const auto* devices = std::get_if<UnitDevices>(&value);
    open('v', devices != nullptr ? "a(ss)" : "as", message);
    open('a', devices != nullptr ? "(ss)" : "s", message);
    if (devices == nullptr)
        for (const std::string& text : std::get<std::vector<std::string>>(value))
            add(message, 's', text.c_str());
    for (const auto& [device, access] : devices != nullptr ? *devices : UnitDevices()) {
        open('r', "ss", message);
        add(message, 's', device.c_str());
        add(message, 's', access.c_str());
        close(message);
    }
    close(message);
    close(message);
}

void SystemdBus::Connection::add_list(const BusMessagePtr& message,
                                      const UnitProperties& properties,
                                      std::optional<std::uint32_t> pid)
{
    open('a', "(sv)", message);
    if (pid) {
        open('r', "sv", message);
        add(message, 's', "PIDs");
        open('v', "au", message);
        check(library_.bus_message_append_array(message.get(), 'u', &*pid, sizeof *pid), "message");
        close(message);
        close(message);
    }
    for (const UnitProperty& property : properties) {
        open('r', "sv", message);
        add(message, 's', property.name.c_str());
        append(message, property.value);
        close(message);
    }
    close(message);
}

void SystemdBus::Connection::add_no_units(const BusMessagePtr& message)
{
    open('a', "(sa(sv))", message);
    close(message);
}

BusMessagePtr SystemdBus::Connection::property(const std::string& path, const char* interface,
                                               const char* name, const char* type)
{
    const auto get = message("Get", "org.freedesktop.DBus.Properties", path);
    add(get, 's', interface);
    add(get, 's', name);
    auto answer = call(get, fmt::format("property {}", name));
    check(library_.bus_message_enter_container(answer.get(), 'v', type), name);
    return answer;
}

std::string SystemdBus::Connection::text(const BusMessagePtr& message, char type)
{
    const char* text = nullptr;
    check(library_.bus_message_read_basic(message.get(), type, &text), "answer");
    return text;
}

std::uint64_t SystemdBus::Connection::number(const std::string& path, const char* name)
{
    std::uint64_t number = 0;
    const auto answer = property(path, kSystemdScope, name, "t");
    check(library_.bus_message_read_basic(answer.get(), 't', &number), name);
    return number;
}

std::string SystemdBus::Connection::unit_path(const std::string& unit)
{
    char* path = nullptr;
    check(library_.bus_path_encode(kUnitPath, unit.c_str(), &path), unit);
    const znc::MallocPtr<char[]> owned(path);
    return owned.get();
}

// Arguments of the signal: number, object path and unit of the job, result.
int SystemdBus::Connection::job_removed(sd_bus_message* message, void* connection,
                                        sd_bus_error* /*error*/)
{
    auto* self = static_cast<Connection*>(connection);
    std::uint32_t number = 0;
    const char* path = nullptr;
    const char* unit = nullptr;
    const char* result = nullptr;
    const auto read = self->library_.bus_message_read_basic;
    if (read(message, 'u', &number) > 0 && read(message, 'o', &path) > 0 &&
        read(message, 's', &unit) > 0 && read(message, 's', &result) > 0)
        self->results_[path] = result;
    return 0;
}

// A job may end before the answer that names it has been read, so the signals are received before
// the call.
void SystemdBus::Connection::watch_jobs()
{
    if (jobs_)
        return;
    sd_bus_slot* slot = nullptr;
    check(library_.bus_match_signal(bus_.get(), &slot, kSystemd, kSystemdManagerPath,
                                    kSystemdManager, "JobRemoved", job_removed, this),
          "cannot wait for jobs");
    jobs_ = {slot, {library_.bus_slot_unref}};
    call(message("Subscribe"), "cannot wait for jobs",
         "org.freedesktop.systemd1.AlreadySubscribed");
}

void SystemdBus::Connection::wait_for_job(const BusMessagePtr& answer, const std::string& what)
{
    const std::string path = text(answer, 'o');
    const auto deadline = Clock::now() + kJobWait;
    while (!results_.contains(path)) {
        if (check(library_.bus_process(bus_.get(), nullptr), what) > 0)
            continue;
        const auto now = Clock::now();
        if (now >= deadline)
            fail(what, "systemd did not do so in time");
        if (const int result = library_.bus_wait(bus_.get(), microseconds(deadline - now));
            result != -EINTR)
            check(result, what);
    }
    if (results_[path] != "done")
        fail(what, fmt::format("the result of the job is {:?}", results_[path]));
}

} // namespace zncrun
