// zncStoreCollect.cpp - removes what no container and no recorded bundle in a storage base needs.
// Under the exclusive lock of the base, which keeps unpacks out, directories are only renamed; they
// are deleted afterwards. A process killed at any point therefore leaves no incomplete layer, tree
// or bundle under its final name. The caller passes the paths that containers use; this file knows
// nothing about containers.
#include "zncImageLib.hpp"

#include "base/directory.hpp"
#include "zncBundleRecord.hpp"
#include "zncLayerListing.hpp"
#include "zncLayerStage.hpp"
#include "zncPath.hpp"
#include "zncStoreLock.hpp"

#include "cJSON_Additions.h"
#include "zarnel/fs.h"

#include <cstring>
#include <string_view>

#include <sys/stat.h>

namespace {

using znc::PathText;
using znc::TextList;

constexpr std::size_t kHexLen = 64; // length of a chain ID, and minimum length of a layer's name
constexpr std::string_view kDevices = "/overlay/";
constexpr std::string_view kOldPrefix = ".old-";
constexpr std::size_t kOldLen = kOldPrefix.size() + kHexLen + sizeof "-XXXXXX" - 1;

bool is_hex(std::string_view text)
{
    return text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

bool is_chain(std::string_view name)
{
    return name.size() == kHexLen && is_hex(name);
}

bool is_layer(std::string_view name)
{
    return name.size() >= kHexLen && is_hex(name);
}

// The chain ID of a tree that place_tree() set aside (".old-<chain ID>-XXXXXX"), or "".
std::string_view old_chain(std::string_view name)
{
    if (!name.starts_with(kOldPrefix) || name.size() != kOldLen)
        return {};
    const std::string_view chain = name.substr(kOldPrefix.size(), kHexLen);
    return is_chain(chain) ? chain : std::string_view();
}

bool is_device(const char* root)
{
    return std::string_view(root).starts_with(kDevices) && is_chain(znc::last_component(root));
}

class Collection {
  public:
    Collection(std::string_view base, bool dry) : base_(base), dry_(dry) {}

    [[nodiscard]] bool hold(const char* path);
    [[nodiscard]] bool read_records();
    void remove_devices();
    void remove_bundles();
    void remove_trees();
    void remove_layers();
    // Syncs the renames to disk; only then removes the records of what was removed.
    void finish();
    void delete_all() { znc::delete_leftovers(aside_); }
    STATUS report(ZNC_STORE_FUNC func, void* context) const;

  private:
    [[nodiscard]] bool is_cached(const char* bundle) const;
    [[nodiscard]] bool is_in_use(const char* bundle) const;
    void remove_device(const char* file, const TextList& record);
    void remove(ZNC_STORE_KIND kind, const char* area, const char* path);
    template <class Func> void each_in(const char* area, Func func);
    void note(ZNC_STORE_KIND kind, const char* path);
    void fail_with(int error) { error_ = error_ != 0 ? error_ : error; }
    void check(bool done) { fail_with(done ? 0 : errno); }

    std::string_view base_;
    bool dry_;
    int error_ = 0;     // errno of the first failure
    TextList held_;     // last path components of what the caller reports as in use
    TextList bundles_;  // resolved paths of the bundles that the caller reports as in use
    TextList used_;     // needed by recorded bundles: names of layers and trees, paths of devices
    TextList aside_;    // directories that were renamed and are to be deleted
    TextList records_;  // record files to be removed
    TextList reported_; // ZNC_STORE_KIND as a digit, followed by the path
};

// Keep everything whose last path component matches: one object can have many paths, and keeping
// too much is harmless.
bool Collection::hold(const char* path)
{
    const znc::MallocPtr<char> resolved(::realpath(path, nullptr));
    const PathText config = znc::path_in(path, "/config.json");
    if (!config || !held_.add(znc::last_component(path)) ||
        (resolved && !bundles_.add(resolved.get())))
        return false;
    const znc::CJsonPtr document(cJSON_load_from_file(config.get()));
    const cJSON* const root = cJSON_GetObjectItem(document.get(), "root");
    const char* const text = cJSON_GetStringValue(cJSON_GetObjectItem(root, "path"));
    return text == nullptr || held_.add(znc::last_component(text));
}

// Bundles inside the base are a cache, recreated when they are missing. One is kept only while a
// container uses it, not because it exists.
bool Collection::is_cached(const char* bundle) const
{
    const PathText area = znc::path_in(base_, "/bundles");
    const znc::MallocPtr<char> resolved(area ? ::realpath(area.get(), nullptr) : nullptr);
    const std::size_t len = resolved ? std::strlen(resolved.get()) : 0;
    return len > 0 && std::strncmp(bundle, resolved.get(), len) == 0 && bundle[len] == '/';
}

bool Collection::is_in_use(const char* bundle) const
{
    return bundles_.contains(bundle) || (!is_cached(bundle) && znc::bundle_exists(bundle));
}

bool Collection::read_records()
{
    const auto mark_used = [](void* self, const char*, const TextList& record) -> STATUS {
        auto& collection = *static_cast<Collection*>(self);
        const char* const bundle = record.first();
        const bool held = collection.held_.contains(
            znc::last_component(record.next(bundle) != nullptr ? record.next(bundle) : bundle));
        if (!held && !collection.is_in_use(bundle))
            return OK;
        // Devices are listed with their path: a flattened tree may have the same name.
        for (const char* name = record.next(bundle); name != nullptr; name = record.next(name))
            if (!collection.used_.add(is_device(name) ? name : znc::last_component(name)))
                return ERROR;
        return OK;
    };
    return znc::each_bundle(base_, mark_used, this) == OK;
}

void Collection::note(ZNC_STORE_KIND kind, const char* path)
{
    const char digit[] = {static_cast<char>('0' + kind), '\0'};
    const PathText text = znc::path_in(digit, path);
    check(text && reported_.add(text.get()));
}

void Collection::remove_device(const char* file, const TextList& record)
{
    const char* const bundle = record.first();
    const char* const root = record.next(bundle);
    const char* const chain = root != nullptr ? znc::last_component(root) : "";
    if (root == nullptr || is_in_use(bundle) || held_.contains(chain))
        return;
    if (is_device(root) && !used_.contains(root)) {
        // If several bundles that no longer exist name the same device, it is removed and reported
        // once.
        const bool removed = dry_ ? ::access(root, F_OK) == 0 : zncRemoveOvlRootfsDev(root) == OK;
        const PathText reported_item = znc::path_in(dry_ ? "2" : "", root);
        if (removed && !(dry_ && reported_item && reported_.contains(reported_item.get())))
            note(ZNC_STORE_DEVICE, root);
        if (!removed && errno != ENOENT && errno != EINVAL) {
            // The device still exists, so its layers must stay.
            fail_with(errno);
            for (const char* name = record.next(root); name != nullptr; name = record.next(name))
                check(used_.add(name));
            return;
        }
    }
    check(records_.add(file));
}

void Collection::remove_devices()
{
    const auto remove = [](void* self, const char* file, const TextList& record) -> STATUS {
        static_cast<Collection*>(self)->remove_device(file, record);
        return OK;
    };
    check(znc::each_bundle(base_, remove, this) == OK);
}

// Calls `func` with the name and path of each subdirectory of a directory of the base.
template <class Func> void Collection::each_in(const char* area, Func func)
{
    const PathText dir = znc::path_in(base_, area);
    const znc::UniqueDir stream(dir ? ::opendir(dir.get()) : nullptr);
    if (!stream) {
        check(errno == ENOENT);
        return;
    }
    TextList names; // read all names first: `func` changes the directory
    while (const dirent* entry = znc::next_entry(stream.get()))
        check(names.add(entry->d_name));
    check(errno == 0);
    for (const char* name = names.first(); name != nullptr; name = names.next(name)) {
        const PathText path = znc::path_in(dir.get(), "/", name);
        struct stat st = {};
        if (path && ::lstat(path.get(), &st) == 0 && S_ISDIR(st.st_mode))
            func(name, path.get());
    }
}

void Collection::remove(ZNC_STORE_KIND kind, const char* area, const char* path)
{
    if (dry_) {
        note(kind, path);
        return;
    }
    const PathText dir = znc::path_in(base_, area);
    znc::LayerStage aside;
    if (!dir || aside.make(dir.get()) != OK) {
        fail_with(errno);
        return;
    }
    // Add it to the list before the rename: whatever was moved aside must be deleted.
    if (!aside_.add(aside.path()) || aside.replace_with(path) != OK) {
        fail_with(errno);
        return;
    }
    aside.abandon();
    note(kind, path);
}

void Collection::remove_bundles()
{
    each_in("/bundles", [this](const char* name, const char* path) {
        const znc::MallocPtr<char> resolved(::realpath(path, nullptr));
        if (name[0] != '.' && resolved && !bundles_.contains(resolved.get()))
            remove(ZNC_STORE_BUNDLE, "/bundles", path);
    });
}

void Collection::remove_trees()
{
    each_in("/flattened", [this](const char* name, const char* path) {
        char chain[kHexLen + 1] = {};
        const std::string_view old = old_chain(name);
        (void)znc::copy_end(chain, chain + sizeof chain, name);
        old.copy(chain, kHexLen);
        // A tree that was set aside can only be in use by containers that were started before.
        const bool wanted = held_.contains(chain) || (old.empty() && used_.contains(chain));
        if ((old.empty() && !is_chain(name)) || wanted)
            return;
        remove(ZNC_STORE_TREE, "/flattened", path);
        const PathText record = znc::path_in(base_, "/records/", chain);
        const PathText file =
            record && old.empty() ? znc::path_in(record.get(), znc::kTreeSuffix.data()) : nullptr;
        if (file)
            check(records_.add(file.get()));
    });
}

void Collection::remove_layers()
{
    each_in("/layers", [this](const char* name, const char* path) {
        if (is_layer(name) && !used_.contains(name) && !held_.contains(name))
            remove(ZNC_STORE_LAYER, "/layers", path);
    });
    if (!dry_)
        check(znc::find_unused_listings(base_, &records_));
}

void Collection::finish()
{
    if (dry_)
        return;
    for (const char* area : {"/layers", "/flattened", "/bundles"}) {
        const PathText dir = znc::path_in(base_, area);
        if (dir && znDirSync(dir.get()) != OK && errno != ENOENT)
            fail_with(errno);
    }
    for (const char* file = records_.first(); file != nullptr; file = records_.next(file))
        check(::unlink(file) == 0 || errno == ENOENT);
}

STATUS Collection::report(ZNC_STORE_FUNC func, void* context) const
{
    for (const char* item = reported_.first(); item != nullptr && func != nullptr;
         item = reported_.next(item))
        func(static_cast<ZNC_STORE_KIND>(item[0] - '0'), item + 1, context);
    errno = error_;
    return error_ == 0 ? OK : ERROR;
}

bool gather(Collection& collection, const char* const* inUse, std::uint32_t count)
{
    for (std::uint32_t i = 0; i < count; ++i)
        if (inUse[i] == nullptr || !collection.hold(inUse[i]))
            return false;
    return collection.read_records();
}

} // namespace

STATUS zncStoreCollect(const char* const* inUse, uint32_t inUseNum, unsigned int option,
                       ZNC_STORE_FUNC func, void* context)
{
    if (inUse == nullptr && inUseNum != 0)
        return znc::fail(EINVAL);
    const bool dry = (option & ZNC_OPT_DRY_RUN) != 0;
    const auto store = znc::malloc_array<char>(znc::kPathMax);
    const std::size_t len =
        store ? znc::base_path_text(store.get(), znc::kPathMax, ZNC_LAYER_PATH) : 0;
    if (len == 0)
        return ERROR;
    const std::string_view base = znc::store_base({store.get(), len});
    znc::StoreLock lock;
    if (!dry && lock.take_alone(base) != OK)
        return errno == ENOENT ? OK : ERROR; // nothing was ever unpacked into this base
    Collection collection(base, dry);
    if (!gather(collection, inUse, inUseNum))
        return ERROR;
    collection.remove_devices();
    collection.remove_bundles();
    collection.remove_trees();
    collection.remove_layers();
    collection.finish();
    if (!dry && lock.share() == OK) // unpacks may go on while the directories are deleted
        collection.delete_all();
    return collection.report(func, context);
}
