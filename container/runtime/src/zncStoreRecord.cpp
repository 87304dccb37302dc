// zncStoreRecord.cpp - see zncStoreRecord.hpp.
#include "zncStoreRecord.hpp"

#include "base/directory.hpp"
#include "base/file.hpp"
#include "zarnel/fs.h"
#include "zncBundleLayers.hpp"
#include "zncDigest.hpp"
#include "zncImageLib.hpp"

#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char kNewName[] = "/.new-XXXXXX";
constexpr char kConfig[] = "/config.json";

} // namespace

namespace znc {

PathText path_in(std::string_view base, const char* directory, const char* name)
{
    PathText path = malloc_array<char>(kPathMax);
    if (!path)
        return nullptr;
    char* const end = path.get() + kPathMax;
    if (base.size() >= kPathMax) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    std::memcpy(path.get(), base.data(), base.size());
    if (copy_end(copy_end(path.get() + base.size(), end, directory), end, name) == end) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    return path;
}

PathText path_in(std::string_view base, const char* name)
{
    return path_in(base, "", name);
}

const char* last_component(const char* path)
{
    const char* const slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// ------------------------------------------------------------------ lists

bool TextList::add(const char* text)
{
    const std::size_t needed = std::strlen(text) + 1;
    if (len_ + needed > capacity_) {
        const std::size_t capacity = 2 * (len_ + needed);
        MallocPtr<char[]> grown = malloc_array<char>(capacity);
        if (!grown)
            return false;
        if (len_ > 0)
            std::memcpy(grown.get(), text_.get(), len_);
        text_ = std::move(grown);
        capacity_ = capacity;
    }
    std::memcpy(text_.get() + len_, text, needed);
    len_ += needed;
    return true;
}

bool TextList::add_all(const TextList& other)
{
    for (const char* text = other.first(); text != nullptr; text = other.next(text))
        if (!add(text))
            return false;
    return true;
}

const char* TextList::first() const
{
    return len_ > 0 ? text_.get() : nullptr;
}

const char* TextList::next(const char* text) const
{
    const char* const after = text + std::strlen(text) + 1;
    return after < text_.get() + len_ ? after : nullptr;
}

const char* TextList::last() const
{
    return len_ > 0 ? before(text_.get() + len_) : nullptr;
}

const char* TextList::before(const char* text) const
{
    if (text == text_.get())
        return nullptr;
    const char* at = text - 1; // the NUL of the string before
    while (at > text_.get() && at[-1] != '\0')
        --at;
    return at;
}

bool TextList::contains(const char* text) const
{
    for (const char* item = first(); item != nullptr; item = next(item))
        if (std::strcmp(item, text) == 0)
            return true;
    return false;
}

bool TextList::operator==(const TextList& other) const
{
    return len_ == other.len_ &&
           (len_ == 0 || std::memcmp(text_.get(), other.text_.get(), len_) == 0);
}

bool TextList::read(const char* path)
{
    struct stat st = {};
    const UniqueFd fd = open_regular(path, &st);
    if (!fd)
        return false;
    FileText text = read_text(fd.get(), st);
    if (!text.bytes)
        return false;
    // The last string and the list itself are terminated by a NUL each.
    const std::size_t len = text.len;
    if (len < 3 || text.bytes[len - 1] != '\0' || text.bytes[len - 2] != '\0') {
        errno = EBADMSG;
        return false;
    }
    text_ = std::move(text.bytes);
    len_ = len - 1;
    capacity_ = len;
    return true;
}

bool TextList::write_beside(const char* path, PathText* temporary) const
{
    const auto dirLen = static_cast<std::size_t>(last_component(path) - path);
    *temporary = path_in({path, dirLen > 0 ? dirLen - 1 : 0}, kNewName);
    if (!*temporary)
        return false;
    UniqueFd fd(::mkstemp(temporary->get()));
    if (!fd)
        return false;
    if (write_all(fd.get(), {text_.get(), len_}) && write_all(fd.get(), {"\0", 1}) &&
        ::fsync(fd.get()) == 0 && fd.close_checked() == 0)
        return true;
    const ErrnoSaver keep;
    ::unlink(temporary->get());
    return false;
}

// ------------------------------------------------------------------ bundles

namespace {

// The directory of the records, created if it is missing.
PathText make_records_dir(std::string_view base)
{
    PathText dir = path_in(base, kRecordsDir);
    if (dir && znMkdirParents(dir.get(), kRecordsMode) != OK)
        dir.reset();
    return dir;
}

PathText record_path(const PathText& records, const char* name, std::string_view suffix)
{
    PathText path = path_in(records.get(), "/", name);
    char* const end = path ? path.get() + kPathMax : nullptr;
    if (path && copy_end(path.get() + std::strlen(path.get()), end, suffix.data()) == end) {
        errno = ENAMETOOLONG;
        path.reset();
    }
    return path;
}

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
    errno = EEXIST;
    return ERROR;
}

// Whether the bundle has a "config.json", by the same test that zncCreateOciBundleConfig makes.
bool has_configuration(const char* bundle)
{
    const ErrnoSaver keep;
    const PathText config = path_in(bundle, kConfig);
    return config && exists(config.get());
}

bool ends_with(const char* name, std::string_view suffix)
{
    return std::string_view(name).ends_with(suffix);
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
        if (entry->d_name[0] == '.' || !ends_with(entry->d_name, kBundleSuffix))
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

STATUS RecordFile::place(PathText path, const TextList& text)
{
    PathText temporary;
    if (!path || !text.write_beside(path.get(), &temporary))
        return ERROR;
    if (::rename(temporary.get(), path.get()) != 0) {
        const ErrnoSaver keep;
        ::unlink(temporary.get());
        return ERROR;
    }
    path_ = std::move(path);
    const PathText dir = path_in(
        {path_.get(), static_cast<std::size_t>(last_component(path_.get()) - path_.get())}, "");
    return dir ? znDirSync(dir.get()) : ERROR;
}

void RecordFile::drop() noexcept
{
    const ErrnoSaver keep;
    if (path_)
        ::unlink(path_.get());
    path_.reset();
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

// ------------------------------------------------------------------ trees

STATUS claim_tree(std::string_view base, const char* chain, const TextList& layers, bool* isNew)
{
    const PathText records = make_records_dir(base);
    const PathText path = records ? record_path(records, chain, kTreeSuffix) : nullptr;
    PathText temporary;
    if (!path || !layers.write_beside(path.get(), &temporary))
        return ERROR;
    // link() fails if the record exists: of two processes that claim a tree at the same time, one
    // finds the other's record.
    *isNew = ::link(temporary.get(), path.get()) == 0;
    const int error = *isNew ? 0 : errno;
    ::unlink(temporary.get());
    if (*isNew)
        return znDirSync(records.get());
    TextList existing;
    if (error != EEXIST || !existing.read(path.get())) {
        errno = error != EEXIST ? error : errno;
        return ERROR;
    }
    if (existing == layers)
        return OK;
    errno = EEXIST;
    return ERROR;
}

bool read_tree(std::string_view base, const char* chain, TextList* layers)
{
    const PathText dir = path_in(base, kRecordsDir);
    const PathText path = dir ? record_path(dir, chain, kTreeSuffix) : nullptr;
    return path && layers->read(path.get());
}

} // namespace znc
