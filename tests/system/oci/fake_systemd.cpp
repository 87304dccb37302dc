// fake_systemd ADDRESS LOG GROUP - plays systemd on the message bus ADDRESS for the tests of
// zncrun: it starts and stops scopes, and writes down each call. Its control groups are below
// GROUP, in those hierarchies that systemd uses.
//
// Some scopes behave in a special way, by a word in their names: the job of a "silent" one never
// ends, that of a "failing" one fails, a "lost" one is in another group than it should be.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <signal.h>
#include <string>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr char kManager[] = "org.freedesktop.systemd1.Manager";
constexpr char kManagerPath[] = "/org/freedesktop/systemd1";
constexpr char kUnits[] = "/org/freedesktop/systemd1/unit";

struct Unit {
    std::string group;
    std::map<std::string, std::string> properties;
};

struct Fake {
    sd_bus* bus = nullptr;
    std::ofstream log;
    std::string group;
    std::map<std::string, Unit> units;
    unsigned jobs = 0;
};

void check(int result, const char* what)
{
    if (result >= 0)
        return;
    std::fprintf(stderr, "fake_systemd: %s: %s\n", what, std::strerror(-result));
    _exit(1);
}

// Appends all values of a message, up to the end of its container, with blanks between them.
void print_values(sd_bus_message* message, std::string& out)
{
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(message, &type, &contents) > 0) {
        if (type == 'a' || type == 'v' || type == 'r') {
            check(sd_bus_message_enter_container(message, type, contents), "container");
            print_values(message, out);
            check(sd_bus_message_exit_container(message), "container");
            continue;
        }
        union {
            const char* text;
            std::uint64_t u64;
            std::int64_t i64;
            std::uint32_t u32;
            std::int32_t i32;
            std::uint8_t byte;
            int flag;
        } value = {};
        check(sd_bus_message_read_basic(message, type, &value), "value");
        out += out.empty() ? "" : " ";
        switch (type) {
        case 's':
        case 'o':
            out += value.text;
            break;
        case 't':
            out += std::to_string(value.u64);
            break;
        case 'x':
            out += std::to_string(value.i64);
            break;
        case 'u':
            out += std::to_string(value.u32);
            break;
        case 'i':
            out += std::to_string(value.i32);
            break;
        case 'y':
            out += std::to_string(value.byte);
            break;
        case 'b':
            out += value.flag != 0 ? "true" : "false";
            break;
        default:
            check(-EINVAL, "type");
        }
    }
}

const char* read_text(sd_bus_message* message)
{
    const char* text = nullptr;
    check(sd_bus_message_read_basic(message, 's', &text), "text");
    return text;
}

// Reads a(sv) into the unit. False if a property is not known.
bool read_properties(Fake& fake, sd_bus_message* message, const char* verb, const std::string& name,
                     Unit& unit)
{
    bool isKnown = true;
    check(sd_bus_message_enter_container(message, 'a', "(sv)"), "properties");
    while (sd_bus_message_enter_container(message, 'r', "sv") > 0) {
        const std::string key = read_text(message);
        std::string value;
        print_values(message, value);
        check(sd_bus_message_exit_container(message), "property");
        fake.log << verb << ' ' << name << ' ' << key << '=' << value << std::endl;
        isKnown = isKnown && key != "Nonsense";
        unit.properties[key] = value;
    }
    check(sd_bus_message_exit_container(message), "properties");
    return isKnown;
}

// The group in the hierarchies that systemd uses: with v1 it leaves out those of cpuset, freezer
// and hugetlb.
std::vector<fs::path> directories(const std::string& group)
{
    std::vector<fs::path> found;
    if (fs::exists("/sys/fs/cgroup/cgroup.controllers"))
        return {"/sys/fs/cgroup" + group};
    for (const char* name : {"systemd", "unified", "memory", "pids", "devices", "cpu", "blkio"})
        if (fs::exists(fs::path("/sys/fs/cgroup") / name))
            found.push_back(std::string("/sys/fs/cgroup/") + name + group);
    return found;
}

// "/a.slice/a-b.slice" for "a-b.slice".
std::string slice_path(const std::string& slice)
{
    const std::string stem = slice.substr(0, slice.rfind('.'));
    std::string path;
    for (std::size_t end = 0; end != stem.npos;) {
        end = stem.find('-', end + 1);
        path += "/" + stem.substr(0, end) + ".slice";
    }
    return path;
}

