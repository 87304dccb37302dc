#include "image_files.hpp"

#include "front/blob.hpp"

#include "front/files.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>

namespace zncimport {
namespace {

constexpr int kLinksMax = 16;

class OwningReader : public Reader {
  public:
    OwningReader(std::shared_ptr<const znc::UniqueFd> owner, ReaderPtr reader)
        : owner_(std::move(owner)), reader_(std::move(reader))
    {
    }
    std::size_t read(std::span<std::byte> out) override { return reader_->read(out); }
    std::uint64_t skip(std::uint64_t count) override { return reader_->skip(count); }

  private:
    std::shared_ptr<const znc::UniqueFd> owner_;
    ReaderPtr reader_;
};

// Returns a member's name without "." and empty components, or nothing if it is absolute or
// contains "..".
std::optional<std::string> plain_name(std::string_view path)
{
    if (path.starts_with('/'))
        return std::nullopt;
    std::string name;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view part = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (part == "..")
            return std::nullopt;
        if (part.empty() || part == ".")
            continue;
        name += name.empty() ? "" : "/";
        name += part;
    }
    return name;
}

// Returns the target of a symbolic link relative to the top of the archive, or nothing if it is
// outside.
std::optional<std::string> linked_name(const std::string& link, std::string_view target)
{
    std::string at = link.substr(0, link.find('/') == link.npos ? 0 : link.rfind('/'));
    while (target.starts_with("../")) {
        if (at.empty())
            return std::nullopt;
        at.resize(at.find('/') == at.npos ? 0 : at.rfind('/'));
        target.remove_prefix(3);
    }
    if (target.starts_with('/'))
        return std::nullopt;
    return plain_name(at.empty() ? std::string(target) : at + "/" + std::string(target));
}

// Opens the next directory of the path, or the file at its end. O_NONBLOCK prevents blocking on a
// FIFO.
znc::UniqueFd open_step(int directory, const std::string& name, bool last)
{
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
    return znc::UniqueFd(::openat(directory, name.c_str(), last ? kFlags : kFlags | O_DIRECTORY));
}

} // namespace

ReaderPtr FilePart::read() const
{
    ReaderPtr reader = read_part(fd, name, extent.offset, extent.size);
    return owner ? std::make_unique<OwningReader>(owner, std::move(reader)) : std::move(reader);
}

std::optional<FilePart> DirectoryFiles::find(const std::string& path) const
{
    const std::optional<std::string> name = plain_name(path);
    if (!name || name->empty())
        throw Failure(path, "is not a valid file name in an image");
    znc::UniqueFd held;
    for (std::size_t start = 0; start <= name->size();) {
        const std::size_t end = std::min(name->find('/', start), name->size());
        const int from = held ? held.get() : directory_;
        znc::UniqueFd next = open_step(from, name->substr(start, end - start), end == name->size());
        if (!next && errno == ENOENT)
            return std::nullopt;
        if (!next)
            throw Failure(path, errno == ELOOP ? "is a symbolic link" : zncctl::error_text());
        held = std::move(next);
        start = end + 1;
    }
    struct stat status = {};
    if (::fstat(held.get(), &status) != 0)
        throw Failure(path, zncctl::error_text());
    if (!S_ISREG(status.st_mode))
        throw Failure(path, "is not a regular file");
    FilePart part;
    part.owner = std::make_shared<const znc::UniqueFd>(std::move(held));
    part.fd = part.owner->get();
    part.extent = {0, static_cast<std::uint64_t>(status.st_size)};
    part.name = *name;
    return part;
}

ArchiveFiles::ArchiveFiles(const FilePart& whole, const Limits& limits) : whole_(whole)
{
    Budget budget(limits);
    const ReaderPtr reader = whole.read();
    ArchiveReader archive(*reader, whole.name, budget);
    Member member;
    while (archive.next(member)) {
        const std::optional<std::string> name = plain_name(member.path);
        if (!name && bad_name_.empty())
            bad_name_ = member.path;
        if (name)
            places_[*name] = {member.kind,
                              member.sparse,
                              {whole.extent.offset + archive.data_offset(), member.size},
                              member.target};
    }
}

bool ArchiveFiles::has(const std::string& path) const
{
    return places_.find(path) != places_.end();
}

void ArchiveFiles::check_names() const
{
    if (!bad_name_.empty())
        throw Failure(bad_name_, "the archive of the image has a member outside of it");
}

std::optional<FilePart> ArchiveFiles::find(const std::string& path) const
{
    std::optional<std::string> name = plain_name(path);
    for (int links = 0; links <= kLinksMax; links++) {
        if (!name)
            throw Failure(path, "leads out of the archive");
        const auto found = places_.find(*name);
        if (found == places_.end())
            return std::nullopt;
        const Place& place = found->second;
        if (place.kind == Kind::kSymlink)
            name = linked_name(*name, place.target);
        else if (place.kind == Kind::kHardlink)
            name = plain_name(place.target);
        else if (place.kind != Kind::kFile || place.sparse)
            throw Failure(path, place.sparse ? "is a sparse file" : "is not a regular file");
        else
            return FilePart{whole_.fd, place.extent, path, whole_.owner};
    }
    throw Failure(path, "goes through too many links");
}

namespace {

void check_document(const std::string& text, const std::string& name, const std::string& digest,
                    std::int64_t size)
{
    if (size >= 0 && text.size() != static_cast<std::uint64_t>(size))
        throw Failure(name, fmt::format("has {} bytes, not {}", text.size(), size));
    if (digest.empty())
        return;
    if (!znc::digest_algorithm(digest))
        throw Failure(name, "has a digest of an unknown algorithm");
    if (!zncctl::has_digest(text, digest))
        throw Failure(name, "does not match its digest");
}

} // namespace

std::string Documents::read(const FilePart& file, const std::string& digest, std::int64_t size)
{
    const ReaderPtr reader = file.read();
    std::string text = read_all(*reader, file.name, limit_);
    check_document(text, file.name, digest, size);
    count(text, file.name);
    return text;
}

std::string Documents::take(std::string text, const std::string& digest, std::int64_t size)
{
    if (text.size() > limit_)
        throw Failure(digest, "the embedded data is too long (see --max-json)");
    check_document(text, digest, digest, size);
    count(text, digest);
    return text;
}

void Documents::count(const std::string& text, const std::string& name)
{
    constexpr std::uint64_t kOfFullLength = 16; // in total, this many documents of maximum length
    all_ += text.size();
    if (all_ / kOfFullLength > limit_)
        throw Failure(name, "the documents of all images together are too long (see --max-json)");
}

} // namespace zncimport
