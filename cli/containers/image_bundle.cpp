#include "image_bundle.hpp"

#include "cli/containers/container.hpp"
#include "cli/images/bundle_area.hpp"
#include "cli/images/private_layout.hpp"
#include "cli/images/pull_policy.hpp"
#include "cli/images/sticky.hpp"
#include "container_bundle.hpp"
#include "front/blob.hpp"
#include "front/container_id.hpp"
#include "front/files.hpp"
#include "front/output.hpp"
#include "front/progress.hpp"
#include "image_user.hpp"
#include "image_users.hpp"

#include <fmt/format.h>
#include <stdexcept>

#include "zncontainer.h"

namespace zncctl {
namespace {

constexpr std::size_t kDigestPrefix = 7; // length of "sha256:"
constexpr const char* kDamaged = "A layer of the image is damaged or a path is too long";

// An image that is ready to be unpacked. The library gets a private layout, in which only the
// layers come from the original one; it verifies their digests.
class Unpacking {
  public:
    Unpacking(const Wanted& wanted, const Chosen& chosen)
        : wanted_(wanted), user_(text_of(member(chosen.settled.document, "config"), "User")),
          manifest_(chosen.image.manifest.digest), os_(chosen.image.os), arch_(chosen.image.arch),
          layers_(wanted.image.layout, chosen.image),
          layout_(bundle_area(), chosen.image, layers_, chosen.settled.document)
    {
    }

    [[nodiscard]] const std::string& manifest() const { return manifest_; }

    // Unpacks the image. OK, or ERROR with errno set.
    STATUS unpack(const std::string& bundle, unsigned option, Progress& progress) const
    {
        const ZNC_BUNDLE_ATTR attr = {os_.c_str(), arch_.c_str()};
        StickyDirectories sticky;
        zncUnpackProgressSet(progress.listener(), progress.context());
        STATUS status = call_library([&] {
            return zncUnpackDirs(bundle.c_str(), layout_.path().c_str(), kDefaultTag, option, &attr,
                                 &StickyDirectories::heard, &sticky);
        });
        int error = errno;
        zncUnpackProgressSet(nullptr, nullptr);
        progress.end();
        if (status == OK && !keep_sticky(bundle, sticky.text())) {
            status = ERROR;
            error = errno;
        }
        if (status == OK && progress.left_out() != 0)
            hint_at_import(wanted_,
                           fmt::format("{} members of the image were left out, or are whiteouts "
                                       "that were extracted as files",
                                       progress.left_out()));
        errno = error;
        return status;
    }

    // Like unpack(), but prints the message and hints for a failure. Returns kExitOk or another
    // exit status.
    int unpack_or_report(const std::string& bundle, unsigned option, Progress& progress) const
    {
        return unpack(bundle, option, progress) == OK ? static_cast<int>(kExitOk)
                                                      : report(errno, option);
    }

    // After unpack() has failed with `error`: unpacks a flattened tree if the layers are shared
    // with another bundle already, whose overlay device cannot belong to two. Otherwise reports the
    // failure.
    int unpack_tree_or_report(int error, const std::string& bundle, unsigned option,
                              Progress& progress) const
    {
        if (error != EEXIST || option != 0)
            return report(error, option);
        print_hint("the overlay device of this image exists already, for another bundle: the "
                   "layers are merged into one tree");
        return unpack_or_report(bundle, ZNC_OPT_FLATTEN, progress);
    }

    [[nodiscard]] int report(int error, unsigned option) const
    {
        const int status = local_failure(error, wanted_.label, kDamaged);
        print_hints(error, wanted_);
        if (error == EINVAL && option == 0)
            print_hint(fmt::format("the kernel cannot stack so many layers ({}); 'zncctl unpack "
                                   "--flatten' extracts them into one directory tree",
                                   layers_.paths().size()));
        return status;
    }

    // Completes the configuration of a bundle that was unpacked. If that fails, prints a message
    // and removes what was unpacked, from which the program would be started as another user.
    [[nodiscard]] int set_user(const std::string& bundle, bool existed) const
    {
        std::string problem;
        if (set_image_user(bundle, user_, problem))
            return kExitOk;
        for (const char* name : {"/config.json", "/.zn-layers", "/rootfs"})
            static_cast<void>(remove_bundle(bundle + name));
        if (!existed)
            static_cast<void>(remove_bundle(bundle));
        return failure(wanted_.label, problem);
    }

  private:
    // Without overlayfs the root is inside the bundle and not used by a container yet: the sticky
    // bits can be set at once.
    static bool keep_sticky(const std::string& bundle, const std::string& directories)
    {
        return annotate_sticky(bundle, directories) &&
               (zncOvlFsAvailable() != FALSE || set_sticky(bundle + "/rootfs", directories));
    }

