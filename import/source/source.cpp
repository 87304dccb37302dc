#include "source_kinds.hpp"

#include "front/files.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <string_view>
#include <sys/stat.h>

namespace zncimport {
namespace {

// Decompresses or copies the whole stream into the spool.
FilePart spooled(Reader& stream, const std::string& name, Spool& spool, const Limits& limits)
{
    // A separate budget: the layers are counted later, when they are read.
    Budget budget(limits);
    const ReaderPtr bytes = plain(stream, name, budget);
    const std::uint64_t start = spool.size();
    std::vector<std::byte> part(std::size_t{256} << 10U);
    while (const std::size_t got = bytes->read(part))
        spool.append(std::span(part).first(got));
    return {spool.fd(), {start, spool.size() - start}, name, nullptr};
}

// Returns the uncompressed archive: the original file if it is uncompressed and seekable, else a
// copy in the spool.
FilePart plain_archive(const OpenedSource& opened, Spool& spool, const Limits& limits)
{
    const int fd = opened.fd.get();
    const std::string& name = opened.name.path;
    struct stat status = {};
    if (::fstat(fd, &status) != 0)
        throw Failure(name, zncctl::error_text());
    const off_t at = S_ISREG(status.st_mode) ? ::lseek(fd, 0, SEEK_CUR) : -1;
    if (at < 0)
        return spooled(*read_stream(fd, name), name, spool, limits);
    FilePart whole = {
        fd,
        {static_cast<std::uint64_t>(at),
         static_cast<std::uint64_t>(std::max(status.st_size, at)) - static_cast<std::uint64_t>(at)},
        name,
        nullptr};
    std::array<std::byte, kMagicSize> head{};
    const std::size_t size = whole.read()->read(head);
    if (!is_compressed(std::span(head).first(size)))
        return whole;
    return spooled(*whole.read(), name, spool, limits);
}

SourcePtr read_archive(const OpenedSource& opened, Spool& spool, const Limits& limits)
{
    const std::string& prefix = opened.name.prefix;
    const FilePart whole = plain_archive(opened, spool, limits);
    if (prefix == "tar")
        return rootfs_source(whole);
    auto files = std::make_unique<ArchiveFiles>(whole, limits);
    if (prefix.empty() && !files->has("oci-layout") && !files->has("manifest.json"))
        return rootfs_source(whole);
    files->check_names();
    if (prefix == "docker-archive" || (prefix.empty() && !files->has("oci-layout")))
        return docker_source(std::move(files), limits);
    return layout_source(std::move(files), limits);
}

bool is_there(int directory, const char* name)
{
    struct stat status = {};
    return ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool is_compatible(const std::string& prefix, bool directory)
{
    if (prefix == "oci" || prefix == "dir")
        return directory;
    return prefix.empty() || !directory;
}

bool has_name(const SourceImage& image, const std::string& wanted)
{
    return image.manifest_digest == wanted ||
           std::find(image.names.begin(), image.names.end(), wanted) != image.names.end();
}

// Whether a name of the image ends with `wanted` after a "/", or has it as its tag.
bool is_named_like(const SourceImage& image, const std::string& wanted)
{
    return std::any_of(image.names.begin(), image.names.end(), [&](const std::string& name) {
        const std::size_t colon = name.rfind(':');
        return name.ends_with("/" + wanted) ||
               (colon != name.npos && name.substr(colon + 1) == wanted);
    });
}

// The index N of "@N"; SIZE_MAX if N is not a valid number, nullopt if the text does not begin with
// "@".
std::optional<std::size_t> place_of(const std::string& wanted)
{
    if (!wanted.starts_with('@'))
        return std::nullopt;
    std::size_t place = SIZE_MAX;
    const char* const end = wanted.data() + wanted.size();
    const auto [rest, error] = std::from_chars(wanted.data() + 1, end, place);
    return error == std::errc() && rest == end ? place : SIZE_MAX;
}

// The indexes of the images that have the wanted name or, if there are none, of those for which
// is_named_like() is true.
std::vector<std::size_t> places_of(const std::vector<SourceImage>& images,
                                   const std::string& wanted)
{
    std::vector<std::size_t> same;
    std::vector<std::size_t> similar;
    const std::optional<std::size_t> place = place_of(wanted);
    for (std::size_t i = 0; i < images.size(); i++) {
        if (wanted.empty() || place.value_or(images.size()) == i || has_name(images[i], wanted))
            same.push_back(i);
        else if (is_named_like(images[i], wanted))
            similar.push_back(i);
    }
    return same.empty() ? similar : same;
}

// A root filesystem does not specify a platform and matches any.
bool is_for(const SourceImage& image, const Wanted& wanted)
{
    const auto fits = [](const std::string& has, const std::string& asked) {
        return asked.empty() || has.empty() || has == asked;
    };
    return fits(image.os, wanted.os) && fits(image.arch, wanted.arch) &&
           (wanted.variant.empty() || image.arch.empty() || image.variant == wanted.variant);
}

std::string listed(const std::vector<SourceImage>& images, const std::vector<std::size_t>& places)
{
    constexpr std::size_t kMost = 100;
    std::string text;
    for (std::size_t i = 0; i < std::min(places.size(), kMost); i++) {
        const SourceImage& image = images[places[i]];
        text += text.empty() ? "" : ", ";
        text += image.names.empty() ? image.manifest_digest : image.names.front();
        text += text.empty() || text.ends_with(' ') ? "" : " ";
        text += image.os + "/" + image.arch;
        text += image.variant.empty() ? "" : "/" + image.variant;
    }
    return places.size() > kMost ? text + ", ..." : text;
}

// Splits DIR:NAME, as "run" accepts it, if DIR is a layout and the whole is no path. The directory
// is opened later; if it is another one then, it is examined as such.
void split_layout_name(SourceName& source)
{
    if (is_there(AT_FDCWD, source.path.c_str()))
        return;
    for (std::size_t colon = source.path.find(':'); colon != std::string::npos;
         colon = source.path.find(':', colon + 1))
        if (is_there(AT_FDCWD, (source.path.substr(0, colon) + "/oci-layout").c_str())) {
            source.name = source.path.substr(colon + 1);
            source.path.resize(colon);
            return;
        }
}

} // namespace

SourceName split_source_name(const std::string& text)
{
    SourceName result = {"", text, ""};
    for (const char* prefix : {"oci", "oci-archive", "docker-archive", "dir", "tar"})
        if (text.starts_with(std::string(prefix) + ":"))
            result = {prefix, text.substr(std::string_view(prefix).size() + 1), ""};
    const bool named = result.prefix.starts_with("oci") || result.prefix == "docker-archive";
    if (const std::size_t colon = result.path.find(':'); named && colon != std::string::npos) {
        result.name = result.path.substr(colon + 1);
        result.path.resize(colon);
    }
    if (result.prefix.empty())
        split_layout_name(result);
    if (result.path.empty())
        throw Failure("", fmt::format("\"{}\" does not name a file", text), zncctl::kExitUsage);
    return result;
}

void read_platform(const std::string& text, Wanted& wanted)
{
    std::vector<std::string> parts(1);
    for (const char c : text)
        if (c == '/')
            parts.emplace_back();
        else
            parts.back() += c;
    const bool empty = std::any_of(parts.begin(), parts.end(),
                                   [](const std::string& part) { return part.empty(); });
    if (empty || parts.size() < 2 || parts.size() > 3)
        throw Failure("", fmt::format("\"{}\" is not of the form OS/ARCH[/VARIANT]", text),
                      zncctl::kExitUsage);
    wanted.os = parts[0];
    wanted.arch = parts[1];
    wanted.variant = parts.size() == 3 ? parts[2] : "";
}

OpenedSource open_source(const SourceName& name, const std::string& input_name)
{
    OpenedSource opened;
    opened.name = name;
    const bool standard = name.path == "-";
    opened.fd.reset(standard ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                             : ::open(name.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status = {};
    if (!opened.fd || ::fstat(opened.fd.get(), &status) != 0)
        throw Failure(standard ? input_name : name.path, zncctl::error_text(),
                      errno == ENOENT ? zncctl::kExitNotFound : zncctl::kExitFailure);
    if (standard)
        opened.name.path = input_name;
    // for example /dev/zero, which is endless
    if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))
        throw Failure(opened.name.path, "is a device");
    opened.directory = S_ISDIR(status.st_mode);
    if (!is_compatible(name.prefix, opened.directory))
        throw Failure(name.path, opened.directory ? "is a directory" : "is not a directory");
    return opened;
}

SourcePtr read_source(const OpenedSource& opened, Spool& spool, Budget& budget)
{
    const Limits& limits = budget.limits();
    if (!opened.directory)
        return read_archive(opened, spool, limits);
    const int directory = opened.fd.get();
    const bool layout = is_there(directory, "oci-layout") || is_there(directory, "index.json");
    if (opened.name.prefix == "dir" || (opened.name.prefix.empty() && !layout))
        return rootfs_source(std::nullopt);
    return layout_source(std::make_unique<DirectoryFiles>(directory), limits);
}

std::size_t choose(const std::vector<SourceImage>& images, const Wanted& wanted)
{
    const std::vector<std::size_t> all = places_of(images, "");
    std::vector<std::size_t> found = places_of(images, wanted.name);
    std::erase_if(found, [&](std::size_t i) { return !is_for(images[i], wanted); });
    std::vector<std::size_t> usable;
    std::copy_if(found.begin(), found.end(), std::back_inserter(usable),
                 [&](std::size_t i) { return images[i].problem.empty(); });
    // A layout often also contains attestations in the form of images, and index entries of other
    // platforms whose blobs are missing.
    if (found.size() == 1 || usable.size() == 1)
        return usable.empty() ? found[0] : usable[0];
    if (images.empty())
        throw Failure("", "the source contains no image", zncctl::kExitNotFound);
    if (found.empty())
        throw Failure("", "no such image in the source, which contains: " + listed(images, all),
                      zncctl::kExitNotFound);
    throw Failure("", "several images match, select one: " + listed(images, found),
                  zncctl::kExitNotFound);
}

zncctl::Json parse_document(const std::string& text, const std::string& name, bool array,
                            zncctl::JsonNotes* notes)
{
    zncctl::JsonNotes own;
    zncctl::JsonNotes& said = notes != nullptr ? *notes : own;
    std::optional<zncctl::Json> json = zncctl::parse_json(text, &said);
    if (!json)
        throw Failure(name, said.problem);
    if (array ? !json->is_array() : !json->is_object())
        throw Failure(name, array ? "is not a JSON array" : "is not a JSON object");
    return *std::move(json);
}

void read_config(SourceImage& image, const std::string& text, const std::string& name)
{
    zncctl::JsonNotes notes;
    zncctl::Json config = parse_document(text, name, false, &notes);
    if (notes.inexact && image.problem.empty())
        image.problem = "its configuration contains a number that cannot be preserved exactly";
    const auto take = [&](const char* key, std::string& to) {
        if (const std::string value = zncctl::text_of(config, key); !value.empty())
            to = value;
    };
    take("os", image.os);
    take("architecture", image.arch);
    take("variant", image.variant);
    const zncctl::Json& diffs =
        zncctl::children(zncctl::member(zncctl::member(config, "rootfs"), "diff_ids"));
    const std::size_t count = diffs.size();
    if (count != image.layers.size() && image.problem.empty())
        image.problem = fmt::format("its configuration names {} layers, its manifest {}", count,
                                    image.layers.size());
    std::size_t at = 0;
    for (const zncctl::Json& diff : diffs) {
        const std::string* value = zncctl::text(&diff);
        const std::string digest = value != nullptr ? *value : "";
        if ((!is_digest(digest) || !digest.starts_with("sha256:")) && image.problem.empty())
            image.problem = "its configuration has an invalid diff ID";
        if (at < image.layers.size())
            image.layers[at++].diff_id = digest;
    }
    image.config = std::move(config);
}

} // namespace zncimport
