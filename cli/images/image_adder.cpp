#include "image_adder.hpp"

#include "front/blob.hpp"
#include "front/files.hpp"
#include "front/output.hpp"
#include "helper_program.hpp"
#include "layer_check.hpp"
#include "private_layout.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <set>
#include <stdexcept>

namespace zncctl {
namespace {

constexpr const char* kMade = "/made";

StoredImage entry_of(const Image& image, const std::string& source)
{
    return {"", image.manifest, image.os, image.arch, source};
}

void put_names(StoreChange& change, StoredImage& image, const std::vector<std::string>& names)
{
    change.put(image, names);
    image.name = names.empty() ? "" : names.back();
    change.save();
}

// Moves a verified image from a layout into the store.
Added adopt(const std::string& layout, const Image& image, const std::vector<std::string>& names,
            const std::string& source)
{
    Added added;
    added.image = entry_of(image, source);
    added.id = image.config.digest;
    StoreChange change;
    change.adopt(layout, image);
    put_names(change, added.image, names);
    return added;
}

// Whether the layers exist and have the right sizes.
bool has_blobs(const std::string& area, const Image& image)
try {
    const LayerFiles layers(area, image);
    return true;
} catch (const std::runtime_error&) {
    return false;
}

// Gives names to the image that was made from `source`, if the store has one with all its blobs.
std::optional<Added> add_names(const std::string& source, const std::vector<std::string>& names)
{
    StoreChange change;
    const std::string area = image_area();
    for (const StoredImage& stored : change.images()) {
        if (stored.source != source)
            continue;
        const Image image = read_stored(area, stored);
        if (!image.problem.empty() || !has_blobs(area, image))
            continue;
        Added added;
        added.image = stored;
        added.id = image.config.digest;
        put_names(change, added.image, names);
        return added;
    }
    return std::nullopt;
}

// The only image of a layout. Throws std::runtime_error.
Image only_image(const std::string& layout)
{
    std::string problem;
    auto images = read_layout(layout, problem);
    if (images && images->size() != 1)
        problem = fmt::format("it holds {} images", images->size());
    else if (images)
        problem = images->front().problem;
    if (!problem.empty())
        throw std::runtime_error(problem);
    Image image = std::move(images->front());
    return image;
}

// Whether a finding does not call for a conversion, because that would not change it.
bool is_kept(const Finding& finding)
{
    return finding.what == kModeFinding || finding.what == kOwnerFinding;
}

bool is_damage(const Finding& finding)
{
    return finding.what == kDiffIdFinding || finding.what == kHeaderFinding ||
           finding.what == kCutFinding || finding.what.ends_with(kContentFinding);
}

Fitness fitness_of_layer(const std::string& layout, const Descriptor& layer,
                         const std::string& diff_id)
{
    const znc::UniqueFd file = open_regular(blob_path(layout, layer.digest));
    if (!file || !size_problem(file.get(), layer.digest, layer.size).empty())
        return Fitness::kDamaged;
    // Use the path of the descriptor: the file's name may refer to another file by now.
    const auto findings = check_layer(descriptor_path(file.get()), layer.digest, diff_id);
    if (std::any_of(findings.begin(), findings.end(), is_damage))
        return Fitness::kDamaged;
    return std::all_of(findings.begin(), findings.end(), is_kept) ? Fitness::kPlain
                                                                  : Fitness::kConverted;
}

} // namespace

int import_failure(int error)
{
    errno = error;
    const int status = failure(import_program(), error_text());
    if (error == ENOENT)
        print_hint("it is part of the package zncontainer-import");
    return status;
}

Added add_converted(const ImportSource& what, const std::vector<std::string>& names,
                    const std::string& source)
{
    const ImageStage stage;
    const std::string layout = stage.path() + kMade;
    std::vector<std::string> arguments = {"--quiet", "--split", "--keep-user"};
    arguments.insert(arguments.end(), what.options.begin(), what.options.end());
    if (!what.input_name.empty())
        arguments.push_back("--source-name=" + what.input_name);
    arguments.insert(arguments.end(), {"--", what.operand, layout + ":new"});
    const ProgramEnd end = run_program(import_program(), arguments, what.input, Output::kDiscarded);
    Added failed;
    if (end.error != 0) {
        failed.missing = end.error == ENOENT;
        failed.status = import_failure(end.error);
        return failed;
    }
    failed.status = end.status;
    return end.status == kExitOk ? adopt(layout, only_image(layout), names, source) : failed;
}

Added add_layout(const std::string& layout, const std::vector<std::string>& names,
                 std::string source)
{
    std::string problem;
    const auto images = read_layout(layout, problem);
    const bool single = images && images->size() == 1;
    if (single && source.empty())
        source = images->front().manifest.digest;
    if (single && images->front().problem.empty() &&
        fitness_of(layout, images->front()) == Fitness::kPlain)
        return adopt(layout, images->front(), names, source);
    // If `source` is the digest of an index, it does not show which of its images was converted
    // before.
    const bool is_manifest = single && source == images->front().manifest.digest;
    if (auto known = is_manifest ? add_names(source, names) : std::nullopt)
        return *std::move(known);
    // Pass the path without a prefix: then a ":" in it is not taken for a separator.
    return add_converted({layout, -1, "", usual_options()}, names, source);
}

Fitness fitness_of(const std::string& layout, const Image& image)
{
    if (!has_unpackable_types(image))
        return Fitness::kConverted;
    const Json& ids =
        children(any_case_member(any_case_member(image.config_document, "rootfs"), "diff_ids"));
    if (ids.size() != image.layers.size())
        return Fitness::kDamaged;
    std::set<std::string> seen; // a manifest may list the same layer twice
    auto id = ids.begin();
    Fitness fitness = Fitness::kPlain;
    for (const Descriptor& layer : image.layers) {
        const std::string* said = text(&*id++);
        if (said == nullptr || said->empty())
            return Fitness::kDamaged;
        if (!seen.insert(layer.digest + *said).second)
            continue;
        const Fitness of_layer = fitness_of_layer(layout, layer, *said);
        if (of_layer == Fitness::kDamaged)
            return of_layer;
        fitness = of_layer == Fitness::kConverted ? of_layer : fitness;
    }
    return fitness;
}

} // namespace zncctl