    const Wanted& wanted_;
    std::string user_;
    std::string manifest_; // its digest
    std::string os_;
    std::string arch_;
    LayerFiles layers_;
    PrivateLayout layout_;
};

} // namespace

namespace {

// Unpacks an image, which is converted if the library refuses it as it is. Throws
// std::runtime_error.
int unpack_chosen(const Arguments& args, const Wanted& wanted, const Chosen& chosen,
                  const std::string& bundle, unsigned option, Progress& progress)
{
    const bool existed = ::access(bundle.c_str(), F_OK) == 0;
    const Unpacking unpacking(wanted, chosen);
    int status = kExitOk;
    if (unpacking.unpack(bundle, option, progress) != OK) {
        const int error = errno;
        if (!wanted.stored && may_need_import(error)) {
            Wanted other = wanted;
            Chosen converted = chosen;
            if (!convert_if_needed(args, true, other, converted))
                return kExitFailure;
            if (other.stored)
                return unpack_chosen(args, other, converted, bundle, option, progress);
        }
        status = unpacking.unpack_tree_or_report(error, bundle, option, progress);
    }
    return status == kExitOk ? unpacking.set_user(bundle, existed) : status;
}

} // namespace

int unpack_image(const Arguments& args, Wanted wanted, const std::string& bundle, unsigned option)
{
    Progress progress(args.value("progress", "auto"));
    if (!progress.known())
        return usage_failure(kProgressKinds);
    auto chosen = choose_image(args, wanted);
    if (!chosen || !convert_if_needed(args, wanted.check_layers, wanted, *chosen))
        return kExitFailure;
    print_notes(wanted, *chosen);
    try {
        return unpack_chosen(args, wanted, *chosen, bundle, option, progress);
    } catch (const std::runtime_error& error) {
        return failure(wanted.label, error.what());
    }
}

namespace {

// The directory name of a bundle made for one container: "of-" and the container's id. For an id
// that is too long, or that starts with "-" and could be taken for such a name, "of--" and its
// digest.
std::string private_name(const std::string& id)
{
    constexpr std::size_t kNameMax = 180;
    const std::string kept = kept_id(id);
    const bool plain = kept.size() <= kNameMax && !kept.starts_with('-');
    return plain ? "of-" + kept : "of--" + digest_of(kept).substr(kDigestPrefix);
}

// The directory name of a bundle that containers share. Its content is determined by the manifest,
// whose digest was verified, and by whether the image's mounts are allowed.
std::string shared_name(const Arguments& args, const Image& image)
{
    return fmt::format("image-{}{}", image.manifest.digest.substr(kDigestPrefix),
                       args.has("allow-image-mounts") ? "-mounts" : "");
}

// Whether the shared bundle of the image exists. Then the image need not be examined.
bool is_unpacked(const Arguments& args, const Chosen& chosen)
{
    return is_complete(fmt::format("{}/{}", bundle_area(), shared_name(args, chosen.image)));
}

bool unpack_bundle(const Arguments& args, const Wanted& wanted, const Unpacking& unpacking,
                   const std::string& bundle, bool shared)
{
    if (!remove_bundle(bundle)) {
        static_cast<void>(local_failure(errno, bundle));
        return false;
    }
    Progress progress(args.value("progress", "auto"));
    bool done = shared && unpacking.unpack(bundle, 0, progress) == OK;
    if (!done) {
        // The overlay device of the image may exist already, for a bundle in another place, or the
        // image may have more layers than the kernel can stack. A flattened tree needs no device.
        const unsigned option =
            shared && (errno == EEXIST || errno == EINVAL) ? ZNC_OPT_FLATTEN : 0;
        done = unpacking.unpack_or_report(bundle, option, progress) == kExitOk;
    }
    if (!done)
        return false;
    if (write_image_of_bundle(bundle, unpacking.manifest()) && mark_complete(bundle, true))
        return true;
    static_cast<void>(failure(wanted.label, fmt::format("{}: {}", bundle, error_text())));
    return false;
}

} // namespace

namespace {

// Locks the name of the bundle for this container. The bundle of a container that exists must not
// be replaced. Nullopt after printing a message.
std::optional<std::string> lock_own(const std::string& id, NewBundle& bundle)
{
    const std::string area = bundle_area();
    if (!bundle.in_use)
        bundle.in_use.emplace(area);
    const std::string name = private_name(id);
    bundle.lock.emplace(area, name);
    std::string own = fmt::format("{}/{}", area, name);
    if (::access(own.c_str(), F_OK) != 0 && errno == ENOENT)
        return own; // if the container exists, it has another bundle, and cannot be created
    const bool exists = status_of(id) != STATE_UNKNOWN;
    if (!exists && (errno == ENODEV || errno == S_zncLib_DAEMON_NOT_RUNNING))
        return own;
    static_cast<void>(daemon_failure(exists ? S_zncLib_CONTAINER_EXISTS : errno, id));
    return std::nullopt;
}

// The bundle that all containers of the image share, unpacked if necessary; "" after printing a
// message.
std::string shared_bundle(const Arguments& args, const Wanted& wanted, const Chosen& chosen)
{
    const std::string area = bundle_area();
    const std::string name = shared_name(args, chosen.image);
    std::string bundle = fmt::format("{}/{}", area, name);
    if (is_complete(bundle))
        return bundle;
    // Open all files of the image's layout before taking the lock, so that other processes need not
    // wait for that.
    const Unpacking unpacking(wanted, chosen);
    const BundleLock lock(area, name);
    return is_complete(bundle) || unpack_bundle(args, wanted, unpacking, bundle, true) ? bundle
                                                                                       : "";
}

// Makes the configuration of a container's own bundle. Leaves no incomplete bundle.
void finish_own(const std::string& own, const std::string& source, const NewContainer& container,
                const Json* image)
{
    try {
        make_container_bundle(own, source, container, image);
        // Not on disk yet: a container does not survive a crash of the machine, and its bundle is
        // made anew before another container gets this name.
        if (!is_complete(own) && !mark_complete(own, false))
            throw_error(own);
    } catch (const std::runtime_error&) {
        static_cast<void>(remove_bundle(own));
        throw;
    }
}

// The bundle of an image for a container; "" after printing a message.
std::string own_bundle_of_image(const Arguments& args, const Wanted& wanted, const Chosen& chosen,
                                const NewContainer& container, NewBundle& bundle)
{
    const Json no_settings = Json::object();
    const Json* found = member(chosen.settled.document, "config");
    const Json* image = found != nullptr ? found : &no_settings;
    bundle.in_use.emplace(bundle_area());
    if (zncOvlFsAvailable() == FALSE) {
        const Unpacking unpacking(wanted, chosen);
        const auto own = lock_own(container.id, bundle);
        if (!own || !unpack_bundle(args, wanted, unpacking, *own, false))
            return "";
        finish_own(*own, *own, container, image);
        return *own;
    }
    const std::string source = shared_bundle(args, wanted, chosen);
    const auto own = source.empty() ? std::nullopt : lock_own(container.id, bundle);
    if (!own)
        return "";
    if (!remove_bundle(*own))
        throw_error(*own);
    finish_own(*own, source, container, image);
    return *own;
}

} // namespace

bool bundle_of_image(const Arguments& args, Wanted wanted, const NewContainer& container,
                     NewBundle& bundle)
{
    if (!is_container_id(container.id)) {
        static_cast<void>(local_failure(EINVAL, container.id));
        return false;
    }
    auto chosen = choose_image(args, wanted);
    if (!chosen)
        return false;
    try {
        if (!is_unpacked(args, *chosen) && !convert_if_needed(args, true, wanted, *chosen))
            return false;
        print_notes(wanted, *chosen);
        bundle.path = own_bundle_of_image(args, wanted, *chosen, container, bundle);
    } catch (const std::runtime_error& error) {
        static_cast<void>(failure(wanted.label, error.what()));
    }
    return !bundle.path.empty();
}

bool bundle_of_bundle(const std::string& source, const NewContainer& container, NewBundle& bundle)
{
    const ContainerOptions& options = container.options;
    bundle.path = source;
    if (container.network.kind == NetworkKind::kConfigured && !options.changes_configuration() &&
        !(container.started_later && (options.tty || options.interactive || options.remove)))
        return true;
    // Without overlayfs a bundle is for one container only. The daemon checks that by its path.
    if (zncOvlFsAvailable() == FALSE) {
        static_cast<void>(failure(source, "without overlayfs, only the bundle's configuration "
                                          "decides about the container: options cannot be used"));
        return false;
    }
    const znc::MallocPtr<char> path(::realpath(source.c_str(), nullptr));
    if (path == nullptr || !is_container_id(container.id)) {
        static_cast<void>(local_failure(path == nullptr ? errno : EINVAL, source));
        return false;
    }
    try {
        const auto own = lock_own(container.id, bundle);
        if (!own)
            return false;
        if (!remove_bundle(*own))
            throw_error(*own);
        finish_own(*own, path.get(), container, nullptr);
        bundle.path = *own;
        return true;
    } catch (const std::runtime_error& error) {
        static_cast<void>(failure("", error.what()));
        return false;
    }
}

std::string own_bundle(const std::string& id)
{
    return is_container_id(id) ? own_bundle(id, storage_base()) : "";
}

std::string own_bundle(const std::string& id, const std::string& base)
{
    if (!is_container_id(id))
        return "";
    std::string own = fmt::format("{}/bundles/{}", base, private_name(id));
    return is_complete(own) ? own : "";
}

bool bundle_of_container(const Arguments& args, const std::string& source,
                         const NewContainer& container, NewBundle& bundle)
{
    if (container.image.empty())
        return bundle_of_bundle(source, container, bundle);
    const auto image = fetch_as_needed(args, container.image);
    auto wanted = image ? find_image(args, image->c_str()) : std::nullopt;
    return wanted && bundle_of_image(args, std::move(*wanted), container, bundle);
}

} // namespace zncctl
