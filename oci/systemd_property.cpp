#include "systemd_property.hpp"

#include "fields.hpp"
#include "front/words.hpp"
#include "zarnel/engine.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncrun {
namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kDefaultPeriod = 100000;
constexpr std::uint64_t kSecond = 1000000;

void set(UnitProperties& properties, const char* name, UnitValue value)
{
    const auto found =
        std::find_if(properties.begin(), properties.end(),
                     [&](const UnitProperty& property) { return property.name == name; });
    if (found != properties.end())
        found->value = std::move(value);
    else
        properties.push_back({name, std::move(value)});
}

std::uint64_t limit_of(std::int64_t number)
{
    return number < 0 ? kUnitInfinity : static_cast<std::uint64_t>(number);
}

// "0-3,7" as the bits that systemd expects, the first byte holding the lowest ones.
std::vector<std::uint8_t> bits_of(const std::string& list, const std::string& name)
{
    constexpr unsigned kEnd = 8192;
    std::vector<std::uint8_t> bits;
    for (const std::string& part : zncctl::split(list, ',')) {
        const std::size_t dash = part.find('-');
        const auto first = zncctl::to_number<unsigned>(part.substr(0, dash));
        const auto last =
            dash == part.npos ? first : zncctl::to_number<unsigned>(part.substr(dash + 1));
        if (!first || !last || *first > *last || *last >= kEnd)
            throw Failure(fmt::format("{}: {:?} is not a list like 0-3,7", name, list));
        bits.resize(std::max<std::size_t>(bits.size(), *last / 8 + 1));
        for (unsigned bit = *first; bit <= *last; bit++)
            bits[bit / 8] = static_cast<std::uint8_t>(bits[bit / 8] | 1U << bit % 8);
    }
    return bits;
}

// systemd stores whole percents; less than the wanted time would slow the container down.
void set_quota(UnitProperties& properties, std::uint64_t quota, std::uint64_t period)
{
    constexpr std::uint64_t kPercent = kSecond / 100;
    if (quota == kUnitInfinity || period == 0) {
        set(properties, "CPUQuotaPerSecUSec", kUnitInfinity);
        return;
    }
    const std::uint64_t each =
        quota > kUnitInfinity / kSecond ? kUnitInfinity / 2 : quota * kSecond / period;
    set(properties, "CPUQuotaPerSecUSec", (each + kPercent - 1) / kPercent * kPercent);
}

void add_memory(const Fields& memory, int version, const UnitLimits& now,
                UnitProperties& properties)
{
    const auto limit = memory.number("limit", -1, kMost);
    const auto swap = memory.number("swap", -1, kMost);
    const auto reservation = memory.number("reservation", -1, kMost);
    if (limit)
        set(properties, version == 1 ? "MemoryLimit" : "MemoryMax", limit_of(*limit));
    if (version == 1)
        return;
    if (reservation)
        set(properties, "MemoryLow", limit_of(*reservation));
    if (!swap)
        return;
    const std::uint64_t own = limit ? limit_of(*limit) : now.memory;
    const std::uint64_t both = limit_of(*swap);
    if (both != kUnitInfinity && (own == kUnitInfinity || both < own))
        throw Failure(memory.name("swap") + ": is less than the limit of memory");
    set(properties, "MemorySwapMax", both == kUnitInfinity ? both : both - own);
}

