#include "systemd_scope.hpp"

#include "fields.hpp"
#include "systemd_devices.hpp"

#include <fmt/format.h>

namespace zncrun {
namespace {

Json parse_resources(const std::string& text)
{
    zncctl::JsonNotes notes;
    auto json = zncctl::parse_json(text, &notes);
    if (!json)
        throw Failure("resources: " + notes.problem);
    return *std::move(json);
}

// What every scope of a container has: its own groups, statistics, and no end by the shutdown of
// the system before the engine's.
UnitProperties own_properties(const std::string& name, const std::string& slice, int version)
{
    return {{"Description", "container " + name},
            {"Slice", slice},
            {"Delegate", true},
            {"DefaultDependencies", false},
            {"CPUAccounting", true},
            {"MemoryAccounting", true},
            {"TasksAccounting", true},
            {version == 1 ? "BlockIOAccounting" : "IOAccounting", true}};
}

// Later properties take precedence.
void append(UnitProperties& properties, UnitProperties more)
{
    for (UnitProperty& one : more)
        properties.push_back(std::move(one));
}

int group_version()
{
    const int version = znEngineGroupVersion();
    if (version == 0)
        throw Failure("linux.cgroupsPath: there are no control groups");
    return version;
}

UnitProperties all_limits(const Json& resources, int version, const UnitLimits& now)
{
    UnitProperties properties = limit_properties(resources, version, now);
    if (version == 1)
        append(properties, device_properties(resources));
    return properties;
}

} // namespace

NewScope::NewScope(const Bundle& bundle, const std::string& name)
    : name_(read_scope_name(bundle.group_path(),
                            uses_user_manager() ? "user.slice" : "system.slice", name))
{
    const int version = group_version();
    const auto section = Fields(bundle.config(), "").object("linux");
    const Json* resources = section ? section->find("resources") : nullptr;
    properties_ = own_properties(name, name_.slice, version);
    append(properties_,
           all_limits(resources != nullptr ? *resources : Json::object(), version, {}));
    append(properties_, annotation_properties(bundle.annotations()));
    group_ = scope_group(bus_.manager_group(), name_);
}

NewScope::~NewScope()
{
    if (started_)
        remove_scope(name_.unit); // report only the original failure
}

void NewScope::add_to(ZN_ENGINE_PLAN& plan)
{
    plan.place = NewScope::place;
    plan.placeContext = this;
}

void NewScope::start(pid_t pid)
{
    bus_.start_scope(name_.unit, pid, properties_, started_);
    const std::string found = bus_.scope_group(name_.unit);
    if (found != group_)
        throw Failure(fmt::format("systemd: the control group of {} is {:?}, not {:?}", name_.unit,
                                  found, group_));
}

STATUS NewScope::place(const ZN_ENGINE_PROCESS* process, void* scope)
{
    auto* self = static_cast<NewScope*>(scope);
    try {
        self->start(process->pid);
        return OK;
    } catch (const std::exception& failure) {
        self->failure_ = failure.what();
        return ERROR;
    }
}

void update_scope(const std::string& unit, const std::string& resources)
{
    SystemdBus bus;
    const UnitProperties properties =
        all_limits(parse_resources(resources), group_version(), bus.scope_limits(unit));
    if (!properties.empty())
        bus.set_properties(unit, properties);
}

std::string remove_scope(const std::string& unit)
{
    try {
        SystemdBus().stop(unit);
        return "";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

} // namespace zncrun
