// zncStoreCollect.cpp - removes what nothing in a storage base needs. What goes is renamed under
// the lock of the base, which nobody who unpacks then holds, and deleted afterwards: whoever is
// killed, when ever, leaves no half of anything under its name. Left out: what containers use,
// which their owner knows and says.
#include "zncImageLib.hpp"
#include "zncLayerStage.hpp"
#include "zncPath.hpp"
#include "zncStoreLock.hpp"
#include "zncStoreRecord.hpp"

#include "cJSON_Additions.h"
#include "zarnel/fs.h"

#include <cstring>
#include <string_view>

#include <sys/stat.h>

namespace {

using znc::PathText;
using znc::TextList;

constexpr std::size_t kHexLen = 64; // of a chain, and of a layer's name at least
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

// The chain of a tree that was set aside, or nothing.
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
    [[nodiscard]] bool look_at_records();
    void remove_devices();
    void remove_bundles();
    void remove_trees();
    void remove_layers();
    // What was renamed stays so; then the records of what is gone go.
    void settle();
    void delete_all() { znc::delete_leftovers(aside_); }
    STATUS report(ZNC_STORE_FUNC func, void* context) const;

  private:
    [[nodiscard]] bool is_cached(const char* bundle) const;
    [[nodiscard]] bool lives(const char* bundle) const;
    void remove_device(const char* file, const TextList& record);
    void remove(ZNC_STORE_KIND kind, const char* area, const char* path);
    template <class Func> void each_in(const char* area, Func func);
    void note(ZNC_STORE_KIND kind, const char* path);
    void fail_with(int error) { error_ = error_ != 0 ? error_ : error; }
    void need(bool done) { fail_with(done ? 0 : errno); }

    std::string_view base_;
    bool dry_;
    int error_ = 0;     // the first
    TextList held_;     // names of what the caller says is in use
    TextList bundles_;  // paths of bundles that he says are
    TextList used_;     // names of layers and trees, paths of devices, that recorded bundles need
    TextList aside_;    // renamed, to be deleted
    TextList records_;  // files that say nothing any more
    TextList reported_; // a digit for the kind, and the path
};

// The name alone: a path may lead here in many ways, and what is kept by mistake does no harm.
bool Collection::hold(const char* path)
{
    const znc::MallocPtr<char> whole(::realpath(path, nullptr));
    const PathText config = znc::path_in(path, "/config.json");
    if (!config || !held_.add(znc::last_component(path)) || (whole && !bundles_.add(whole.get())))
        return false;
    const znc::CJsonPtr document(cJSON_load_from_file(config.get()));
    const cJSON* const root = cJSON_GetObjectItem(document.get(), "root");
    const char* const text = cJSON_GetStringValue(cJSON_GetObjectItem(root, "path"));
    return text == nullptr || held_.add(znc::last_component(text));
}

// Bundles in the base are made anew when they are missing: only containers keep them.
bool Collection::is_cached(const char* bundle) const
{
    const PathText area = znc::path_in(base_, "/bundles");
    const znc::MallocPtr<char> whole(area ? ::realpath(area.get(), nullptr) : nullptr);
    const std::size_t len = whole ? std::strlen(whole.get()) : 0;
    return len > 0 && std::strncmp(bundle, whole.get(), len) == 0 && bundle[len] == '/';
}

bool Collection::lives(const char* bundle) const
{
    return bundles_.contains(bundle) || (!is_cached(bundle) && znc::bundle_lives(bundle));
}

bool Collection::look_at_records()
{
    const auto look = [](void* self, const char*, const TextList& record) -> STATUS {
        auto& collection = *static_cast<Collection*>(self);
        const char* const bundle = record.first();
        const bool held = collection.held_.contains(
            znc::last_component(record.next(bundle) != nullptr ? record.next(bundle) : bundle));
        if (!held && !collection.lives(bundle))
            return OK;
        // A device with its path: a tree may have the same name.
        for (const char* name = record.next(bundle); name != nullptr; name = record.next(name))
            if (!collection.used_.add(is_device(name) ? name : znc::last_component(name)))
                return ERROR;
        return OK;
    };
    return znc::each_bundle(base_, look, this) == OK;
}

