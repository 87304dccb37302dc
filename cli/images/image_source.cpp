#include "image_source.hpp"

#include "archive_copy.hpp"
#include "front/blob.hpp"
#include "front/escape.hpp"
#include "front/files.hpp"
#include "front/output.hpp"
#include "helper_program.hpp"
#include "image_adder.hpp"
#include "image_lookup.hpp"
#include "reference.hpp"
#include "wanted_platform.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fmt/format.h>
#include <stdexcept>
#include <unistd.h>

#include "zncontainer.h"

namespace zncctl {
namespace {

constexpr const char* kMayNeedImport = "the image may have to be imported";
constexpr const char* kLayoutPrefix = "oci:";
constexpr const char* kArchivePrefixes[] = {"oci-archive:", "docker-archive:"};

std::string os_of(const Arguments& args)
{
    return wanted_platform(args).os.value_or("");
}

std::string arch_of(const Arguments& args)
{
    return wanted_platform(args).arch.value_or(host_arch());
}

// Converts an entry of the store to a Wanted.
Wanted wanted_stored(const StoredImage& image, std::string label,
                     std::shared_ptr<BundlesInUse> in_use)
{
    return {{image_area(), image.name}, image.os,       image.arch,
            std::move(label),           image.manifest, std::move(in_use)};
}

// The stored image whose source has this digest; nullopt if there is none.
std::optional<Wanted> find_made_from(const std::string& source, const std::string& label)
{
    auto in_use = std::make_shared<BundlesInUse>(image_area());
    for (const StoredImage& image : stored_images())
        if (image.source == source && read_stored(image_area(), image).problem.empty())
            return wanted_stored(image, label, std::move(in_use));
    return std::nullopt;
}

// Like find_made_from(), but imports the image if there is none. Concurrent processes wait for the
// first. Nullopt after printing a message.
std::optional<Wanted> find_or_make(const ImportSource& what, const std::string& source,
                                   const std::string& label)
{
    if (auto wanted = find_made_from(source, label))
        return wanted;
    const BundleLock lock(image_area(), std::string(id_digits(source)));
    if (auto wanted = find_made_from(source, label))
        return wanted;
    auto in_use = std::make_shared<BundlesInUse>(image_area());
    const Added added = add_converted(what, {}, source);
    if (added.status != kExitOk)
        return std::nullopt;
    return wanted_stored(added.image, label, std::move(in_use));
}

// The image of an archive, which is imported into the store unless that was done before.
std::optional<Wanted> find_in_archive(const Arguments& args, const std::string& prefix,
                                      const std::string& operand)
{
    const std::string rest = operand.substr(prefix.size());
    const std::size_t colon = rest.find(':');
    const std::string name = colon != rest.npos ? rest.substr(colon) : "";
    const std::string platform =
        wanted_platform(args).os ? fmt::format("{}/{}", os_of(args), arch_of(args)) : "";
    const ArchiveCopy archive(rest.substr(0, colon));
    const std::string source =
        digest_of(fmt::format("{}\n{}\n{}\n{}", prefix, name, platform, archive.digest()));
    ImportSource what = {fmt::format("{}-{}", prefix, name), archive.fd(), archive.name(),
                         usual_options()};
    if (!platform.empty())
        what.options.push_back("--platform=" + platform);
    return find_or_make(what, source, operand);
}

std::optional<Wanted> find_by_operand(const Arguments& args, const std::string& operand)
{
    if (is_layout_path(operand))
        return wanted_image(args, split_image_name(operand));
    if (operand.starts_with(kLayoutPrefix)) {
        const std::string layout = operand.substr(std::string_view(kLayoutPrefix).size());
        Wanted wanted = wanted_image(args, split_image_name(layout));
        wanted.check_layers = true;
        return wanted;
    }
    for (const char* prefix : kArchivePrefixes)
        if (operand.starts_with(prefix))
            return find_in_archive(args, prefix, operand);
    std::string problem;
    if (is_layout_below(operand) && find_stored(stored_images(), operand, problem).empty())
        return wanted_image(args, split_image_name(operand));
    return find_named(operand);
}

// Prints which other kinds of operands there are, after a name was not found.
void hint_at_sources(const std::string& text)
{
    const std::string directory = split_image_name(text).layout;
    if (znc::is_directory(directory.c_str()))
        print_hint(fmt::format("there is a directory of this name: the path of the layout in it is "
                               "./{}",
                               printable(text)));
    else
        print_hint("'zncctl images' lists the images of the store, 'zncctl pull' fetches one, and "
                   "the path of a layout begins with \"/\" or \"./\"");
}

} // namespace

Wanted wanted_image(const Arguments& args, ImageName image)
{
    std::string label = image.layout;
    return {std::move(image), os_of(args), arch_of(args), std::move(label)};
}

bool is_layout_path(const std::string& text)
{
    for (const char* start : {"/", "./", "../"})
        if (text.starts_with(start))
            return true;
    return text == "." || text == "..";
}

bool is_layout_below(const std::string& text)
{
    const std::string directory = split_image_name(text).layout;
    return directory.find('/') != directory.npos &&
           ::access((directory + "/oci-layout").c_str(), F_OK) == 0;
}

bool is_image_name(const std::string& operand)
{
    return !is_layout_path(operand) && !operand.starts_with(kLayoutPrefix) &&
           std::none_of(std::begin(kArchivePrefixes), std::end(kArchivePrefixes),
                        [&](const char* prefix) { return operand.starts_with(prefix); });
}

std::optional<Wanted> find_image(const Arguments& args, const char* operand)
try {
    return find_by_operand(args, operand);
} catch (const std::runtime_error& error) {
    static_cast<void>(failure(operand, error.what()));
    return std::nullopt;
}

std::optional<ShownLayout> layout_of(const Arguments& args, const char* operand)
try {
    auto wanted = find_by_operand(args, operand);
    if (!wanted)
        return std::nullopt;
    if (!wanted->stored) // the operand may have a tag after the path
        return ShownLayout{is_layout_path(operand) ? operand : wanted->image.layout, operand};
    ShownLayout shown = {"", operand, std::make_unique<ImageStage>(), wanted->in_use};
    shown.path = shown.stage->path();
    make_layout_of({wanted->image.tag, *wanted->stored, wanted->os, wanted->arch, ""}, shown.path);
    shown.names.emplace();
    for (const StoredImage& image : stored_images())
        if (image.manifest.digest == wanted->stored->digest && !image.name.empty())
            shown.names->push_back(image.name);
    return shown;
} catch (const std::runtime_error& error) {
    static_cast<void>(failure(operand, error.what()));
    return std::nullopt;
}

std::optional<Wanted> find_named(const std::string& text)
{
    auto in_use = std::make_shared<BundlesInUse>(image_area());
    const std::vector<StoredImage> images = stored_images();
    std::string problem;
    const auto found = find_stored(images, text, problem);
    if (found.empty()) {
        static_cast<void>(failure(text, problem, kExitNotFound));
        hint_at_sources(text);
        return std::nullopt;
    }
    const StoredImage& image = images[found[0]];
    return wanted_stored(image, image.name.empty() ? text : image.name, std::move(in_use));
}

void hint_at_import(const Wanted& wanted, const std::string& reason)
{
    if (wanted.stored) {
        print_hint(fmt::format("{}; 'zncctl image check {}' explains why", reason, wanted.label));
        return;
    }
    print_hint(fmt::format("{}: 'zncctl import {}:{} NEW-LAYOUT' converts it to an image that can "
                           "be unpacked completely; 'zncctl image check {}' explains why",
                           reason, wanted.image.layout, wanted.image.tag, wanted.image.layout));
}

bool may_need_import(int error)
{
    constexpr std::array kErrors = {0, EPERM, ENOENT, ENOTDIR, EFBIG, ENAMETOOLONG};
    return std::find(kErrors.begin(), kErrors.end(), error) != kErrors.end();
}

void print_hints(int error, const Wanted& wanted)
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
            "the overlay device of this image exists already: the image is unpacked, and its "
            "bundle can be used; 'zncctl storage gc' removes unused devices. Or another image with "
            "the same diff IDs but other layers is unpacked: one of the two has wrong diff IDs");
        break;
    default:
        if (may_need_import(error))
            hint_at_import(wanted, kMayNeedImport);
        break;
    }
}

