#include "archive.hpp"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <array>
#include <string_view>

namespace zncimport {
namespace {

constexpr std::array<std::byte, 65536> kZeros{};

Kind kind_of(archive_entry* entry)
{
    if (archive_entry_hardlink(entry) != nullptr)
        return Kind::kHardlink;
    switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
        return Kind::kFile;
    case AE_IFDIR:
        return Kind::kDirectory;
    case AE_IFLNK:
        return Kind::kSymlink;
    case AE_IFCHR:
        return Kind::kCharDevice;
    case AE_IFBLK:
        return Kind::kBlockDevice;
    case AE_IFIFO:
        return Kind::kFifo;
    default:
        return Kind::kOther;
    }
}

// libarchive stores ACLs separately from other extended attributes.
std::vector<std::string> xattrs_of(archive_entry* entry)
{
    std::vector<std::string> names;
    const char* name = nullptr;
    const void* value = nullptr;
    std::size_t size = 0;
    archive_entry_xattr_reset(entry);
    while (archive_entry_xattr_next(entry, &name, &value, &size) == ARCHIVE_OK)
        names.emplace_back(name);
    const int lists = archive_entry_acl_types(entry);
    if ((lists & ARCHIVE_ENTRY_ACL_TYPE_ACCESS) != 0)
        names.emplace_back("system.posix_acl_access");
    if ((lists & ARCHIVE_ENTRY_ACL_TYPE_DEFAULT) != 0)
        names.emplace_back("system.posix_acl_default");
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

// A pax name that is not valid UTF-8: libarchive passes its bytes on unchanged, and so does this
// program.
bool is_harmless(const char* warning)
{
    return warning != nullptr &&
           std::string_view(warning).find("can't be converted from") != std::string_view::npos;
}

std::string target_of(archive_entry* entry, Kind kind)
{
    const char* target = nullptr;
    if (kind == Kind::kHardlink)
        target = archive_entry_hardlink(entry);
    else if (kind == Kind::kSymlink)
        target = archive_entry_symlink(entry);
    return target != nullptr ? target : "";
}

void read_device(archive_entry* entry, Member& member)
{
    if (member.kind != Kind::kCharDevice && member.kind != Kind::kBlockDevice)
        return;
    member.major = static_cast<std::uint32_t>(archive_entry_rdevmajor(entry));
    member.minor = static_cast<std::uint32_t>(archive_entry_rdevminor(entry));
}

std::uint64_t names_length(const Member& member)
{
    std::uint64_t length = member.path.size() + member.target.size();
    for (const std::string& name : member.xattrs)
        length += name.size() + sizeof(std::string);
    return length;
}

void send_zeros(std::uint64_t count, const std::function<void(std::span<const std::byte>)>& sink)
{
    while (count != 0) {
        const std::size_t part = std::min<std::uint64_t>(count, kZeros.size());
        sink(std::span(kZeros).first(part));
        count -= part;
    }
}

} // namespace

ArchiveReader::ArchiveReader(Reader& plain, std::string name, Budget& budget)
    : name_(std::move(name)), budget_(budget), library_(plain)
{
    if (archive_read_support_format_tar(library_.get()) != ARCHIVE_OK ||
        archive_read_support_format_empty(library_.get()) != ARCHIVE_OK)
        library_.fail(name_);
    library_.open(name_);
}

ArchiveReader::~ArchiveReader() = default;

bool ArchiveReader::next(Member& member)
{
    archive_entry* entry = nullptr;
    const int got = archive_read_next_header(library_.get(), &entry);
    if (got == ARCHIVE_EOF)
        return false;
    if (got != ARCHIVE_OK &&
        (got != ARCHIVE_WARN || !is_harmless(archive_error_string(library_.get()))))
        library_.fail(name_);
    budget_.take_entry(name_);
    const char* path = archive_entry_pathname(entry);
    if (path == nullptr)
        throw Failure(name_, "a member has a name that cannot be read");
    member = Member();
    member.path = path;
    member.kind = kind_of(entry);
    member.target = target_of(entry, member.kind);
    if (member.target.empty() && member.kind == Kind::kHardlink)
        throw Failure(name_, "a link has a target that cannot be read: " + member.path);
    member.mode = static_cast<std::uint32_t>(archive_entry_perm(entry)) & 07777U;
    member.uid = archive_entry_uid(entry);
    member.gid = archive_entry_gid(entry);
    member.mtime = archive_entry_mtime(entry);
    if (archive_entry_size(entry) < 0)
        throw Failure(name_, "a member has a negative size: " + member.path);
    if (member.kind == Kind::kFile)
        member.size = static_cast<std::uint64_t>(archive_entry_size(entry));
    member.sparse = archive_entry_sparse_count(entry) != 0;
    read_device(entry, member);
    member.xattrs = xattrs_of(entry);
    budget_.take_names(name_, names_length(member));
    size_ = member.size;
    return true;
}

void ArchiveReader::data(const std::function<void(std::span<const std::byte>)>& sink)
{
    std::uint64_t at = 0;
    const auto fill_to = [&](std::uint64_t end) {
        budget_.take_bytes(name_, end - at);
        send_zeros(end - at, sink);
        at = end;
    };
    while (at < size_) {
        const void* bytes = nullptr;
        std::size_t count = 0;
        la_int64_t offset = 0;
        const int got = archive_read_data_block(library_.get(), &bytes, &count, &offset);
        if (got == ARCHIVE_EOF)
            break;
        if (got != ARCHIVE_OK)
            library_.fail(name_);
        const auto start = static_cast<std::uint64_t>(offset);
        if (offset < 0 || start < at || start > size_ || count > size_ - start)
            throw Failure(name_, "the parts of a sparse file are not in order");
        fill_to(start);
        if (count != 0)
            sink({static_cast<const std::byte*>(bytes), count});
        at += count;
    }
    fill_to(size_);
}

std::uint64_t ArchiveReader::data_offset() const
{
    return static_cast<std::uint64_t>(archive_filter_bytes(library_.get(), 0));
}

} // namespace zncimport