void Collection::note(ZNC_STORE_KIND kind, const char* path)
{
    const char digit[] = {static_cast<char>('0' + kind), '\0'};
    const PathText text = znc::path_in(digit, path);
    need(text && reported_.add(text.get()));
}

void Collection::remove_device(const char* file, const TextList& record)
{
    const char* const bundle = record.first();
    const char* const root = record.next(bundle);
    const char* const chain = root != nullptr ? znc::last_component(root) : "";
    if (root == nullptr || lives(bundle) || held_.contains(chain))
        return;
    if (is_device(root) && !used_.contains(root)) {
        // Of several bundles that are gone the first finds it.
        const bool removed = dry_ ? ::access(root, F_OK) == 0 : zncRemoveOvlRootfsDev(root) == OK;
        const PathText said = znc::path_in(dry_ ? "2" : "", root);
        if (removed && !(dry_ && said && reported_.contains(said.get())))
            note(ZNC_STORE_DEVICE, root);
        if (!removed && errno != ENOENT && errno != EINVAL) {
            // It still shows its layers.
            fail_with(errno);
            for (const char* name = record.next(root); name != nullptr; name = record.next(name))
                need(used_.add(name));
            return;
        }
    }
    need(records_.add(file));
}

void Collection::remove_devices()
{
    const auto remove = [](void* self, const char* file, const TextList& record) -> STATUS {
        static_cast<Collection*>(self)->remove_device(file, record);
        return OK;
    };
    need(znc::each_bundle(base_, remove, this) == OK);
}

// Calls `func` with the name and the path of each directory in an area.
template <class Func> void Collection::each_in(const char* area, Func func)
{
    const PathText dir = znc::path_in(base_, area);
    const znc::UniqueDir stream(dir ? ::opendir(dir.get()) : nullptr);
    if (!stream) {
        need(errno == ENOENT);
        return;
    }
    TextList names; // the directory changes meanwhile
    while (const dirent* entry = ::readdir(stream.get()))
        need(names.add(entry->d_name));
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
    // Remembered first: what is aside must be deleted.
    if (!aside_.add(aside.path()) || aside.take_in(path) != OK) {
        fail_with(errno);
        return;
    }
    aside.abandon();
    note(kind, path);
}

void Collection::remove_bundles()
{
    each_in("/bundles", [this](const char* name, const char* path) {
        const znc::MallocPtr<char> whole(::realpath(path, nullptr));
        if (name[0] != '.' && whole && !bundles_.contains(whole.get()))
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
        // Only those who used it when it was set aside can still need it.
        const bool wanted = held_.contains(chain) || (old.empty() && used_.contains(chain));
        if ((old.empty() && !is_chain(name)) || wanted)
            return;
        remove(ZNC_STORE_TREE, "/flattened", path);
        const PathText record = znc::path_in(base_, "/records/", chain);
        const PathText file =
            record && old.empty() ? znc::path_in(record.get(), znc::kTreeSuffix.data()) : nullptr;
        if (file)
            need(records_.add(file.get()));
    });
}

void Collection::remove_layers()
{
    each_in("/layers", [this](const char* name, const char* path) {
        if (is_layer(name) && !used_.contains(name) && !held_.contains(name))
            remove(ZNC_STORE_LAYER, "/layers", path);
    });
}

void Collection::settle()
{
    if (dry_)
        return;
    for (const char* area : {"/layers", "/flattened", "/bundles"}) {
        const PathText dir = znc::path_in(base_, area);
        if (dir && znDirSync(dir.get()) != OK && errno != ENOENT)
            fail_with(errno);
    }
    for (const char* file = records_.first(); file != nullptr; file = records_.next(file))
        need(::unlink(file) == 0 || errno == ENOENT);
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
    return collection.look_at_records();
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
        return errno == ENOENT ? OK : ERROR; // there is no base
    Collection collection(base, dry);
    if (!gather(collection, inUse, inUseNum))
        return ERROR;
    collection.remove_devices();
    collection.remove_bundles();
    collection.remove_trees();
    collection.remove_layers();
    collection.settle();
    if (!dry && lock.share() == OK) // those who unpack need not wait for the rest
        collection.delete_all();
    return collection.report(func, context);
}
