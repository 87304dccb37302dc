// Copies files between a container and the host, or an archive.
#include "cli/containers/config_check.hpp"
#include "cli/containers/container.hpp"
#include "cli/containers/copy_tree.hpp"
#include "cli/containers/pause.hpp"
#include "cli/containers/stop_signals.hpp"
#include "cli/containers/tree_archive.hpp"
#include "cli/containers/tree_extract.hpp"
#include "commands.hpp"
#include "front/files.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/stat.h>

#include "zarnel/fs.h"

namespace zncctl {
namespace {

// An operand: a path on the host or, as "ID:PATH", in a container.
struct Place {
    std::string id; // "": the host
    std::string path;

    // Whether it is "-": an archive on standard input or output.
    [[nodiscard]] bool is_stream() const { return id.empty() && path == "-"; }
};

Place read_place(const std::string& text)
{
    const std::size_t colon = text.find(':');
    const bool in_container = colon != text.npos && colon != 0 && text[0] != '.' &&
                              text.substr(0, colon).find('/') == text.npos;
    return in_container ? Place{text.substr(0, colon), text.substr(colon + 1)} : Place{"", text};
}

// Where paths are resolved: in the root of a container, with all its mounts, or on the host.
class Side {
  public:
    Side() = default; // the host
    explicit Side(znc::UniqueFd root) : root_(std::move(root)) {}

