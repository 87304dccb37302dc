#include "image_bundle.hpp"

#include "bundle_area.hpp"
#include "front/blob.hpp"
#include "front/container_id.hpp"
#include "front/files.hpp"
#include "front/output.hpp"
#include "front/progress.hpp"
#include "image_settings.hpp"
#include "private_layout.hpp"
#include "sticky.hpp"
#include "zarnel/path_trust.h"

#include <array>
#include <fmt/format.h>
#include <stdexcept>

#include "zncontainer.h"

namespace zncctl {
namespace {

constexpr std::size_t kDigestPrefix = 7; // "sha256:"
constexpr const char* kMayNeedImport = "the image may have to be imported";
constexpr const char* kDamaged = "A layer of the image is damaged or a path is too long";

void hint_at_import(const Wanted& wanted, const std::string& reason)
{
    print_hint(fmt::format("{}: 'zncctl import {}:{} NEW-LAYOUT' makes an image that can be "
                           "unpacked whole; 'zncctl image check {}' says why",
                           reason, wanted.image.layout, wanted.image.tag, wanted.image.layout));
}

// Hints at what is known to be behind a failed unpack.
void explain(int error, const Wanted& wanted)
{
    switch (error) {
    case S_zncLib_INDEX_INVALID:
    case S_zncLib_MANIFEST_INVALID:
    case S_zncLib_PLATFORM_NOT_FOUND:
        if (!hint_at_images(wanted.image.layout, wanted.image.tag, wanted.os, wanted.arch) &&
            error != S_zncLib_PLATFORM_NOT_FOUND)
            hint_at_import(wanted, kMayNeedImport);
        break;
    case EEXIST:
        print_hint(
            "the overlay device of this image exists already: it is unpacked, and its bundle "
            "can be used; 'zncctl storage gc' removes devices that nothing uses. Or another image "
            "with the same diff IDs and other layers is unpacked: one of the two is not what it "
            "says");
        break;
    case 0:
    case EPERM:
    case ENOENT:
    case ENOTDIR:
    case EFBIG:
    case ENAMETOOLONG:
        hint_at_import(wanted, kMayNeedImport);
        break;
    default:
        break;
    }
}

// An image as far as it is known before anything is unpacked.
struct Chosen {
    Image image;
    SettledConfiguration settled;
};

// An image for which the library would refuse its layout has the library's error; what is only
// refused here has a line of its own.
int refuse_layout(const Wanted& wanted, const std::string& problem, bool refused)
{
    const char* layout = wanted.image.layout.c_str();
    if (refused)
        return failure(layout, problem);
    const znc::MallocPtr<char> document(call_library([&] { return zncImageInfoGet(layout); }));
    if (document != nullptr || errno == 0)
        return failure(layout, problem);
    const int error = errno;
    const int status = local_failure(error, layout);
    explain(error, wanted);
    return status;
}

int no_such_image(const Wanted& wanted)
{
    const int status = local_failure(S_zncLib_PLATFORM_NOT_FOUND, wanted.image.layout);
    explain(S_zncLib_PLATFORM_NOT_FOUND, wanted);
    return status;
}

// Nothing after a message.
std::optional<Chosen> choose_image(const Arguments& args, const Wanted& wanted)
{
    const std::string& layout = wanted.image.layout;
    if (const int error = layout_error(layout); error != 0) {
        static_cast<void>(local_failure(error, layout));
        return std::nullopt;
    }
    std::string problem;
    bool refused = false;
    auto images = read_layout(layout, problem, &refused);
    if (!images) {
        static_cast<void>(refuse_layout(wanted, problem, refused));
        return std::nullopt;
    }
    Image* image = find_image(*images, wanted.image.tag, wanted.os, wanted.arch);
    if (image == nullptr || !image->problem.empty()) {
        // The library would read a file of another size to its end.
        const std::string size = size_problem(layout, *images);
        static_cast<void>(!size.empty()      ? failure(layout, size)
                          : image == nullptr ? no_such_image(wanted)
                                             : refuse_layout(wanted, image->problem, false));
        return std::nullopt;
    }
    try {
        SettledConfiguration settled =
            settle_configuration(image->config_document, args.has("allow-image-mounts"));
        return Chosen{std::move(*image), std::move(settled)};
    } catch (const BadConfiguration& bad) {
        static_cast<void>(
            failure(layout, fmt::format("its configuration is refused: {}", bad.what())));
        return std::nullopt;
    }
}

void say_notes(const Wanted& wanted, const Chosen& chosen)
{
    constexpr std::size_t kShown = 20;
    const std::vector<std::string>& notes = chosen.settled.notes;
    for (std::size_t i = 0; i < std::min(notes.size(), kShown); i++)
        print_warning(fmt::format("{}: {}", wanted.image.layout, notes[i]));
    if (notes.size() > kShown)
        print_warning(fmt::format("{}: and {} more; 'zncctl image check' lists all",
                                  wanted.image.layout, notes.size() - kShown));
}

// An image that is ready to be unpacked: the library sees nothing of the layout that it comes from
// but the layers, of which it compares the digests.
class Unpacking {
  public:
    Unpacking(const Wanted& wanted, const Chosen& chosen)
        : wanted_(wanted), layers_(wanted.image.layout, chosen.image),
          layout_(bundle_area(), chosen.image, layers_, chosen.settled.document)
    {
    }

    // OK, or ERROR with errno set.
    STATUS unpack(const std::string& bundle, unsigned option, Progress& progress) const
    {
        const ZNC_BUNDLE_ATTR attr = {wanted_.os.c_str(), wanted_.arch.c_str()};
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
                           fmt::format("{} members of the image were left out or are marks of "
                                       "what it deletes",
                                       progress.left_out()));
        errno = error;
        return status;
    }

