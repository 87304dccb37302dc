// cgroup_limits.cpp - limits of processor time, processes, disks and huge pages; see cgroup.hpp.
#include "cgroup_limits.hpp"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace zn {
namespace {

constexpr const char* kNoLimit = "max"; // of v2
constexpr LimitFile kShares = {"cpu.shares", "cpu.weight"};
constexpr LimitFile kQuota = {"cpu.cfs_quota_us", "cpu.max"};
constexpr LimitFile kPeriod = {"cpu.cfs_period_us", nullptr};
constexpr LimitFile kCpus = {"cpuset.cpus", "cpuset.cpus"};
constexpr LimitFile kMems = {"cpuset.mems", "cpuset.mems"};
constexpr LimitFile kPidsMax = {"pids.max", "pids.max"};
// Weights of two schedulers for disks. The first v1 file (blkio.weight, CFQ) exists in kernels
// before 5.0 only.
constexpr LimitFile kIoWeight = {"blkio.weight", "io.weight"};
constexpr LimitFile kIoBfqWeight = {"blkio.bfq.weight", "io.bfq.weight"};
constexpr LimitFile kDeviceWeight = {"blkio.weight_device", "io.weight"};
constexpr LimitFile kDeviceBfqWeight = {"blkio.bfq.weight_device", "io.bfq.weight"};

// Names the limit that could not be set.
int named(int error, const char* name, const char** field)
{
    if (error != 0)
        *field = name;
    return error;
}

int write_period_and_quota_v1(const LimitGroup& group, const Resources& resources,
                              const char** field)
{
    int error = 0;
    bool late = false;
    if (resources.cpuPeriod) {
        error = group.write(kPeriod, *resources.cpuPeriod);
        // The new period with the old quota may exceed the parent's share: write the period after
        // the quota.
        late = error == EINVAL && resources.cpuQuota;
        if (error != 0 && !late)
            return named(error, "cpu.period", field);
    }
    if (resources.cpuQuota)
        error = group.write_limit(kQuota, *resources.cpuQuota);
    if (error != 0)
        return named(error, "cpu.quota", field);
    if (late)
        error = group.write(kPeriod, *resources.cpuPeriod);
    return named(error, "cpu.period", field);
}

// Both are in one file, "max 100000". A quota alone keeps the period.
int write_period_and_quota_v2(const LimitGroup& group, const Resources& resources,
                              const char** field)
{
    char text[64];
    char quota[24];
    std::snprintf(quota, sizeof quota, "%s", kNoLimit);
    if (resources.cpuQuota && *resources.cpuQuota >= 0)
        std::snprintf(quota, sizeof quota, "%" PRId64, *resources.cpuQuota);
    if (!resources.cpuQuota) {
        ControlLines lines(group.get(), kQuota.v2);
        const char* now = lines.next();
        if (now != nullptr)
            std::snprintf(quota, sizeof quota, "%.*s", static_cast<int>(std::strcspn(now, " ")),
                          now);
    }
    if (resources.cpuPeriod)
        std::snprintf(text, sizeof text, "%s %" PRIu64, quota, *resources.cpuPeriod);
    else
        std::snprintf(text, sizeof text, "%s", quota);
    return named(group.write(kQuota, text), resources.cpuQuota ? "cpu.quota" : "cpu.period", field);
}

int cpu_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
              const char** field)
{
    const bool limited = resources.cpuPeriod || resources.cpuQuota;
    if (!limited && !resources.cpuShares)
        return 0;
    LimitGroup group;
    int error = group.open(hierarchies, path, Controller::kCpu);
    // Without the controller a group is unlimited anyway.
    const bool none = !resources.cpuShares && !resources.cpuPeriod && *resources.cpuQuota < 0;
    if (error == ENOTSUP && none)
        return 0;
    if (error != 0)
        return named(error,
                     resources.cpuShares  ? "cpu.shares"
                     : resources.cpuQuota ? "cpu.quota"
                                          : "cpu.period",
                     field);
    if (resources.cpuShares) {
        error = group.write(kShares, group.unified() ? weight_of_shares(*resources.cpuShares)
                                                     : *resources.cpuShares);
        if (error != 0)
            return named(error, "cpu.shares", field);
    }
    if (!limited || (none && !group.has(kQuota)))
        return 0;
    return group.unified() ? write_period_and_quota_v2(group, resources, field)
                           : write_period_and_quota_v1(group, resources, field);
}

