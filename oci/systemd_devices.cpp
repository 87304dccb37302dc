#include "systemd_devices.hpp"

#include "front/words.hpp"

#include <algorithm>
#include <array>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace zncrun {
namespace {

using Rule = ZN_ENGINE_DEVICE_RULE;

constexpr char kField[] = "linux.resources.devices";

bool is_everything(const Rule& rule)
{
    return rule.type == 'a';
}

bool is_same_device(const Rule& one, const Rule& other)
{
    return one.type == other.type && one.major == other.major && one.minor == other.minor;
}

bool overlaps(std::int64_t one, std::int64_t other)
{
    return one < 0 || other < 0 || one == other;
}

// The list of allowed devices while the rules are read in their order.
class AllowedDevices {
  public:
    void add(const Rule& rule)
    {
        if (is_everything(rule)) {
            all_ = rule.allow != FALSE;
            rules_.clear();
        } else if (rule.allow != FALSE && !all_) {
            allow(rule);
        } else if (rule.allow == FALSE) {
            deny(rule);
        }
    }
    [[nodiscard]] bool all() const { return all_; }
    [[nodiscard]] const std::vector<Rule>& rules() const { return rules_; }

  private:
    void allow(const Rule& rule)
    {
        const auto same = std::find_if(rules_.begin(), rules_.end(),
                                       [&](const Rule& one) { return is_same_device(one, rule); });
        if (same == rules_.end()) {
            rules_.push_back(rule);
            return;
        }
        same->read = rule.read != FALSE ? TRUE : same->read;
        same->write = rule.write != FALSE ? TRUE : same->write;
        same->make = rule.make != FALSE ? TRUE : same->make;
    }
    void deny(const Rule& rule)
    {
        for (Rule& one : rules_) {
            if (one.type != rule.type || !overlaps(one.major, rule.major) ||
                !overlaps(one.minor, rule.minor))
                continue;
            if (!is_same_device(one, rule))
                refuse();
            one.read = rule.read != FALSE ? FALSE : one.read;
            one.write = rule.write != FALSE ? FALSE : one.write;
            one.make = rule.make != FALSE ? FALSE : one.make;
        }
        if (all_)
            refuse();
    }
    [[noreturn]] static void refuse()
    {
        throw Failure(fmt::format("{}: systemd cannot allow all devices but some", kField));
    }

    bool all_ = true;
    std::vector<Rule> rules_;
};

std::string name_of(const Rule& rule)
{
    const char* kind = rule.type == 'b' ? "block" : "char";
    if (rule.major >= 0 && rule.minor >= 0)
        return fmt::format("/dev/{}/{}:{}", kind, rule.major, rule.minor);
    std::array<char, ZN_ENGINE_DRIVER_MAX> driver{};
    if (rule.major < 0 && rule.minor < 0)
        return fmt::format("{}-*", kind);
    if (rule.major < 0 ||
        znEngineDeviceDriver(rule.type, rule.major, driver.data(), driver.size()) != OK)
        throw Failure(fmt::format("{}: systemd has no name for all devices {}:{}", kField,
                                  rule.major, rule.minor));
    return fmt::format("{}-{}", kind, driver.data());
}

} // namespace

UnitProperties device_properties(std::span<const Rule> rules)
{
    AllowedDevices allowed;
    for (const Rule& rule : rules)
        allowed.add(rule);
    UnitDevices devices;
    for (const Rule& rule : allowed.rules()) {
        const std::string access = std::string(rule.read != FALSE ? "r" : "") +
                                   (rule.write != FALSE ? "w" : "") +
                                   (rule.make != FALSE ? "m" : "");
        if (!access.empty())
            devices.emplace_back(name_of(rule), access);
    }
    return {{"DevicePolicy", std::string(allowed.all() ? "auto" : "strict")},
            {"DeviceAllow", devices}};
}

UnitProperties device_properties(const Json& resources)
{
    std::vector<Rule> rules;
    std::array<char, ZN_ENGINE_REASON_MAX> reason{};
    const auto add = [](const Rule* rule, void* list) {
        static_cast<std::vector<Rule>*>(list)->push_back(*rule);
    };
    if (znEngineDeviceRules(zncctl::compact(resources).c_str(), add, &rules, reason.data(),
                            reason.size()) != OK)
        throw Failure(reason.data());
    return device_properties(rules);
}

} // namespace zncrun
