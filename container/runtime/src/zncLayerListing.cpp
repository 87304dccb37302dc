// zncLayerListing.cpp - see zncLayerListing.hpp.
#include "zncLayerListing.hpp"

#include "base/directory.hpp"
#include "zarnel/fs.h"
#include "zncImageLib.hpp"
#include "zncPath.hpp"
#include "zncTarLib.hpp"

#include <algorithm>
#include <cstring>

#include <sys/stat.h>

namespace {

using znc::PathText;
using znc::TextList;

constexpr std::string_view kSuffix = ".directories";
constexpr char kLayers[] = "/layers/";
// The first string of a record, so that one of a layer without directories is not empty.
constexpr char kVersion[] = "1";

// "1777/a/b": the mode, and a path that the extractor accepts.
bool is_directory_entry(const char* text)
{
    const auto is_octal = [](char c) { return c >= '0' && c <= '7'; };
    const std::size_t len = std::strlen(text);
    return len > znc::kModeDigits && len <= znc::kModeDigits + kTarCacheSize &&
           std::all_of(text, text + znc::kModeDigits, is_octal);
}

PathText records_directory(std::string_view base)
{
    return znc::path_in(base, znc::kRecordsDir);
}

PathText record_of(const PathText& records, const char* layer)
{
    const PathText path = records ? znc::path_in(records.get(), "/", layer) : nullptr;
    return path ? znc::path_in(path.get(), kSuffix.data()) : nullptr;
}

// Whether the layer that a record is named after is stored, or might be.
bool is_layer_stored(std::string_view base, std::string_view record)
{
    const PathText area = znc::path_in(base, kLayers);
    const PathText path = area ? znc::path_in(area.get(), record.data()) : nullptr;
    if (!path)
        return true;
    path.get()[std::strlen(path.get()) - kSuffix.size()] = '\0';
    struct stat st = {};
    return ::lstat(path.get(), &st) == 0 || errno != ENOENT;
}

} // namespace

namespace znc {

bool read_listing(std::string_view base, const char* layer, TextList* directories) noexcept
{
    const ErrnoSaver keep;
    const PathText path = record_of(records_directory(base), layer);
    TextList record;
    if (!path || !record.read(path.get()) || std::strcmp(record.first(), kVersion) != 0)
        return false;
    TextList read;
    for (const char* text = record.next(record.first()); text != nullptr; text = record.next(text))
        if (!is_directory_entry(text) || !read.add(text))
            return false;
    *directories = std::move(read);
    return true;
}

void record_listing(std::string_view base, const char* layer, const TextList& directories) noexcept
{
    const ErrnoSaver keep;
    const PathText records = records_directory(base);
    TextList record;
    if (!records || znMkdirParents(records.get(), kRecordsMode) != OK || !record.add(kVersion) ||
        !record.add_all(directories))
        return;
    RecordFile file;
    if (file.place(record_of(records, layer), record) == OK)
        file.keep();
}

bool find_unused_listings(std::string_view base, TextList* files) noexcept
{
    const PathText records = records_directory(base);
    const UniqueDir stream(records ? ::opendir(records.get()) : nullptr);
    if (!stream)
        return records && errno == ENOENT;
    while (const dirent* const entry = next_entry(stream.get())) {
        const std::string_view name = entry->d_name;
        if (!name.ends_with(kSuffix) || is_layer_stored(base, name))
            continue;
        const PathText file = path_in(records.get(), "/", entry->d_name);
        if (!file || !files->add(file.get()))
            return false;
    }
    return errno == 0;
}

} // namespace znc