namespace {

// Reports why a layout is rejected. If the library rejects it as well, the message is the
// library's; `refused`: only zncctl rejects it, for the reason in `problem`.
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
    print_hints(error, wanted);
    return status;
}

int no_such_image(const Wanted& wanted)
{
    const int status = local_failure(S_zncLib_PLATFORM_NOT_FOUND, wanted.label);
    print_hints(S_zncLib_PLATFORM_NOT_FOUND, wanted);
    return status;
}

// The documents of an image of a layout. Nullopt after printing a message.
std::optional<Image> image_of_layout(const Wanted& wanted)
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
        // Report a wrong size first: the library would read such a file to its end before it fails.
        const std::string size = size_problem(layout, *images);
        static_cast<void>(!size.empty()      ? failure(layout, size)
                          : image == nullptr ? no_such_image(wanted)
                                             : refuse_layout(wanted, image->problem, false));
        return std::nullopt;
    }
    return std::move(*image);
}

// The same for an image of the store, which must be for the platform that the options select.
std::optional<Image> image_of_store(const Arguments& args, const Wanted& wanted)
{
    Image image = read_image(wanted.image.layout, *wanted.stored);
    if (!image.problem.empty()) {
        static_cast<void>(failure(wanted.label, image.problem));
        return std::nullopt;
    }
    const WantedPlatform platform = wanted_platform(args);
    if (image.os != platform.os.value_or(image.os) ||
        image.arch != platform.arch.value_or(image.arch)) {
        static_cast<void>(local_failure(S_zncLib_PLATFORM_NOT_FOUND, wanted.label));
        print_hint(fmt::format("the image is for {}/{}", image.os, image.arch));
        return std::nullopt;
    }
    if (!platform.arch && image.arch != host_arch())
        print_warning(fmt::format("{}: the image is for {}, not for this machine ({})",
                                  wanted.label, image.arch, host_arch()));
    return image;
}

} // namespace

