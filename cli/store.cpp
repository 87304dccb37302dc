#include "store.hpp"

#include "files.hpp"
#include "json.hpp"
#include "output.hpp"
#include "progress.hpp"

#include <array>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/file.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

namespace fs = std::filesystem;

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
            "can be used; 'zncctl storage gc' removes devices that nothing uses");
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

// Only one process at a time makes bundles of images.
class Turn {
  public:
    explicit Turn(const std::string& dir)
        : lock_(::open((dir + "/.lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600))
    {
        while (lock_ && ::flock(lock_.get(), LOCK_EX) != 0 && errno == EINTR) {
        }
    }

  private:
    znc::UniqueFd lock_;
};

STATUS unpack(const Wanted& wanted, const std::string& bundle, unsigned option, Progress& progress)
{
    const ZNC_BUNDLE_ATTR attr = {wanted.os.c_str(), wanted.arch.c_str()};
    zncUnpackProgressSet(progress.listener(), progress.context());
    const STATUS status = call_library([&] {
        return zncUnpack(bundle.c_str(), wanted.image.layout.c_str(), wanted.image.tag.c_str(),
                         option, &attr);
    });
    zncUnpackProgressSet(nullptr, nullptr);
    progress.end();
    if (status == OK && progress.left_out() != 0)
        hint_at_import(wanted, fmt::format("{} members of the image were left out or are marks of "
                                           "what it deletes",
                                           progress.left_out()));
    return status;
}

bool complete(const std::string& bundle)
{
    return fs::exists(bundle + "/config.json");
}

// An image that names no working directory means the root, and many name none. The library takes
// over what is named and creates no container without one. False, after a message, when it cannot
// be written.
bool give_working_directory(const std::string& bundle)
{
    const std::string file = bundle + "/config.json";
    const auto text = read_file(file);
    const Json config = text ? parse_json(*text) : nullptr;
    cJSON* const process = cJSON_GetObjectItemCaseSensitive(config.get(), "process");
    if (!cJSON_IsObject(process) || !text_of(process, "cwd").empty())
        return true;
    cJSON_DeleteItemFromObjectCaseSensitive(process, "cwd");
    add_text(process, "cwd", "/");
    if (replace_file(AT_FDCWD, file.c_str(), pretty(config.get())))
        return true;
    static_cast<void>(failure(file, error_text()));
    return false;
}

} // namespace

std::string storage_base()
{
    constexpr std::string_view kLayers = "/layers";
    std::array<char, 1024> path{};
    if (zncBasePathGet(path.data(), path.size(), ZNC_LAYER_PATH) == 0)
        throw std::runtime_error("the storage base cannot be made");
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
    if (unpack(wanted, bundle, option, progress) == OK)
        return kExitOk;
    const int error = errno;
    const int status = local_failure(error, wanted.image.layout, kDamaged);
    explain(error, wanted);
    return status;
}

namespace {

// In `area`, by whose turn it is.
std::optional<std::string> unpacked_bundle(const Arguments& args, const Wanted& wanted,
                                           const std::string& id, const std::string& area)
{
    std::string problem;
    const auto images = read_layout(wanted.image.layout, problem);
    const Image* image =
        images ? find_image(*images, wanted.image.tag, wanted.os, wanted.arch) : nullptr;
    const bool shared = image != nullptr && zncOvlFsAvailable() != FALSE;
    const std::string bundle =
        shared ? fmt::format("{}/image-{}", area,
                             image->manifest.digest.substr(image->manifest.digest.find(':') + 1))
               : fmt::format("{}/of-{}", area, id.substr(0, 250));
    if (shared && complete(bundle))
        return bundle;
    // What an unpack that was killed has left.
    if (fs::exists(bundle))
        zncImageBundleDelete(bundle.c_str());
    Progress progress(args.value("progress", "auto"));
    if (shared && unpack(wanted, bundle, 0, progress) == OK)
        return bundle;
    // The image's device may exist for a bundle elsewhere; a tree of its own does not need it.
    const unsigned option = shared && errno == EEXIST ? ZNC_OPT_FLATTEN : 0;
    if (unpack_image(args, wanted, bundle, option) == kExitOk)
        return bundle;
    return std::nullopt;
}

} // namespace

std::optional<std::string> bundle_of_image(const Arguments& args, const Wanted& wanted,
                                           const std::string& id)
{
    const std::string area = storage_base() + "/bundles";
    fs::create_directories(area);
    fs::permissions(area, fs::perms::owner_all);
    const Turn turn(area);
    auto bundle = unpacked_bundle(args, wanted, id, area);
    if (bundle && !give_working_directory(*bundle))
        bundle.reset();
    return bundle;
}

std::string own_bundle(const std::string& id)
{
    std::string own = fmt::format("{}/bundles/of-{}", storage_base(), id.substr(0, 250));
    return fs::exists(own) ? own : "";
}

} // namespace zncctl
