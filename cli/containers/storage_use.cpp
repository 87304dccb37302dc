#include "storage_use.hpp"

#include "base/failure.hpp"
#include "cli/containers/container_bundle.hpp"
#include "cli/containers/image_bundle.hpp"
#include "container.hpp"

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <system_error>

#include "zarnel/overlay.h"

namespace zncctl {
namespace {

namespace fs = std::filesystem;

// A mounted overlay device.
struct Device {
    std::vector<std::string> lower;
    bool writable = false; // the writable root of a container
};

// The mounted devices, by path.
std::map<std::string, Device> mounted_devices()
{
    std::map<std::string, Device> devices;
    const auto add = [](const char* name, const char* const* lower, uint32_t count, BOOL writable,
                        void* to) {
        static_cast<std::map<std::string, Device>*>(to)->insert_or_assign(
            name, Device{{lower, lower + count}, writable != FALSE});
    };
    if (znOvlDevEach(add, &devices) != OK)
        throw std::system_error(errno, std::generic_category());
    return devices;
}

std::uint64_t size_on_disk(const fs::path& path)
{
    constexpr std::uint64_t kStatBlock = 512;
    std::uint64_t sum = 0;
    const auto add = [&sum](const fs::path& entry) {
        struct stat st = {};
        if (::lstat(entry.c_str(), &st) == 0)
            sum += static_cast<std::uint64_t>(st.st_blocks) * kStatBlock;
    };
    add(path);
    std::error_code error;
    for (fs::recursive_directory_iterator
             it(path, fs::directory_options::skip_permission_denied, error),
         end;
         it != end && !error; it.increment(error))
        add(it->path());
    return sum;
}

void list(StoredKind kind, const std::string& area, std::vector<Stored>& all)
{
    std::error_code error;
    for (fs::directory_iterator it(area, error), end; it != end && !error; it.increment(error)) {
        const std::string name = it->path().filename();
        if (!name.starts_with('.') && it->is_directory(error) && !it->is_symlink(error))
            all.push_back({kind, it->path(), size_on_disk(it->path()), false});
    }
}

// The bundles of all existing containers.
std::optional<std::vector<std::string>> bundles_of_containers()
{
    const znc::MallocPtr<char> text(call_library(zncList));
    if (text == nullptr)
        return std::nullopt;
    const std::optional<Json> states = parse_json(text.get());
    if (!states) { // it is then unknown what is in use
        return znc::fail(EBADMSG, std::nullopt);
    }
    std::vector<std::string> bundles;
    for (const Json& state : children(&*states))
        bundles.push_back(text_of(state, "bundle"));
    return bundles;
}

StoredKind kind_of(ZNC_STORE_KIND kind)
{
    switch (kind) {
    case ZNC_STORE_TREE:
        return StoredKind::kTree;
    case ZNC_STORE_DEVICE:
        return StoredKind::kDevice;
    case ZNC_STORE_BUNDLE:
        return StoredKind::kBundle;
    case ZNC_STORE_LAYER:
        break;
    }
    return StoredKind::kLayer;
}

bool collect_once(const std::vector<std::string>& used, bool dryRun, std::vector<Stored>& removed)
{
    std::vector<const char*> paths;
    paths.reserve(used.size());
    for (const std::string& path : used)
        paths.push_back(path.c_str());
    removed.clear();
    return call_library([&] {
               return zncStoreCollect(
                   paths.data(), static_cast<std::uint32_t>(paths.size()),
                   dryRun ? ZNC_OPT_DRY_RUN : 0,
                   [](ZNC_STORE_KIND kind, const char* path, void* to) {
                       static_cast<std::vector<Stored>*>(to)->push_back(
                           {kind_of(kind), path, 0, false});
                   },
                   &removed);
           }) == OK;
}

} // namespace

const char* name_of(StoredKind kind)
{
    switch (kind) {
    case StoredKind::kLayer:
        return "layer";
    case StoredKind::kTree:
        return "tree";
    case StoredKind::kDevice:
        return "device";
    case StoredKind::kBundle:
        return "bundle";
    }
    return "";
}

std::optional<std::vector<std::string>> used_by_containers()
{
    auto used = bundles_of_containers();
    if (!used)
        return std::nullopt;
    for (std::size_t i = 0, count = used->size(); i < count; i++) {
        // A bundle made for one container has the root of another bundle.
        if (std::string source = source_of_bundle((*used)[i]); !source.empty())
            used->push_back(std::move(source));
        if (const std::string root = root_of_bundle((*used)[i]); !root.empty())
            used->push_back(root);
    }
    for (const auto& [path, device] : mounted_devices())
        if (device.writable) // the bundle of its container may have been deleted
            used->insert(used->end(), device.lower.begin(), device.lower.end());
    return used;
}

bool collect(std::vector<std::string> used, bool dryRun, std::vector<Stored>& removed)
{
    // A device that the library has no record of is not removed, so that its layers are needed too.
    // A dry run shows which devices those are.
    if (!collect_once(used, true, removed))
        return false;
    for (const auto& [path, device] : mounted_devices()) {
        const bool goes =
            std::any_of(removed.begin(), removed.end(), [&name = path](const Stored& item) {
                return item.kind == StoredKind::kDevice && item.path == name;
            });
        if (!goes)
            used.insert(used.end(), device.lower.begin(), device.lower.end());
    }
    return collect_once(used, dryRun, removed);
}

std::optional<std::vector<Stored>> stored()
{
    const auto used = used_by_containers();
    std::vector<Stored> unused;
    if (!used || !collect(*used, true, unused))
        return std::nullopt;
    const std::string base = storage_base();
    std::vector<Stored> all;
    list(StoredKind::kBundle, base + "/bundles", all);
    for (const auto& [path, device] : mounted_devices())
        if (!device.writable)
            all.push_back({StoredKind::kDevice, path, 0, false});
    list(StoredKind::kTree, base + "/flattened", all);
    list(StoredKind::kLayer, base + "/layers", all);
    for (Stored& item : all)
        item.used = std::none_of(unused.begin(), unused.end(),
                                 [&item](const Stored& other) { return other.path == item.path; });
    return all;
}

} // namespace zncctl