int cpuset_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
                 const char** field)
{
    if (!resources.cpus && !resources.mems)
        return 0;
    LimitGroup group;
    int error = group.open(hierarchies, path, Controller::kCpuset);
    if (error == 0 && resources.cpus)
        error = group.write(kCpus, resources.cpus.get());
    if (error != 0)
        return named(error, resources.cpus ? "cpu.cpus" : "cpu.mems", field);
    return resources.mems ? named(group.write(kMems, resources.mems.get()), "cpu.mems", field) : 0;
}

int pids_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
               const char** field)
{
    if (!resources.pidsLimit)
        return 0;
    const std::int64_t limit = *resources.pidsLimit;
    LimitGroup group;
    int error = group.open(hierarchies, path, Controller::kPids);
    if (error == 0)
        error = limit < 0 ? group.write(kPidsMax, kNoLimit)
                          : group.write(kPidsMax, static_cast<std::uint64_t>(limit));
    const bool optional = limit < 0 || resources.pidsLimitIsDefault;
    return error == ENOTSUP && optional ? 0 : named(error, "pids.limit", field);
}

// Writes both files: each is used by a different I/O scheduler.
int write_io_weight(const LimitGroup& group, std::uint32_t weight)
{
    const int error =
        group.write(kIoWeight, group.unified() ? weight_of_io(weight) : std::uint64_t{weight});
    if (error != 0 && error != ENOTSUP)
        return error;
    const int bfq = group.write(kIoBfqWeight, weight);
    return bfq == ENOTSUP ? error : bfq;
}

// The weight for one device, "8:0 500". It has one of the two schedulers, so that the kernel may
// refuse one of the files.
int write_device_weight(const LimitGroup& group, const DeviceWeight& weight)
{
    char text[64];
    std::snprintf(text, sizeof text, "%u:%u %" PRIu64, weight.major, weight.minor,
                  group.unified() ? weight_of_io(weight.weight) : std::uint64_t{weight.weight});
    const int error = group.write(kDeviceWeight, text);
    std::snprintf(text, sizeof text, "%u:%u %u", weight.major, weight.minor, weight.weight);
    const int bfq = group.write(kDeviceBfqWeight, text);
    if (error == 0 || bfq == 0)
        return 0;
    return bfq == ENOTSUP ? error : bfq;
}

// One rate of one device, "8:0 1048576". A rate of 0 means that there is none.
int write_rate(const LimitGroup& group, const LimitFile& file, const char* key,
               const DeviceRate& rate)
{
    char value[24];
    char text[96];
    std::snprintf(value, sizeof value, "%" PRIu64, rate.rate);
    if (group.unified())
        std::snprintf(text, sizeof text, "%u:%u %s=%s", rate.major, rate.minor, key,
                      rate.rate != 0 ? value : kNoLimit);
    else
        std::snprintf(text, sizeof text, "%u:%u %s", rate.major, rate.minor, value);
    return group.write(file, text);
}

int io_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
             const char** field)
{
    const struct {
        const List<DeviceRate>& rates;
        LimitFile file;
        const char* key;
        const char* name;
    } all[] = {
        {resources.readBps,
         {"blkio.throttle.read_bps_device", "io.max"},
         "rbps",
         "blockIO.throttleReadBpsDevice"},
        {resources.writeBps,
         {"blkio.throttle.write_bps_device", "io.max"},
         "wbps",
         "blockIO.throttleWriteBpsDevice"},
        {resources.readIops,
         {"blkio.throttle.read_iops_device", "io.max"},
         "riops",
         "blockIO.throttleReadIOPSDevice"},
        {resources.writeIops,
         {"blkio.throttle.write_iops_device", "io.max"},
         "wiops",
         "blockIO.throttleWriteIOPSDevice"},
    };
    LimitGroup group;
    const int opened = group.open(hierarchies, path, Controller::kBlkio);
    if (resources.ioWeight) {
        const int error = opened != 0 ? opened : write_io_weight(group, *resources.ioWeight);
        if (error != 0)
            return named(error, "blockIO.weight", field);
    }
    for (const DeviceWeight& weight : resources.deviceWeights) {
        const int error = opened != 0 ? opened : write_device_weight(group, weight);
        if (error != 0)
            return named(error, "blockIO.weightDevice", field);
    }
    for (const auto& one : all)
        for (const DeviceRate& rate : one.rates) {
            const int error = opened != 0 ? opened : write_rate(group, one.file, one.key, rate);
            if (error != 0)
                return named(error, one.name, field);
        }
    return 0;
}