void add_cpu(const Fields& cpu, int version, const UnitLimits& now, UnitProperties& properties)
{
    if (const auto shares = cpu.number("shares", 0, kMost); shares && *shares != 0) {
        const auto number = static_cast<std::uint64_t>(*shares);
        set(properties, version == 1 ? "CPUShares" : "CPUWeight",
            version == 1 ? number : znEngineCpuWeight(number));
    }
    const auto quota = cpu.number("quota", -1, kMost);
    const auto period = cpu.number("period", 0, kMost);
    const std::uint64_t before = now.period == kUnitInfinity ? kDefaultPeriod : now.period;
    if (period)
        set(properties, "CPUQuotaPeriodUSec", static_cast<std::uint64_t>(*period));
    if (quota)
        set_quota(properties, limit_of(*quota),
                  period ? static_cast<std::uint64_t>(*period) : before);
    else if (period && now.quota != kUnitInfinity) // the time in each period stays the same
        set_quota(properties, now.quota * before / kSecond, static_cast<std::uint64_t>(*period));
    if (version == 1)
        return; // systemd does not write the sets of v1
    if (const std::string cpus = cpu.text("cpus"); !cpus.empty())
        set(properties, "AllowedCPUs", bits_of(cpus, cpu.name("cpus")));
    if (const std::string mems = cpu.text("mems"); !mems.empty())
        set(properties, "AllowedMemoryNodes", bits_of(mems, cpu.name("mems")));
}

// A number, or "max".
std::uint64_t control_number(const std::string& text, const std::string& name)
{
    const auto number = zncctl::to_number<std::uint64_t>(text);
    if (!number && text != "max")
        throw Failure(fmt::format("{}: {:?} is not a number", name, text));
    return number.value_or(kUnitInfinity);
}

// Control files that systemd writes, too.
void add_control_file(const std::string& file, const std::string& text, const std::string& name,
                      UnitProperties& properties)
{
    struct Known {
        const char* file;
        const char* property;
    };
    constexpr std::array kNumbers = {
        Known{"memory.max", "MemoryMax"},          Known{"memory.high", "MemoryHigh"},
        Known{"memory.low", "MemoryLow"},          Known{"memory.min", "MemoryMin"},
        Known{"memory.swap.max", "MemorySwapMax"}, Known{"pids.max", "TasksMax"},
        Known{"cpu.weight", "CPUWeight"}};
    for (const Known& known : kNumbers)
        if (file == known.file)
            set(properties, known.property, control_number(text, name));
    if (file == "io.weight") {
        constexpr std::string_view kDefault = "default ";
        set(properties, "IOWeight",
            control_number(text.starts_with(kDefault) ? text.substr(kDefault.size()) : text, name));
    }
    if (file == "cpuset.cpus" || file == "cpuset.mems")
        set(properties, file == "cpuset.cpus" ? "AllowedCPUs" : "AllowedMemoryNodes",
            bits_of(text, name));
    if (file != "cpu.max")
        return;
    const auto words = zncctl::split_words(text);
    if (words.empty() || words.size() > 2)
        throw Failure(fmt::format("{}: {:?} is not a quota and a period", name, text));
    const std::uint64_t period =
        words.size() == 2 ? control_number(words[1], name) : kDefaultPeriod;
    set(properties, "CPUQuotaPeriodUSec", period);
    set_quota(properties, control_number(words[0], name), period);
}

} // namespace

UnitProperties limit_properties(const Json& resources, int version, const UnitLimits& now)
{
    const Fields fields(resources, "linux.resources");
    UnitProperties properties;
    if (const auto memory = fields.object("memory"))
        add_memory(*memory, version, now, properties);
    if (const auto cpu = fields.object("cpu"))
        add_cpu(*cpu, version, now, properties);
    if (const auto pids = fields.object("pids"))
        if (const auto limit = pids->number("limit", -1, kMost))
            set(properties, "TasksMax", limit_of(*limit));
    if (const auto disks = fields.object("blockIO"))
        if (const auto weight = disks->number("weight", 0, 1000); weight && *weight != 0) {
            const auto number = static_cast<std::uint32_t>(*weight);
            set(properties, version == 1 ? "BlockIOWeight" : "IOWeight",
                version == 1 ? std::uint64_t{number} : znEngineIoWeight(number));
        }
    const auto unified = version == 2 ? fields.object("unified") : std::nullopt;
    const Json* files = unified ? fields.find("unified") : nullptr;
    const Json none = Json::object();
    for (const auto& file : (files != nullptr ? files : &none)->items())
        add_control_file(file.key(), unified->text(file.key().c_str()),
                         unified->name(file.key().c_str()), properties);
    return properties;
}

} // namespace zncrun
