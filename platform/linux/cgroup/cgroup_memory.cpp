// cgroup_memory.cpp - limits of memory and swap; see cgroup.hpp.
#include "cgroup_limits.hpp"

#include <cerrno>

namespace zn {
namespace {

constexpr std::int64_t kUnlimited = -1;
constexpr char kMemory[] = "memory.limit";
constexpr char kSwap[] = "memory.swap";

constexpr LimitFile kLimit = {"memory.limit_in_bytes", "memory.max"};
constexpr LimitFile kSwapLimit = {"memory.memsw.limit_in_bytes", "memory.swap.max"};
constexpr LimitFile kReservation = {"memory.soft_limit_in_bytes", "memory.low"};
constexpr LimitFile kSwappiness = {"memory.swappiness", nullptr};
constexpr LimitFile kOomControl = {"memory.oom_control", nullptr};

struct Limit {
    const LimitFile& file;
    const std::optional<std::int64_t>& value;
    const char* name;
};

// Without the file a group is unlimited anyway.
int write_given(const LimitGroup& group, const Limit& limit, const char** field)
{
    if (!limit.value || (*limit.value < 0 && !group.has(limit.file)))
        return 0;
    const int error = group.write_limit(limit.file, *limit.value);
    if (error != 0)
        *field = limit.name;
    return error;
}

// Whether a limit is higher than the number in the file. Negative is the highest.
bool exceeds(std::int64_t limit, std::uint64_t now)
{
    return limit < 0 || static_cast<std::uint64_t>(limit) > now;
}

// After each write, the kernel requires the limit of memory and swap together to be at least that
// of memory. So memory+swap is written first when limits are raised, and last when they are
// lowered.
int write_memory_v1(const LimitGroup& group, const Resources& resources, const char** field)
{
    std::optional<std::int64_t> both = resources.memorySwap;
    // Raise memory+swap first: the kernel refuses a memory limit above it.
    if (!both && resources.memoryLimit && *resources.memoryLimit < 0)
        both = kUnlimited;
    const Limit limit = {kLimit, resources.memoryLimit, kMemory};
    const Limit swap = {kSwapLimit, both, kSwap};
    std::uint64_t now = 0;
    const bool raise =
        both && control_number(group.get(), kSwapLimit.v1, now) == 0 && exceeds(*both, now);
    int error = write_given(group, raise ? swap : limit, field);
    if (error == 0)
        error = write_given(group, raise ? limit : swap, field);
    return error;
}

// v2 has a limit for swap only: memory.swap minus memory.limit.
int swap_alone(const LimitGroup& group, const Resources& resources,
               std::optional<std::int64_t>& swap)
{
    swap = resources.memorySwap;
    if (!swap || *swap < 0)
        return 0;
    std::uint64_t memory = UINT64_MAX;
    int error = 0;
    if (resources.memoryLimit && *resources.memoryLimit >= 0)
        memory = static_cast<std::uint64_t>(*resources.memoryLimit);
    else if (!resources.memoryLimit)
        error = control_number(group.get(), kLimit.v2, memory);
    if (error != 0)
        return error == ENOENT ? ENOTSUP : error;
    if (exceeds(*swap, memory) || static_cast<std::uint64_t>(*swap) == memory) {
        swap = *swap - static_cast<std::int64_t>(memory);
        return 0;
    }
    return EINVAL;
}

int write_memory_v2(const LimitGroup& group, const Resources& resources, const char** field)
{
    std::optional<std::int64_t> alone;
    int error = swap_alone(group, resources, alone);
    if (error != 0) {
        *field = kSwap;
        return error;
    }
    error = write_given(group, {kLimit, resources.memoryLimit, kMemory}, field);
    if (error == 0)
        error = write_given(group, {kSwapLimit, alone, kSwap}, field);
    return error;
}

// Limits that only v1 has. disableOOMKiller: false needs nothing on v2.
int write_others(const LimitGroup& group, const Resources& resources, const char** field)
{
    int error = 0;
    if (resources.memorySwappiness) {
        error = group.write(kSwappiness, *resources.memorySwappiness);
        if (error != 0)
            *field = "memory.swappiness";
    }
    if (error == 0 && resources.disableOomKiller &&
        (*resources.disableOomKiller || !group.unified())) {
        error = group.write(kOomControl, std::uint64_t{*resources.disableOomKiller});
        if (error != 0)
            *field = "memory.disableOOMKiller";
    }
    return error;
}

// The name of the first given limit that needs a controller.
const char* first_given(const Resources& resources)
{
    const Limit limits[] = {{kLimit, resources.memoryLimit, kMemory},
                            {kSwapLimit, resources.memorySwap, kSwap},
                            {kReservation, resources.memoryReservation, "memory.reservation"}};
    for (const Limit& limit : limits)
        if (limit.value && *limit.value >= 0)
            return limit.name;
    if (resources.memorySwappiness)
        return "memory.swappiness";
    return resources.disableOomKiller && *resources.disableOomKiller ? "memory.disableOOMKiller"
                                                                     : nullptr;
}

} // namespace

int memory_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
                 const char** field)
{
    const char* first = first_given(resources);
    if (first == nullptr && !resources.memoryLimit && !resources.memorySwap &&
        !resources.memoryReservation && !resources.disableOomKiller)
        return 0;
    LimitGroup group;
    int error = group.open(hierarchies, path, Controller::kMemory);
    if (error == ENOTSUP && first == nullptr)
        return 0;
    if (error != 0) {
        *field = first;
        return error;
    }
    error = group.unified() ? write_memory_v2(group, resources, field)
                            : write_memory_v1(group, resources, field);
    if (error == 0)
        error = write_given(
            group, {kReservation, resources.memoryReservation, "memory.reservation"}, field);
    return error != 0 ? error : write_others(group, resources, field);
}

} // namespace zn
