// zncBundleRecord.cpp - see zncBundleRecord.hpp.
#include "zncBundleRecord.hpp"

#include "base/directory.hpp"
#include "base/failure.hpp"
#include "base/file.hpp"
#include "zncBundleLayers.hpp"
#include "zncDigest.hpp"
#include "zncImageLib.hpp"

#include <cstring>

#include <sys/stat.h>

namespace znc {
namespace {

constexpr char kConfig[] = "/config.json";
constexpr std::string_view kBundleSuffix = ".bundle";

struct Claim {
    const char* root;
    const TextList* record;
};

// Whether two records are equal except for the path of the bundle.
bool same_layers(const TextList& a, const TextList& b)
{
    const char* x = a.next(a.first());
    const char* y = b.next(b.first());
    while (x != nullptr && y != nullptr && std::strcmp(x, y) == 0) {
        x = a.next(x);
        y = b.next(y);
    }
    return x == nullptr && y == nullptr;
}

STATUS check_conflict(void* context, const char* /*file*/, const TextList& record)
{
    const auto& claim = *static_cast<const Claim*>(context);
    const char* const bundle = record.first();
    const char* const root = record.next(bundle);
    if (root == nullptr || std::strcmp(root, claim.root) != 0 ||
        same_layers(record, *claim.record) || !bundle_exists(bundle))
        return OK;
    return znc::fail(EEXIST);
}

// Whether the bundle has a "config.json", by the same test that zncCreateOciBundleConfig makes.
bool has_configuration(const char* bundle)
{
    const ErrnoSaver keep;
    const PathText config = path_in(bundle, kConfig);
    return config && exists(config.get());
}

} // namespace

bool bundle_exists(const char* bundlePath)
{
    const ErrnoSaver keep;
    const PathText config = path_in(bundlePath, kConfig);
    struct stat st = {};
    if (!config || ::lstat(config.get(), &st) == 0)
        return true;
    return errno != ENOENT && errno != ENOTDIR;
}

STATUS each_bundle(std::string_view base, BundleFunc func, void* context)
{
    const PathText dir = path_in(base, kRecordsDir);
    if (!dir)
        return ERROR;
    const UniqueDir stream(::opendir(dir.get()));
    if (!stream)
        return errno == ENOENT ? OK : ERROR;
    while (const dirent* const entry = next_entry(stream.get())) {
        if (entry->d_name[0] == '.' || !std::string_view(entry->d_name).ends_with(kBundleSuffix))
            continue;
        const PathText file = path_in(dir.get(), "/", entry->d_name);
        TextList record;
        if (!file)
            return ERROR;
        if (!record.read(file.get())) {
            if (errno == ENOENT)
                continue; // removed since readdir() by an unpack that failed
            return ERROR;
        }
        if (func(context, file.get(), record) != OK)
            return ERROR;
    }
    return errno == 0 ? OK : ERROR;
}

STATUS BundleRecord::write(std::string_view base, const char* bundle, const char* root,
                           const TextList& layers, const TextList& stored)
{
    const MallocPtr<char> resolved(::realpath(bundle, nullptr));
    const PathText records = resolved ? make_records_dir(base) : nullptr;
    std::uint8_t hash[kSha256Len];
    char name[2 * kSha256Len + 1];
    TextList needed;
    TextList made_of;
    if (!records || !needed.add(resolved.get()) || !needed.add(root) || !needed.add_all(stored) ||
        !made_of.add(root) || !made_of.add_all(layers) || !chain_digest(hash, "", resolved.get()) ||
        zncUtilBinToHex(name, sizeof name, hash, sizeof hash) != OK)
        return ERROR;
    Claim claim{root, &needed};
    if (each_bundle(base, check_conflict, &claim) != OK)
        return ERROR;
    bundleWasThere_ = has_configuration(bundle);
    if (bundleWasThere_)
        return OK;
    if (inStore_.place(record_path(records, name, kBundleSuffix), needed) != OK)
        return ERROR;
    if (layers.empty())
        return OK;
    PathText layers_path = bundle_layers_path(bundle);
    // The path of "config.json" is then too long as well, and the unpack fails with that error.
    if (!layers_path && errno == ENAMETOOLONG)
        return OK;
    return inBundle_.place(std::move(layers_path), made_of);
}

void BundleRecord::keep() noexcept
{
    inStore_.keep();
    inBundle_.keep();
}

void BundleRecord::drop() noexcept
{
    inStore_.drop();
    inBundle_.drop();
}

} // namespace znc