    // The same; kExitOk, or a status after a message and what is known about the reason.
    int unpack_or_say(const std::string& bundle, unsigned option, Progress& progress) const
    {
        if (unpack(bundle, option, progress) == OK)
            return kExitOk;
        const int error = errno;
        const int status = local_failure(error, wanted_.image.layout, kDamaged);
        explain(error, wanted_);
        if (error == EINVAL && option == 0)
            print_hint(fmt::format("the kernel does not stack so many layers ({}); 'zncctl unpack "
                                   "--flatten' makes one tree of them",
                                   layers_.paths().size()));
        return status;
    }

  private:
    // A root of the bundle's own is no container's yet.
    static bool keep_sticky(const std::string& bundle, const std::string& directories)
    {
        return annotate_sticky(bundle, directories) &&
               (zncOvlFsAvailable() != FALSE || set_sticky(bundle + "/rootfs", directories));
    }

    const Wanted& wanted_;
    LayerFiles layers_;
    PrivateLayout layout_;
};

} // namespace

namespace {

// Why zncBasePathGet refused a directory, whose path it leaves in the buffer.
std::string base_problem(const char* path)
{
    const int error = errno;
    znPathTrust trust = {};
    if (error == EPERM && znPathTrusted(path, &trust) != OK && trust.fault[0] != '\0')
        return fmt::format("the storage base is refused: {}", trust.fault);
    errno = error;
    return fmt::format("the storage base cannot be made: {}: {}", path, error_text());
}

} // namespace

std::string storage_base()
{
    constexpr std::string_view kLayers = "/layers";
    std::array<char, 1024> path{};
    if (zncBasePathGet(path.data(), path.size(), ZNC_LAYER_PATH) == 0)
        throw std::runtime_error(base_problem(path.data()));
    std::string base = path.data();
    base.resize(base.size() - kLayers.size());
    return base;
}

Wanted wanted_image(const Arguments& args, ImageName image)
{
    return {std::move(image), args.value("os", kDefaultOs), args.value("arch", kDefaultArch)};
}

int unpack_image(const Arguments& args, const Wanted& wanted, const std::string& bundle,
                 unsigned option)
{
    Progress progress(args.value("progress", "auto"));
    if (!progress.known())
        return usage_failure("--progress is \"auto\", \"plain\", \"json\" or \"none\"");
    const auto chosen = choose_image(args, wanted);
    if (!chosen)
        return kExitFailure;
    say_notes(wanted, *chosen);
    try {
        return Unpacking(wanted, *chosen).unpack_or_say(bundle, option, progress);
    } catch (const std::runtime_error& error) {
        return failure(wanted.image.layout, error.what());
    }
}

namespace {

// The name of a container's own bundle. Ids may be as long as names: a long one has its digest
// here, and so has one that looks as such a name does.
std::string own_name(const std::string& id)
{
    constexpr std::size_t kMost = 180;
    const std::string kept = kept_id(id);
    const bool plain = kept.size() <= kMost && !kept.starts_with('-');
    return plain ? "of-" + kept : "of--" + digest_of(kept).substr(kDigestPrefix);
}

// The verified digest of the manifest names the bundle that containers share: what is in it is
// settled by that and by what images may ask for.
std::string shared_name(const Arguments& args, const Image& image)
{
    return fmt::format("image-{}{}", image.manifest.digest.substr(kDigestPrefix),
                       args.has("allow-image-mounts") ? "-mounts" : "");
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
        // The image's device may exist for a bundle elsewhere, or have more layers than the kernel
        // stacks; a tree of its own needs none.
        const unsigned option =
            shared && (errno == EEXIST || errno == EINVAL) ? ZNC_OPT_FLATTEN : 0;
        done = unpacking.unpack_or_say(bundle, option, progress) == kExitOk;
    }
    if (!done || mark_complete(bundle))
        return done;
    static_cast<void>(failure(wanted.image.layout, fmt::format("{}: {}", bundle, error_text())));
    return false;
}

} // namespace

std::optional<std::string> bundle_of_image(const Arguments& args, const Wanted& wanted,
                                           const std::string& id,
                                           std::optional<BundlesInUse>& in_use)
{
    if (!Progress(args.value("progress", "auto")).known()) {
        usage_failure("--progress is \"auto\", \"plain\", \"json\" or \"none\"");
        return std::nullopt;
    }
    if (!is_container_id(id)) {
        static_cast<void>(local_failure(EINVAL, id));
        return std::nullopt;
    }
    const auto chosen = choose_image(args, wanted);
    if (!chosen)
        return std::nullopt;
    say_notes(wanted, *chosen);
    const bool shared = zncOvlFsAvailable() != FALSE;
    try {
        const std::string area = bundle_area();
        in_use.emplace(area);
        const std::string name = shared ? shared_name(args, chosen->image) : own_name(id);
        std::string bundle = fmt::format("{}/{}", area, name);
        if (shared && is_complete(bundle))
            return bundle;
        // Everything of the image's layout is opened before anybody has to wait for this process.
        const Unpacking unpacking(wanted, *chosen);
        const BundleLock lock(area, name);
        if ((shared && is_complete(bundle)) ||
            unpack_bundle(args, wanted, unpacking, bundle, shared))
            return bundle;
    } catch (const std::runtime_error& error) {
        static_cast<void>(failure(wanted.image.layout, error.what()));
    }
    return std::nullopt;
}

std::string own_bundle(const std::string& id)
{
    if (!is_container_id(id))
        return "";
    std::string own = fmt::format("{}/bundles/{}", storage_base(), own_name(id));
    return is_complete(own) ? own : "";
}

} // namespace zncctl
