// zncStoreRecord.cpp - see zncStoreRecord.hpp.
#include "zncStoreRecord.hpp"

#include "base/failure.hpp"
#include "base/file.hpp"
#include "zarnel/fs.h"
#include "zncPath.hpp"

#include <cstring>

#include <sys/stat.h>

namespace {

constexpr char kNewName[] = "/.new-XXXXXX";

} // namespace

namespace znc {

PathText path_in(std::string_view base, const char* directory, const char* name)
{
    PathText path = malloc_array<char>(kPathMax);
    if (!path)
        return nullptr;
    char* const end = path.get() + kPathMax;
    if (base.size() >= kPathMax)
        return znc::fail(ENAMETOOLONG, nullptr);
    std::memcpy(path.get(), base.data(), base.size());
    if (copy_end(copy_end(path.get() + base.size(), end, directory), end, name) == end)
        return znc::fail(ENAMETOOLONG, nullptr);
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
    if (len < 3 || text.bytes[len - 1] != '\0' || text.bytes[len - 2] != '\0')
        return znc::fail(EBADMSG, false);
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

// ------------------------------------------------------------------ files

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
    if (error != EEXIST || !existing.read(path.get()))
        return znc::fail(error != EEXIST ? error : errno);
    if (existing == layers)
        return OK;
    return znc::fail(EEXIST);
}

bool read_tree(std::string_view base, const char* chain, TextList* layers)
{
    const PathText dir = path_in(base, kRecordsDir);
    const PathText path = dir ? record_path(dir, chain, kTreeSuffix) : nullptr;
    return path && layers->read(path.get());
}

} // namespace znc
