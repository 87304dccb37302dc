#include "cli/containers/container.hpp"
#include "cli/containers/image_bundle.hpp"
#include "cli/containers/image_use.hpp"
#include "cli/containers/storage_use.hpp"
#include "cli/images/bundle_area.hpp"
#include "cli/images/image_store.hpp"
#include "commands.hpp"
#include "front/json.hpp"
#include "front/output.hpp"
#include "front/record.hpp"

#include <array>
#include <cerrno>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "zncontainer.h"

namespace zncctl {
namespace {

constexpr const char* kUnpacking = "an image is being unpacked; try again when it is done";
constexpr std::array kKinds = {StoredKind::kLayer, StoredKind::kTree, StoredKind::kDevice,
                               StoredKind::kBundle};

struct Sum {
    std::size_t count = 0;
    std::size_t used = 0;
    std::uint64_t bytes = 0;
    std::uint64_t unused_bytes = 0;
};

Sum sum_of(const std::vector<Stored>& all, StoredKind kind)
{
    Sum sum;
    for (const Stored& item : all) {
        if (item.kind != kind)
            continue;
        sum.count++;
        sum.used += item.used ? 1 : 0;
        sum.bytes += item.bytes;
        sum.unused_bytes += item.used ? 0 : item.bytes;
    }
    return sum;
}

class UseReport {
  public:
    void add(const char* kind, const Sum& sum)
    {
        rows_.push_back({kind, std::to_string(sum.count), std::to_string(sum.used),
                         std::to_string(sum.bytes), std::to_string(sum.unused_bytes)});
        list_.push_back({{"kind", kind},
                         {"count", sum.count},
                         {"used", sum.used},
                         {"bytes", sum.bytes},
                         {"unusedBytes", sum.unused_bytes}});
    }

    [[nodiscard]] int print(bool as_json) const
    {
        return as_json ? print_json(compact(list_)) : print_result(table(rows_));
    }

  private:
    std::vector<std::vector<std::string>> rows_ = {{"KIND", "COUNT", "USED", "BYTES", "UNUSED"}};
    Json list_ = Json::array();
};

int remove_unused(const Arguments& args, std::vector<std::string> used)
{
    for (const std::string& bundle : args.all_operands())
        used.push_back(bundle);
    std::vector<Stored> removed;
    const bool done = collect(std::move(used), args.has("dry-run"), removed);
    const int error = errno;
    int status = kExitOk;
    for (const Stored& item : removed)
        if (!args.has("quiet") && status == kExitOk)
            status = print_result(fmt::format("{} {}", name_of(item.kind), item.path));
    if (done)
        return status;
    return error == EBUSY ? failure("", kUnpacking) : local_failure(error, storage_base());
}

// Removes the records of containers that no longer exist because other clients deleted them or
// because the daemon that managed them has ended.
int remove_records(const Arguments& args)
{
    int result = kExitOk;
    for (const std::string& id : recorded_ids()) {
        const znc::UniqueFd dir = open_record(id);
        if (!dir || record_is_kept(dir.get()) || status_of(id) != STATE_UNKNOWN || errno != ENODEV)
            continue;
        if (!args.has("dry-run"))
            remove_record(id);
        if (!args.has("quiet"))
            result = print_result(fmt::format("record {}", id));
    }
    return result;
}

// Removes directories and blobs that killed processes have left in the image store.
int sweep_image_store()
try {
    StoreChange().remove_unneeded_blobs();
    return kExitOk;
} catch (const std::runtime_error& error) {
    return failure("", error.what());
}

} // namespace

int cmd_storage_df(const Arguments& args)
try {
    bool as_json = false;
    if (!read_format(args, as_json))
        return kExitUsage;
    const auto all = stored();
    const auto images = all ? image_use() : std::nullopt;
    if (!images)
        return daemon_failure(errno, "");
    UseReport report;
    report.add("image", {images->count, images->used, images->bytes, images->unused_bytes});
    for (const StoredKind kind : kKinds)
        report.add(name_of(kind), sum_of(*all, kind));
    return report.print(as_json);
} catch (const std::runtime_error& error) {
    return failure("", error.what());
}

int cmd_storage_gc(const Arguments& args)
{
    for (const std::string& bundle : args.all_operands())
        if (::access((bundle + "/config.json").c_str(), R_OK) != 0)
            return failure(bundle, "it is not a bundle: it has no readable config.json");
    const auto lock = BundlesInUse::try_exclusive(bundle_area());
    if (!lock)
        return failure("", kUnpacking);
    const auto used = used_by_containers();
    if (!used)
        return daemon_failure(errno, "");
    const int status = remove_unused(args, *used);
    int of_rest = remove_records(args);
    if (of_rest == kExitOk && !args.has("dry-run"))
        of_rest = sweep_image_store();
    return status != kExitOk ? status : of_rest;
}

} // namespace zncctl
