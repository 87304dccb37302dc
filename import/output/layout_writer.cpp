#include "layout_writer.hpp"

#include "front/files.hpp"
#include "front/layout.hpp"
#include "front/named_lock.hpp"
#include "import/source/documents.hpp"
#include "import/source/stream.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <sys/stat.h>

namespace zncimport {
namespace {

using zncctl::error_text;
using zncctl::Json;
using zncctl::member;
using zncctl::text_of;

// The prefix of temporary files. An import that died may leave such files; the next import removes
// them.
constexpr std::string_view kTemporary = ".zncctl-import-";
constexpr const char* kNewDocument = ".zncctl-import-document";
constexpr const char* kLockName = ".zncctl-import-lock";
constexpr const char* kWaiting =
    "another process is importing into this image layout; waiting for it";
constexpr const char* kNewName = ".zncctl-import-blob";
constexpr const char* kLayoutDocument = R"({"imageLayoutVersion": "1.0.0"})";

[[noreturn]] void fail(const std::string& object)
{
    throw Failure(object, error_text());
}

// Returns the entries of a directory except the lock file.
std::vector<std::string> entries_of(int dir, const std::string& object)
{
    std::optional<std::vector<std::string>> names = zncctl::names_in(dir);
    if (!names)
        fail(object);
    std::erase(*names, kLockName);
    return *std::move(names);
}

void sweep(int dir, const std::string& object)
{
    for (const std::string& name : entries_of(dir, object))
        if (name.starts_with(kTemporary))
            ::unlinkat(dir, name.c_str(), 0);
}

znc::UniqueFd open_or_make_dir(int dir, const char* name)
{
    if (::mkdirat(dir, name, 0755) != 0 && errno != EEXIST)
        fail(name);
    znc::UniqueFd fd(::openat(dir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd)
        fail(name);
    return fd;
}

// Reads a document; returns nothing if it does not exist. Only regular files are accepted, no links
// or FIFOs.
std::optional<std::string> read_document(int dir, const std::string& name)
{
    const znc::UniqueFd file(
        ::openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file && errno == ENOENT)
        return std::nullopt;
    struct stat st = {};
    if (!file || ::fstat(file.get(), &st) != 0)
        fail(name);
    if (!S_ISREG(st.st_mode))
        throw Failure(name, "is not a regular file");
    const auto size = static_cast<std::uint64_t>(st.st_size);
    return read_all(*read_part(file.get(), name, 0, size), name, Limits{}.json);
}

// Atomically replaces the content of a document.
void write_document(int dir, const char* name, std::string_view content)
{
    ::unlinkat(dir, kNewDocument, 0);
    znc::UniqueFd file(
        ::openat(dir, kNewDocument, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file || !zncctl::write_all(file.get(), content) || ::fsync(file.get()) != 0 ||
        file.close_checked() != 0 || ::renameat(dir, kNewDocument, dir, name) != 0)
        fail(name);
}

bool same_file(int fd, const std::string& path)
{
    struct stat opened = {};
    struct stat named = {};
    return ::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Returns the 64 hexadecimal digits of a "sha256:" digest, which are the name of the blob.
std::string blob_name(const std::string& digest)
{
    constexpr std::string_view kKind = "sha256:";
    if (!znc::is_digest(digest) || !digest.starts_with(kKind))
        throw Failure(digest, "is not a valid blob digest");
    return digest.substr(kKind.size());
}

Json read_index(int dir)
{
    constexpr const char* kName = "index.json";
    const std::optional<std::string> text = read_document(dir, kName);
    if (!text) {
        return {{"schemaVersion", 2}, {"manifests", Json::array()}};
    }
    zncctl::JsonNotes notes;
    std::optional<Json> index = zncctl::parse_json(*text, &notes);
    if (!index)
        throw Failure(kName, notes.problem);
    if (!zncctl::is_array(member(*index, "manifests")))
        throw Failure(kName, "\"manifests\" is not an array");
    if (notes.inexact)
        throw Failure(kName, "contains a number that cannot be preserved exactly");
    return *std::move(index);
}

struct Platform {
    std::string os;
    std::string arch;
};

// Returns the platform given by the index entry or by the image's configuration; "" for unknown
// parts.
Platform platform_of(int blobs, const Json& entry)
try {
    const Json* given = member(entry, "platform");
    Platform platform = {text_of(given, "os"), text_of(given, "architecture")};
    if (!platform.os.empty() && !platform.arch.empty())
        return platform;
    const auto read = [&](const Json* descriptor) {
        const std::string digest = text_of(descriptor, "digest");
        const auto text = read_document(blobs, blob_name(digest)).value_or("");
        return zncctl::parse_json(text).value_or(Json());
    };
    const Json manifest = read(&entry);
    const Json config = read(member(manifest, "config"));
    if (platform.os.empty())
        platform.os = text_of(config, "os");
    if (platform.arch.empty())
        platform.arch = text_of(config, "architecture");
    return platform;
} catch (const Failure&) {
    return {};
}

// Returns whether unpacking might select this entry for the given image.
bool is_image(int blobs, const Json& entry, const std::string& tag, const std::string& os,
              const std::string& arch)
{
    const std::string name = text_of(member(entry, "annotations"), kRefName);
    if (name != tag && !(name.empty() && tag == zncctl::kDefaultTag))
        return false;
    const Platform platform = platform_of(blobs, entry);
    return (platform.os.empty() || platform.os == os) &&
           (platform.arch.empty() || platform.arch == arch);
}

Json index_entry(const IndexEntry& entry)
{
    Json object = descriptor(kManifestType, entry.manifest_digest, entry.manifest_size);
    Json& platform = object["platform"];
    platform = {{"architecture", entry.arch}, {"os", entry.os}};
    if (!entry.variant.empty())
        platform["variant"] = entry.variant;
    object["annotations"] = {{kRefName, entry.tag}};
    return object;
}

} // namespace

// Open files of the layout, and what the destructor must remove unless add_to_index() has
// succeeded.
struct LayoutWriter::State : private znc::NotCopied {
    explicit State(std::string layout) : path(std::move(layout)) {}
    ~State()
    {
        if (!committed && dir)
            undo();
    }

    void open_locked();
    void read_or_begin();
    void undo();

    std::string path;
    zncctl::NamedLock lock;
    znc::UniqueFd dir;
    znc::UniqueFd blobs;
    bool made_dir = false; // the directory did not exist
    bool fresh = false;    // the directory was empty
    bool committed = false;
    std::vector<std::string> kept; // names of new blobs
    unsigned next_name = 0;
};

// An import that created the directory and failed removes it. An import that was waiting for the
// lock must then start again with a new directory.
void LayoutWriter::State::open_locked()
{
    for (;;) {
        made_dir = ::mkdir(path.c_str(), 0755) == 0;
        if (!made_dir && errno != EEXIST)
            fail(path);
        znc::UniqueFd opened(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!opened && errno != ENOENT)
            fail(path);
        const bool locked = lock.take(path + "/" + kLockName, kWaiting);
        if (!locked && errno != ENOENT) {
            const znc::ErrnoSaver keep;
            if (made_dir)
                ::rmdir(path.c_str());
            fail(path);
        }
        if (opened && locked && same_file(opened.get(), path)) {
            dir = std::move(opened);
            return;
        }
    }
}

void LayoutWriter::State::read_or_begin()
{
    constexpr const char* kName = "oci-layout";
    sweep(dir.get(), path);
    if (const std::optional<std::string> text = read_document(dir.get(), kName)) {
        zncctl::JsonNotes notes;
        const Json document = zncctl::parse_json(*text, &notes).value_or(Json());
        if (notes.duplicate_key)
            throw Failure(path + "/" + kName, notes.problem);
        if (text_of(document, "imageLayoutVersion") != "1.0.0")
            throw Failure(path, "is not an image layout of version 1.0.0");
    } else {
        if (!entries_of(dir.get(), path).empty())
            throw Failure(path, "is neither empty nor an image layout");
        fresh = true;
        write_document(dir.get(), kName, kLayoutDocument);
    }
    const znc::UniqueFd above = open_or_make_dir(dir.get(), "blobs");
    blobs = open_or_make_dir(above.get(), "sha256");
    sweep(blobs.get(), "blobs/sha256");
}

void LayoutWriter::State::undo()
{
    ::unlinkat(dir.get(), kNewDocument, 0);
    if (blobs) {
        ::unlinkat(blobs.get(), kNewName, 0);
        for (const std::string& name : kept)
            ::unlinkat(blobs.get(), name.c_str(), 0);
    }
    if (!fresh)
        return;
    ::unlinkat(dir.get(), "blobs/sha256", AT_REMOVEDIR);
    ::unlinkat(dir.get(), "blobs", AT_REMOVEDIR);
    ::unlinkat(dir.get(), "oci-layout", 0);
    lock.release();
    if (made_dir)
        ::rmdir(path.c_str());
}

LayoutWriter::LayoutWriter(const std::string& path) : state_(std::make_unique<State>(path))
{
    state_->open_locked();
    state_->read_or_begin();
    static_cast<void>(read_index(state_->dir.get())); // report an unusable index early
}

LayoutWriter::~LayoutWriter() = default;

void LayoutWriter::check_tag(const std::string& tag, const std::string& os, const std::string& arch,
                             bool replace) const
{
    if (replace)
        return;
    const Json index = read_index(state_->dir.get());
    for (const Json& entry : zncctl::children(member(index, "manifests"))) {
        if (is_image(state_->blobs.get(), entry, tag, os, arch))
            throw Failure(
                state_->path,
                fmt::format("already contains an image {} for {}/{}; use --force to replace it",
                            tag, os, arch),
                zncctl::kExitWrongState);
    }
}

NewBlob LayoutWriter::begin_blob() const
{
    const int blobs = state_->blobs.get();
    znc::UniqueFd file(::openat(blobs, ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0644));
    if (file)
        return NewBlob(std::move(file));
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)
        fail(state_->path);
    const std::string name = fmt::format("{}{}", kTemporary, state_->next_name++);
    znc::UniqueFd own(::fcntl(blobs, F_DUPFD_CLOEXEC, 0));
    file.reset(
        ::openat(blobs, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!own || !file)
        fail(state_->path);
    return {std::move(file), std::move(own), name};
}

// Replaces an existing blob of this name, which may be damaged: the new blob is known to be
// correct.
void LayoutWriter::keep(const NewBlob& blob, const std::string& digest) const
{
    const std::string name = blob_name(digest);
    const int blobs = state_->blobs.get();
    if (::fsync(blob.fd()) != 0)
        fail(digest);
    const bool replaces = ::faccessat(blobs, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
    const char* from = blob.name().empty() ? kNewName : blob.name().c_str();
    if (blob.name().empty()) {
        const std::string file = zncctl::descriptor_path(blob.fd());
        if (::linkat(AT_FDCWD, file.c_str(), blobs, kNewName, AT_SYMLINK_FOLLOW) != 0)
            fail(digest);
    }
    if (::renameat(blobs, from, blobs, name.c_str()) != 0)
        fail(digest);
    if (!replaces)
        state_->kept.push_back(name);
}

std::string LayoutWriter::add_blob(std::string_view content) const
{
    const NewBlob blob = begin_blob();
    std::string digest = digest_of(content);
    if (!zncctl::write_all(blob.fd(), content))
        fail(digest);
    keep(blob, digest);
    return digest;
}

namespace {

// Replaces the first matching entry, since readers use the first one, and removes the other
// matching entries.
void put_entry(Json& list, const IndexEntry& entry, int blobs)
{
    Json kept = Json::array();
    bool found = false;
    for (Json& item : list) {
        const bool replaced = is_image(blobs, item, entry.tag, entry.os, entry.arch);
        if (replaced && !found)
            kept.push_back(index_entry(entry));
        found = found || replaced;
        if (!replaced)
            kept.push_back(std::move(item));
    }
    if (!found)
        kept.push_back(index_entry(entry));
    list = std::move(kept);
}

} // namespace

void LayoutWriter::add_to_index(const IndexEntry& entry) const
{
    State& state = *state_;
    const int dir = state.dir.get();
    Json index = read_index(dir);
    put_entry(index["manifests"], entry, state.blobs.get());

    // Everything that the index refers to must be on disk before the index is.
    const znc::UniqueFd above = open_or_make_dir(dir, "blobs");
    if (::fsync(state.blobs.get()) != 0 || ::fsync(above.get()) != 0 || ::fsync(dir) != 0)
        fail(state.path);
    write_document(dir, "index.json", zncctl::compact(index) + "\n");
    state.committed = true;
    if (::fsync(dir) != 0)
        fail("index.json");
}

} // namespace zncimport
