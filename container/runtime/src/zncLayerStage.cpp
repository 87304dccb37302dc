// zncLayerStage.cpp - see zncLayerStage.hpp.
#include "zncLayerStage.hpp"

#include "base/directory.hpp"

#include "zncImageLib.hpp"
#include "zncTreeDelete.hpp"

#include <cstring>

#include <sys/stat.h>

namespace {

constexpr std::string_view kStagePrefix = ".unpack-";
constexpr char kStageName[] = "/.unpack-XXXXXX";
constexpr std::size_t kStageLen = sizeof kStageName - 2; // without the "/" and the terminator
constexpr std::string_view kNewPrefix = ".new-";
constexpr const char* kAreas[] = {"/layers", "/flattened", "/bundles"};

// A directory itself, no link to one.
bool is_own_directory(const char* path)
{
    struct stat st = {};
    return ::lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Calls `func` with the name and path of each entry of a directory. A missing directory counts as
// empty.
template <class Func> STATUS each_entry(const char* dir, Func func)
{
    const znc::UniqueDir stream(::opendir(dir));
    if (!stream)
        return errno == ENOENT ? OK : ERROR;
    while (const dirent* entry = znc::next_entry(stream.get())) {
        const znc::PathText path = znc::path_in(dir, "/", entry->d_name);
        if (!path || !func(entry->d_name, path.get()))
            return ERROR;
    }
    return errno == 0 ? OK : ERROR;
}

bool is_stage(std::string_view name)
{
    return name.starts_with(kStagePrefix) && name.size() == kStageLen;
}

// Removes unfinished records and the records of flattened trees that do not exist: the unpack that
// wrote them failed or was killed. The next unpack with that chain ID writes a new record.
bool clear_record(std::string_view base, std::string_view name, const char* path)
{
    if (name.starts_with(kNewPrefix))
        return ::unlink(path) == 0 || errno == ENOENT;
    if (!name.ends_with(znc::kTreeSuffix))
        return true;
    const znc::PathText tree = znc::path_in(base, "/flattened/", name.data());
    if (!tree)
        return false;
    tree[std::strlen(tree.get()) - znc::kTreeSuffix.size()] = '\0';
    struct stat st = {};
    if (::lstat(tree.get(), &st) != 0 && errno == ENOENT)
        ::unlink(path);
    return true;
}

} // namespace

namespace znc {

STATUS LayerStage::make(std::string_view area)
{
    discard();
    path_ = path_in(area, kStageName);
    if (path_ && ::mkdtemp(path_.get()) == nullptr)
        path_.reset();
    return path_ ? OK : ERROR;
}

STATUS LayerStage::fill(const char* layerFile, const char* digest, std::string_view area,
                        const std::atomic<bool>* cancel, bool* verified, TextList* directories)
{
    if (make(area) != OK)
        return ERROR;
    return extract_layer(layerFile, digest, path_.get(), cancel, verified, directories);
}

STATUS LayerStage::publish(const char* name)
{
    if (::rename(path_.get(), name) == 0) {
        path_.reset();
        return OK;
    }
    return (errno == EEXIST || errno == ENOTEMPTY) && is_own_directory(name) ? OK : ERROR;
}

STATUS LayerStage::replace_with(const char* name)
{
    return ::rename(name, path_.get()) == 0 ? OK : ERROR;
}

void LayerStage::discard() noexcept
{
    const ErrnoSaver keep;
    if (path_)
        (void)delete_foreign_tree(path_.get());
    path_.reset();
}

STATUS find_leftovers(std::string_view base, TextList* paths)
{
    for (const char* area : kAreas) {
        const PathText dir = path_in(base, area);
        if (!dir || each_entry(dir.get(), [&](const char* name, const char* path) {
                        return !is_stage(name) || paths->add(path);
                    }) != OK)
            return ERROR;
    }
    const PathText records = path_in(base, kRecordsDir);
    return records ? each_entry(records.get(),
                                [&](const char* name, const char* path) {
                                    return clear_record(base, name, path);
                                })
                   : ERROR;
}

void delete_leftovers(const TextList& paths)
{
    const ErrnoSaver keep;
    for (const char* path = paths.first(); path != nullptr; path = paths.next(path))
        (void)delete_foreign_tree(path);
}

} // namespace znc