std::vector<int> processes(const Unit& unit)
{
    std::vector<int> pids;
    for (const fs::path& directory : directories(unit.group)) {
        std::ifstream file(directory / "cgroup.procs");
        for (int pid = 0; file >> pid;)
            pids.push_back(pid);
    }
    return pids;
}

std::vector<fs::path> remaining(const Unit& unit)
{
    std::vector<fs::path> found;
    for (const fs::path& directory : directories(unit.group))
        if (fs::exists(directory))
            found.push_back(directory);
    return found;
}

int reply_job(Fake& fake, sd_bus_message* call, const std::string& unit)
{
    const std::string path = std::string(kManagerPath) + "/job/" + std::to_string(++fake.jobs);
    const bool isFailing = unit.find("failing") != unit.npos;
    // Also before the answer: systemd gives no order.
    const auto signal = [&] {
        if (unit.find("silent") == unit.npos)
            check(sd_bus_emit_signal(fake.bus, kManagerPath, kManager, "JobRemoved", "uoss",
                                     fake.jobs, path.c_str(), unit.c_str(),
                                     isFailing ? "failed" : "done"),
                  "signal");
    };
    if (fake.jobs % 2 == 0)
        signal();
    check(sd_bus_reply_method_return(call, "o", path.c_str()), "reply");
    if (fake.jobs % 2 != 0)
        signal();
    return 1;
}

int start_unit(sd_bus_message* call, void* data, sd_bus_error* error)
{
    Fake& fake = *static_cast<Fake*>(data);
    const std::string name = read_text(call);
    const std::string mode = read_text(call);
    fake.log << "start " << name << " mode=" << mode << std::endl;
    Unit unit;
    const auto old = fake.units.find(name);
    if (old != fake.units.end() && !processes(old->second).empty())
        return sd_bus_error_setf(error, "org.freedesktop.systemd1.UnitExists",
                                 "Unit %s already exists.", name.c_str());
    if (!read_properties(fake, call, "start", name, unit))
        return sd_bus_error_set(error, "org.freedesktop.DBus.Error.PropertyReadOnly",
                                "Cannot set property Nonsense, or unknown property.");
    unit.group = fake.group + slice_path(unit.properties["Slice"]) + "/" + name;
    for (const fs::path& directory : directories(unit.group)) {
        fs::create_directories(directory);
        std::ofstream(directory / "cgroup.procs") << unit.properties["PIDs"] << std::flush;
    }
    fake.units[name] = unit;
    return reply_job(fake, call, name);
}

int set_unit(sd_bus_message* call, void* data, sd_bus_error* error)
{
    Fake& fake = *static_cast<Fake*>(data);
    const std::string name = read_text(call);
    int untilStop = 0;
    check(sd_bus_message_read_basic(call, 'b', &untilStop), "runtime");
    if (!fake.units.contains(name))
        return sd_bus_error_setf(error, "org.freedesktop.systemd1.NoSuchUnit", "Unit %s not found.",
                                 name.c_str());
    if (!read_properties(fake, call, untilStop != 0 ? "set" : "keep", name, fake.units[name]))
        return sd_bus_error_set(error, "org.freedesktop.DBus.Error.PropertyReadOnly",
                                "Cannot set property Nonsense, or unknown property.");
    return sd_bus_reply_method_return(call, "");
}

int stop_unit(sd_bus_message* call, void* data, sd_bus_error* error)
{
    Fake& fake = *static_cast<Fake*>(data);
    const std::string name = read_text(call);
    fake.log << "stop " << name << std::endl;
    const auto found = fake.units.find(name);
    if (found == fake.units.end())
        return sd_bus_error_setf(error, "org.freedesktop.systemd1.NoSuchUnit",
                                 "Unit %s not loaded.", name.c_str());
    // Groups can be removed a moment after the end of their processes.
    constexpr int kTries = 200;
    std::error_code ignored;
    for (int i = 0; i < kTries && !remaining(found->second).empty(); i++) {
        for (const int pid : processes(found->second))
            ::kill(pid, SIGKILL);
        for (const fs::path& directory : remaining(found->second))
            fs::remove(directory, ignored);
        ::usleep(10000);
    }
    fake.units.erase(found);
    return reply_job(fake, call, name);
}