    // Links are followed, in a container inside its root. Invalid with errno set.
    [[nodiscard]] znc::UniqueFd directory(const std::string& path) const
    {
        return znc::UniqueFd(root_ ? znDirOpenInRoot(root_.get(), path.c_str())
                                   : ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    [[nodiscard]] znc::UniqueFd file(const std::string& path) const
    {
        return root_ ? znc::UniqueFd(znFileOpenInRoot(root_.get(), path.c_str()))
                     : open_regular(path);
    }

  private:
    znc::UniqueFd root_;
};

// Without "/" and "/." at the end.
std::string trimmed(std::string path)
{
    while (path.size() > 1 && (path.ends_with('/') || path.ends_with("/.")))
        path.resize(path.size() - (path.ends_with('/') ? 1 : 2));
    return path.empty() ? "/" : path;
}

std::string base_name(const std::string& path)
{
    const std::string name = path.substr(path.rfind('/') + 1);
    return name == "." || name == ".." ? "" : name;
}

std::string directory_name(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

[[noreturn]] void fail(const std::string& path)
{
    throw std::runtime_error(fmt::format("{}: {}", printable(path), read_error_text()));
}

class Copy {
  public:
    Copy(const Side& from, const Side& to, const TreeCopy& copy) : from_(from), to_(to), copy_(copy)
    {
    }

    void run(const std::string& source, const std::string& destination) const
    {
        if (const znc::UniqueFd dir = from_.directory(source); dir)
            return copy_directory(dir.get(), source, destination);
        const znc::UniqueFd file = errno == ENOTDIR ? from_.file(source) : znc::UniqueFd();
        if (!file)
            fail(source);
        copy_file(file.get(), source, destination);
    }

  private:
    void copy_file(int file, const std::string& source, const std::string& destination) const
    {
        if (const znc::UniqueFd dir = to_.directory(destination); dir)
            return copy_.copy_file(file, dir.get(), base_name(trimmed(source)));
        if (errno != ENOTDIR && errno != ENOENT)
            fail(destination);
        if (destination.ends_with('/')) {
            errno = ENOTDIR;
            fail(destination);
        }
        const znc::UniqueFd existing = regular_file(destination);
        const znc::UniqueFd parent = parent_of(destination);
        const std::string name = new_name(destination);
        if (!is_link(parent.get(), name))
            return copy_.copy_file(file, parent.get(), name);
        if (!existing) {
            errno = ENOENT;
            fail(destination);
        }
        TreeCopy::rewrite_file(file, existing.get(), destination);
    }

    void copy_directory(int from, const std::string& source, const std::string& destination) const
    {
        const std::string name = base_name(trimmed(source));
        if (const znc::UniqueFd dir = to_.directory(destination); dir) {
            // The content alone, if it is asked for by "/." or the source has no name.
            if (source.ends_with("/.") || source == "." || name.empty())
                return copy_.copy_content(from, dir.get(), trimmed(source));
            return copy_.copy_directory(from, dir.get(), name, trimmed(source));
        }
        if (errno != ENOENT)
            fail(destination);
        const std::string wanted = trimmed(destination);
        copy_.copy_directory(from, parent_of(wanted).get(), new_name(wanted), trimmed(source));
    }

    // The existing regular file, or an invalid descriptor if there is none. Fails if a file of
    // another type exists.
    [[nodiscard]] znc::UniqueFd regular_file(const std::string& destination) const
    {
        znc::UniqueFd file = to_.file(destination);
        if (!file && errno != ENOENT)
            fail(destination);
        return file;
    }

    static bool is_link(int dir, const std::string& name)
    {
        struct stat st = {};
        return ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
    }

    [[nodiscard]] znc::UniqueFd parent_of(const std::string& path) const
    {
        znc::UniqueFd dir = to_.directory(directory_name(path));
        if (!dir)
            fail(directory_name(path));
        return dir;
    }

    static std::string new_name(const std::string& path)
    {
        std::string name = base_name(path);
        if (name.empty()) {
            errno = ENOENT;
            fail(path);
        }
        return name;
    }

    const Side& from_;
    const Side& to_;
    const TreeCopy& copy_;
};

// Returns the host's ids of the user that a container's program runs as. Afterwards this process
// creates files as the container's root, since the host's root may not be mapped in the container's
// file systems.
Owner become_owner_in(const std::string& id, nsid_t ns)
{
    const std::string bundle = text_of(state_of(id).value_or(Json()), "bundle");
    const auto config = parse_config(read_file(bundle + "/config.json").value_or(""));
    const Json* user = member(config ? member(*config, "process") : nullptr, "user");
    Owner owner = {static_cast<uid_t>(integer(member(user, "uid")).value_or(0)),
                   static_cast<gid_t>(integer(member(user, "gid")).value_or(0))};
    Owner root;
    if (znnsOwnerGet(ns, &owner.uid, &owner.gid) != OK ||
        znnsOwnerGet(ns, &root.uid, &root.gid) != OK || znnsFileOwnerSet(root.uid, root.gid) != OK)
        throw_error(id);
    return owner;
}

// Writes a file or directory of the container to standard output as an archive.
void write_archive(const std::string& id, nsid_t ns, const Side& container,
                   const std::string& source)
{
    const std::string name = base_name(trimmed(source));
    TreeArchive archive(STDOUT_FILENO, [ns](Owner owner) {
        constexpr unsigned kNobody = 65534;
        Owner inside = owner;
        return znnsOwnerInsideGet(ns, &inside.uid, &inside.gid) == OK ? inside
                                                                      : Owner{kNobody, kNobody};
    });
    if (const znc::UniqueFd dir = container.directory(source); dir) {
        // The content alone, if it is asked for by "/." or the source has no name.
        const bool content = source.ends_with("/.") || name.empty();
        if (!content)
            archive.add_directory(dir.get(), name + "/");
        archive.add_content(dir.get(), content ? "" : name + "/");
    } else {
        const znc::UniqueFd file = errno == ENOTDIR ? container.file(source) : znc::UniqueFd();
        if (!file)
            fail(source);
        archive.add_file(file.get(), name);
    }
    archive.finish(id);
}

// Extracts an archive on standard input into a directory of the container.
void read_archive(const std::string& id, nsid_t ns, int root, const std::string& destination)
{
    if (!znc::UniqueFd(znDirOpenInRoot(root, destination.c_str())))
        fail(destination);
    TarReader archive(STDIN_FILENO);
    TreeExtract(root, destination, become_owner_in(id, ns)).extract(archive);
}

void copy_files(nsid_t ns, const Place& source, const Place& destination, const Side& container)
{
    const StopSignals held; // not while reading from a pipe, which may block for ever
    const Side host;
    const bool into = source.id.empty();
    const TreeCopy tree(into ? std::optional(become_owner_in(destination.id, ns)) : std::nullopt);
    Copy(into ? host : container, into ? container : host, tree).run(source.path, destination.path);
}

int copy(const Place& source, const Place& destination)
{
    const std::string& id = source.id.empty() ? destination.id : source.id;
    if (status_of(id) == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    const nsid_t ns = namespace_of(id);
    znc::UniqueFd root(ns >= 0 ? znnsRootOpen(ns) : -1);
    if (!root)
        return local_failure(errno, id);
    try {
        if (source.is_stream())
            read_archive(id, ns, root.get(), destination.path);
        else if (destination.is_stream())
            write_archive(id, ns, Side(std::move(root)), source.path);
        else
            copy_files(ns, source, destination, Side(std::move(root)));
        return kExitOk;
    } catch (const Stopped&) {
        return kExitFailure; // not reached: destroying `held` lets the signal end the process
    } catch (const std::runtime_error& error) {
        return failure(id, error.what());
    }
}

} // namespace

int cmd_cp(const Arguments& args)
{
    const Place source = read_place(args.operand(0));
    const Place destination = read_place(args.operand(1));
    if (source.id.empty() == destination.id.empty())
        return usage_failure("one of source and destination must be ID:PATH, in a container");
    if (source.path.empty() || destination.path.empty())
        return usage_failure("a path must not be empty");
    if (source.is_stream() && ::isatty(STDIN_FILENO) != 0)
        return usage_failure("the archive is not read from a terminal: redirect the input");
    if (destination.is_stream() && ::isatty(STDOUT_FILENO) != 0)
        return usage_failure("the archive is not written to a terminal: redirect the output");
    return copy(source, destination);
}

} // namespace zncctl