std::optional<Chosen> choose_image(const Arguments& args, const Wanted& wanted)
{
    auto image = wanted.stored ? image_of_store(args, wanted) : image_of_layout(wanted);
    if (!image)
        return std::nullopt;
    try {
        SettledConfiguration settled =
            filter_configuration(image->config_document, args.has("allow-image-mounts"));
        return Chosen{std::move(*image), std::move(settled)};
    } catch (const BadConfiguration& bad) {
        static_cast<void>(
            failure(wanted.label, fmt::format("its configuration is refused: {}", bad.what())));
        return std::nullopt;
    }
}

namespace {

// Whether an image must be, and can be, converted.
bool needs_conversion(const Wanted& wanted, const Image& image, bool check_layers)
{
    if (!check_layers && has_unpackable_types(image))
        return false;
    return fitness_of(wanted.image.layout, image) == Fitness::kConverted &&
           ::access(import_program().c_str(), X_OK) == 0;
}

} // namespace

bool convert_if_needed(const Arguments& args, bool check_layers, Wanted& wanted, Chosen& chosen)
try {
    if (wanted.stored)
        return true;
    const std::string& manifest = chosen.image.manifest.digest;
    // Do not use the digest of the manifest itself, by which pulled images are found: this source
    // must match only images that were converted here, from documents and layers that were compared
    // with their digests.
    const std::string source = digest_of(fmt::format("{}\n{}", kLayoutPrefix, manifest));
    const std::string label = wanted.label;
    auto made = find_made_from(source, label);
    if (!made) {
        if (!needs_conversion(wanted, chosen.image, check_layers))
            return true;
        const ImportSource what = {
            fmt::format("{}{}:{}", kLayoutPrefix, wanted.image.layout, manifest), -1, "",
            usual_options()};
        made = find_or_make(what, source, label);
    }
    auto converted = made ? choose_image(args, *made) : std::nullopt;
    if (!converted)
        return false;
    wanted = *std::move(made);
    chosen = *std::move(converted);
    return true;
} catch (const std::runtime_error& error) {
    static_cast<void>(failure(wanted.label, error.what()));
    return false;
}

void print_notes(const Wanted& wanted, const Chosen& chosen)
{
    constexpr std::size_t kShown = 20;
    const std::vector<std::string>& notes = chosen.settled.notes;
    for (std::size_t i = 0; i < std::min(notes.size(), kShown); i++)
        print_warning(fmt::format("{}: {}", wanted.label, notes[i]));
    if (notes.size() > kShown)
        print_warning(fmt::format("{}: and {} more; 'zncctl image check' lists all", wanted.label,
                                  notes.size() - kShown));
}

} // namespace zncctl