int write_hugepage_limit(const LimitGroup& group, const HugepageLimit& limit)
{
    if (!limit.size || !is_page_size(limit.size.get())) // part of a file name
        return EINVAL;
    char v1[64];
    char v2[64];
    std::snprintf(v1, sizeof v1, "hugetlb.%s.limit_in_bytes", limit.size.get());
    std::snprintf(v2, sizeof v2, "hugetlb.%s.max", limit.size.get());
    const int error = group.write({v1, v2}, limit.limit);
    if (error != 0)
        return error;
    // If the kernel can also limit reservations, allocating too many pages fails; otherwise the
    // program is killed by a signal when it uses them.
    std::snprintf(v1, sizeof v1, "hugetlb.%s.rsvd.limit_in_bytes", limit.size.get());
    std::snprintf(v2, sizeof v2, "hugetlb.%s.rsvd.max", limit.size.get());
    return group.has({v1, v2}) ? group.write({v1, v2}, limit.limit) : 0;
}

int hugepages_apply(const Hierarchies& hierarchies, const GroupPath& path,
                    const Resources& resources, const char** field)
{
    LimitGroup group;
    int error = 0;
    if (!resources.hugepages.empty())
        error = group.open(hierarchies, path, Controller::kHugetlb);
    for (const HugepageLimit& limit : resources.hugepages)
        if (error == 0)
            error = write_hugepage_limit(group, limit);
    return named(error, "hugepageLimits", field);
}

// Writes the members of "unified", after all other limits, over which they take precedence.
int unified_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
                  const char** field)
{
    if (resources.unified.empty())
        return 0;
    if (hierarchies.version != CgroupVersion::kV2 || hierarchies.all.empty())
        return named(ENOTSUP, "unified (invalid configuration: needs control groups v2)", field);
    const znc::UniqueFd group = group_open(hierarchies.all[0], path);
    if (!group)
        return named(errno, "unified", field);
    for (const ControlFile& file : resources.unified)
        if (const int error = control_write(group.get(), file.name.get(), file.value.get());
            error != 0)
            return named(error == ENOENT ? ENOTSUP : error, "unified", field);
    return 0;
}

} // namespace

int LimitGroup::open(const Hierarchies& hierarchies, const GroupPath& path, Controller controller)
{
    const Hierarchy* in = hierarchies.with(controller);
    if (in == nullptr)
        return ENOTSUP;
    group_ = group_open(*in, path);
    unified_ = in->unified;
    return group_ ? 0 : errno;
}

bool LimitGroup::has(const LimitFile& file) const
{
    return group_ && name(file) != nullptr && control_exists(group_.get(), name(file));
}

int LimitGroup::write(const LimitFile& file, std::string_view text) const
{
    const int error =
        name(file) != nullptr ? control_write(group_.get(), name(file), text) : ENOENT;
    return error == ENOENT ? ENOTSUP : error;
}

int LimitGroup::write(const LimitFile& file, std::uint64_t number) const
{
    char text[24];
    std::snprintf(text, sizeof text, "%" PRIu64, number);
    return write(file, std::string_view(text));
}

int LimitGroup::write_limit(const LimitFile& file, std::int64_t limit) const
{
    if (limit < 0)
        return write(file, unified_ ? std::string_view(kNoLimit) : std::string_view("-1"));
    return write(file, static_cast<std::uint64_t>(limit));
}

std::uint64_t weight_of_shares(std::uint64_t shares)
{
    constexpr std::uint64_t kLeast = 2;
    constexpr std::uint64_t kMost = 262144;
    return 1 + (std::clamp(shares, kLeast, kMost) - kLeast) * 9999 / (kMost - kLeast);
}

std::uint64_t weight_of_io(std::uint32_t weight)
{
    constexpr std::uint64_t kLeast = 10;
    constexpr std::uint64_t kMost = 1000;
    return 1 +
           (std::clamp(std::uint64_t{weight}, kLeast, kMost) - kLeast) * 9999 / (kMost - kLeast);
}

int limits_apply(const Hierarchies& hierarchies, const GroupPath& path, const Resources& resources,
                 const char** field)
{
    int error = memory_apply(hierarchies, path, resources, field);
    if (error == 0)
        error = cpu_apply(hierarchies, path, resources, field);
    if (error == 0)
        error = cpuset_apply(hierarchies, path, resources, field);
    if (error == 0)
        error = pids_apply(hierarchies, path, resources, field);
    if (error == 0)
        error = io_apply(hierarchies, path, resources, field);
    if (error == 0)
        error = hugepages_apply(hierarchies, path, resources, field);
    if (error == 0)
        error = devices_apply(hierarchies, path, resources.devices, field);
    if (error == 0)
        error = unified_apply(hierarchies, path, resources, field);
    return error;
}

} // namespace zn
