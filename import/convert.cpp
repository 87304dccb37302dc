#include "convert.hpp"

#include "front/files.hpp"
#include "import/merge/directory_tree.hpp"

#include <algorithm>

namespace zncimport {
namespace {

// Returns the members of a layer after verifying its size and digests.
std::vector<Entry> read_verified(Source& source, const Layer& layer, Spool& spool, Budget& budget)
{
    const ReaderPtr stored = source.open(layer);
    DigestReader blob(*stored);
    const ReaderPtr bytes = plain(blob, layer.name, budget);
    DigestReader diff(*bytes);
    ArchiveReader archive(diff, layer.name, budget);
    std::vector<Entry> entries = Merge::read_layer(archive, spool);
    diff.drain();
    blob.drain();
    if (layer.size >= 0 && blob.count() != static_cast<std::uint64_t>(layer.size))
        throw Failure(layer.name, "the blob does not have the size given in the manifest");
    if (!layer.digest.empty() && blob.digest() != layer.digest)
        throw Failure(layer.name, "the blob does not match its digest");
    if (!layer.diff_id.empty() && diff.digest() != layer.diff_id)
        throw Failure(layer.name, "the archive does not match the image's configuration");
    return entries;
}

struct Merged {
    Tree tree;
    std::size_t kept = 0; // number of lowest layers that can be kept as layers of their own
    std::size_t layers = 0;
};

Merged merge(const Options& options, Source& source, const SourceImage& image,
             const OpenedSource& opened, Spool& spool, Budget& budget, Report& report)
{
    Merge merge(options.limits, report);
    if (source.is_tree())
        merge.add_layer(read_directory(opened.fd.get(), spool, budget));
    else
        for (const Layer& layer : image.layers)
            merge.add_layer(read_verified(source, layer, spool, budget));
    Merged merged = {merge.finish(), 0, source.is_tree() ? 1 : image.layers.size()};
    while (merged.kept < std::min(merged.layers, kSplitMax) && !merge.touched(merged.kept))
        merged.kept++;
    return merged;
}

// Writes one layer. The archive is hashed (diff ID) and compressed, then hashed again (blob digest)
// and written to the file.
NewLayer write_layer(const Tree& tree, const Spool& spool, LayerRange range, Compressor compressor,
                     int file)
{
    NewLayer layer;
    znc::Digest blob;
    znc::Digest diff;
    GzipWriter gzip(compressor, [&](std::span<const std::byte> bytes) {
        blob.add(bytes.data(), bytes.size());
        layer.size += bytes.size();
        const auto* text = reinterpret_cast<const char*>(bytes.data());
        if (file >= 0 && !zncctl::write_all(file, {text, bytes.size()}))
            throw Failure("", "the new layer cannot be written: " + zncctl::error_text());
    });
    emit(
        tree, spool,
        [&](std::span<const std::byte> bytes) {
            diff.add(bytes.data(), bytes.size());
            gzip.write(bytes);
        },
        range);
    gzip.finish();
    layer.digest = zncctl::digest_text(blob);
    layer.diff_id = zncctl::digest_text(diff);
    return layer;
}

std::vector<NewLayer> write_layers(const Merged& merged, const Options& options, const Spool& spool,
                                   std::span<const int> files)
{
    std::vector<LayerRange> ranges;
    if (options.split)
        for (std::size_t i = 0; i < merged.kept; i++)
            ranges.push_back({i, i + 1});
    if (ranges.size() < std::max<std::size_t>(merged.layers, 1))
        ranges.push_back({ranges.size(), SIZE_MAX});
    std::vector<NewLayer> layers;
    for (const LayerRange& range : ranges) {
        const int file = files.empty() ? -1 : files[layers.size()];
        layers.push_back(write_layer(merged.tree, spool, range, options.compressor, file));
    }
    return layers;
}

// Returns the tag of an image name, the part after the last ":" unless that is a port:
// "registry:5000/app:1" has the tag "1". Returns "" for an invalid tag: the name is untrusted and
// is used as a command line argument.
std::string tag_of(const SourceImage& image)
{
    constexpr std::size_t kLongest = 128;
    constexpr const char* kAllowed =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz._-+";
    if (image.names.empty() || image.names.front().find('@') != std::string::npos)
        return "";
    const std::string& name = image.names.front();
    const std::size_t start = name.rfind(':') + 1; // npos wraps to 0
    if (start == 0 && name.find('/') != name.npos)
        return "";
    const std::string tag = name.substr(start);
    return tag.size() <= kLongest && tag.find_first_not_of(kAllowed) == tag.npos ? tag : "";
}

} // namespace

Outcome convert(const Options& options, const OpenedSource& opened, Spool& spool,
                std::span<const int> files)
{
    Budget budget(options.limits);
    Report report;
    const SourcePtr source = read_source(opened, spool, budget);
    std::vector<SourceImage> images = source->images();
    SourceImage& image = images[choose(images, options.wanted)];
    if (!image.problem.empty())
        throw Failure(image.names.empty() ? "" : image.names.front(), image.problem);
    Merged merged = merge(options, *source, image, opened, spool, budget, report);
    zncctl::Json config = settle_config(image, merged.tree, spool, options.config, report);
    prepare(merged.tree, options.emit, options.limits, report);

    Outcome outcome;
    outcome.layers = write_layers(merged, options, spool, files);
    outcome.os = zncctl::text_of(config, "os");
    outcome.arch = zncctl::text_of(config, "architecture");
    outcome.variant = zncctl::text_of(config, "variant");
    outcome.config = finish_config(std::move(config), outcome.layers);
    outcome.manifest = new_manifest(image, outcome.config, outcome.layers);
    outcome.tag = tag_of(image);
    outcome.losses = report.losses();
    outcome.summary = report.summary();
    if (!options.report.empty())
        outcome.report = zncctl::pretty(report.document());
    return outcome;
}

std::vector<SourceImage> list_source(const Options& options, const OpenedSource& opened,
                                     Spool& spool)
{
    Budget budget(options.limits);
    return read_source(opened, spool, budget)->images();
}

} // namespace zncimport