int forget_unit(sd_bus_message* call, void* data, sd_bus_error* error)
{
    Fake& fake = *static_cast<Fake*>(data);
    const std::string name = read_text(call);
    fake.log << "forget " << name << std::endl;
    if (!fake.units.contains(name))
        return sd_bus_error_setf(error, "org.freedesktop.systemd1.NoSuchUnit",
                                 "Unit %s not loaded.", name.c_str());
    return sd_bus_reply_method_return(call, "");
}

int subscribe(sd_bus_message* call, void* /*data*/, sd_bus_error* /*error*/)
{
    return sd_bus_reply_method_return(call, "");
}

int manager_group(sd_bus* /*bus*/, const char* /*path*/, const char* /*interface*/,
                  const char* /*name*/, sd_bus_message* reply, void* data, sd_bus_error* /*error*/)
{
    return sd_bus_message_append(reply, "s", static_cast<Fake*>(data)->group.c_str());
}

std::string unit_at(const char* path)
{
    char* name = nullptr;
    if (sd_bus_path_decode(path, kUnits, &name) <= 0)
        return "";
    const std::string copy = name;
    ::free(name);
    return copy;
}

int find_unit(sd_bus* /*bus*/, const char* path, const char* /*interface*/, void* data,
              void** found, sd_bus_error* /*error*/)
{
    *found = data;
    return static_cast<Fake*>(data)->units.contains(unit_at(path)) ? 1 : 0;
}

int unit_group(sd_bus* /*bus*/, const char* path, const char* /*interface*/, const char* /*name*/,
               sd_bus_message* reply, void* data, sd_bus_error* /*error*/)
{
    const std::string name = unit_at(path);
    const std::string group = static_cast<Fake*>(data)->units[name].group;
    return sd_bus_message_append(reply, "s",
                                 name.find("lost") != name.npos ? "/elsewhere" : group.c_str());
}

int unit_number(sd_bus* /*bus*/, const char* path, const char* /*interface*/, const char* name,
                sd_bus_message* reply, void* data, sd_bus_error* /*error*/)
{
    const auto& properties = static_cast<Fake*>(data)->units[unit_at(path)].properties;
    const auto found = properties.find(name);
    return sd_bus_message_append(
        reply, "t", found != properties.end() ? std::stoull(found->second) : UINT64_MAX);
}

const sd_bus_vtable kManagerTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Subscribe", "", "", subscribe, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StartTransientUnit", "ssa(sv)a(sa(sv))", "o", start_unit,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SetUnitProperties", "sba(sv)", "", set_unit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StopUnit", "ss", "o", stop_unit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("ResetFailedUnit", "s", "", forget_unit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("ControlGroup", "s", manager_group, 0, 0),
    SD_BUS_SIGNAL("JobRemoved", "uoss", 0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kScopeTable[] = {SD_BUS_VTABLE_START(0),
                                     SD_BUS_PROPERTY("ControlGroup", "s", unit_group, 0, 0),
                                     SD_BUS_PROPERTY("MemoryMax", "t", unit_number, 0, 0),
                                     SD_BUS_PROPERTY("MemoryLimit", "t", unit_number, 0, 0),
                                     SD_BUS_PROPERTY("CPUQuotaPeriodUSec", "t", unit_number, 0, 0),
                                     SD_BUS_PROPERTY("CPUQuotaPerSecUSec", "t", unit_number, 0, 0),
                                     SD_BUS_VTABLE_END};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: fake_systemd ADDRESS LOG GROUP\n");
        return 64;
    }
    Fake fake;
    fake.log.open(argv[2], std::ios::app);
    fake.group = argv[3];
    check(sd_bus_new(&fake.bus), "bus");
    check(sd_bus_set_address(fake.bus, argv[1]), "address");
    check(sd_bus_set_bus_client(fake.bus, 1), "bus");
    check(sd_bus_start(fake.bus), "bus");
    check(sd_bus_add_object_vtable(fake.bus, nullptr, kManagerPath, kManager, kManagerTable, &fake),
          "manager");
    check(sd_bus_add_fallback_vtable(fake.bus, nullptr, kUnits, "org.freedesktop.systemd1.Scope",
                                     kScopeTable, find_unit, &fake),
          "scopes");
    check(sd_bus_request_name(fake.bus, "org.freedesktop.systemd1", 0), "name");
    fake.log << "ready" << std::endl;
    for (;;) {
        const int result = sd_bus_process(fake.bus, nullptr);
        check(result, "process");
        if (result == 0)
            check(sd_bus_wait(fake.bus, UINT64_MAX), "wait");
    }
}
