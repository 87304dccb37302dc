// image_layout_fuzz.cpp - the reader of image layouts, with all that is made of what it read but
// the extraction. The input is "oci-layout", "index.json" and the blobs, separated by the byte
// 0x1e; "@d2" in a text stands for the SHA-256 digest of piece 2 (the first blob), "@x2" for its
// SHA-512 digest, "@s2" for its size. Pieces are written last to first, so that each can name those
// behind it. Without its right digest no document gets past the reader.
#include "fuzz_input.hpp"
#include "memory_file.hpp"
#include "test_tree.hpp"

#include "layout_builder.hpp"
#include "zncImageLib.hpp"

#include <set>
#include <string>
#include <vector>

namespace {

using fuzz::require;

constexpr char kSeparator = '\x1e';
constexpr std::size_t kPiecesMax = 10;
constexpr std::size_t kFirstBlob = 2;

// The layout's directory. Blobs go when the next input comes.
class Directory {
  public:
    Directory()
    {
        std::filesystem::create_directories(path() + "/blobs/sha256");
        std::filesystem::create_directories(path() + "/blobs/sha512");
    }
    [[nodiscard]] const std::string& path() const { return dir_.path(); }
    void write(const std::string& name, const std::string& bytes)
    {
        test_tree::write_file(path() + "/" + name, bytes);
        written_.insert(path() + "/" + name);
    }
    void clear()
    {
        for (const std::string& name : written_)
            unlink(name.c_str());
        written_.clear();
    }

  private:
    test_tree::TempDir dir_;
    std::set<std::string> written_;
};

// What stands for the piece `index`, in the way that `kind` says; none for others.
std::string reference(char kind, std::size_t index, const std::vector<std::string>& pieces)
{
    if (index >= pieces.size())
        return {};
    if (kind == 'd')
        return "sha256:" + layout::sha256_hex(pieces[index]);
    if (kind == 'x')
        return "sha512:" + layout::sha512_hex(pieces[index]);
    return kind == 's' ? std::to_string(pieces[index].size()) : std::string();
}

std::string resolved(const std::string& text, const std::vector<std::string>& pieces)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string stands;
        if (text[i] == '@' && i + 2 < text.size())
            stands = reference(text[i + 1], static_cast<std::size_t>(text[i + 2] - '0'), pieces);
        if (stands.empty()) {
            out += text[i];
        } else {
            out += stands;
            i += 2;
        }
    }
    return out;
}

std::vector<std::string> pieces_of(fuzz::Input& input)
{
    std::vector<std::string> pieces;
    while (!input.empty() && pieces.size() < kPiecesMax)
        pieces.emplace_back(input.until(kSeparator));
    for (std::size_t i = pieces.size(); i-- > 0;)
        pieces[i] = resolved(pieces[i], pieces);
    return pieces;
}

void write_layout(const std::vector<std::string>& pieces, Directory& directory)
{
    if (!pieces.empty())
        directory.write("oci-layout", pieces[0]);
    if (pieces.size() > 1)
        directory.write("index.json", pieces[1]);
    for (std::size_t i = kFirstBlob; i < pieces.size(); ++i) {
        directory.write("blobs/sha256/" + layout::sha256_hex(pieces[i]), pieces[i]);
        directory.write("blobs/sha512/" + layout::sha512_hex(pieces[i]), pieces[i]);
    }
}

// A blob that was accepted is a file in the directory of its algorithm.
void check_name(const char* file, const std::string& layout)
{
    std::string_view name = file;
    require(name.starts_with(layout + "/blobs/sha"), "blobs are in the layout");
    name.remove_prefix(layout.size() + std::string_view("/blobs/sha256/").size());
    require(name.find('/') == std::string_view::npos, "a digest is one name");
}

void check_image(OCI_IMAGE* image, const std::string& layout)
{
    require(image->manifestsCount > 0, "an index has a manifest");
    for (int i = 0; i < image->manifestsCount; ++i) {
        const ZNC_IMAGE_MANIFEST& manifest = image->manifests[i];
        check_name(manifest.manifestFileName, layout);
        check_name(manifest.manifestConfig.configFileName, layout);
        for (int k = 0; k < manifest.manifestLayersCount; ++k)
            check_name(manifest.manifestLayers[k].layerFileName, layout);
    }
}

void use_image(OCI_IMAGE* image)
{
    image->manifestsIndex = zncImageFindManifest(image, "zarnel", "amd64", "latest");
    if (image->manifestsIndex < 0)
        image->manifestsIndex = image->manifestsCount - 1;
    char chain[znc::kChainIdTextLen] = {};
    if (zncImageGetStringChainID(image, chain) == OK)
        require(std::string_view(chain).size() == znc::kChainIdTextLen - 1,
                "a chain identifier has its length");
    const znc::CJsonPtr root(cJSON_CreateObject());
    static_cast<void>(zncCreateOciBundleConfigProcess(image, root.get()));
    static_cast<void>(zncCreateOciBundleConfigMounts(image, root.get()));
    static_cast<void>(zncCreateOciBundleConfigAnnotations(image, root.get()));
    static_cast<void>(zncCreateOciBundleConfigZarnel(image, root.get()));
    const znc::CJsonText printed(cJSON_PrintUnformatted(root.get()));
    require(printed != nullptr, "a configuration can be printed");
}

void inspect(const std::string& layout, bool readable)
{
    const znc::CJsonPtr array(cJSON_CreateArray());
    const int result = zncImageInspect(layout.c_str(), array.get());
    require((result == 0) == readable, "what can be read can be shown");
    require(readable || array->child == nullptr, "nothing is shown of what cannot be read");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Directory directory;
    const fuzz::DescriptorCount descriptors;
    directory.clear();
    fuzz::Input input(data, size);
    write_layout(pieces_of(input), directory);
    {
        const znc::OciImagePtr image(zncImageInfoCreate());
        image->ociPath = directory.path().c_str();
        const bool readable = zncImageParse(image.get()) == OK;
        if (readable) {
            check_image(image.get(), directory.path());
            use_image(image.get());
        }
        inspect(directory.path(), readable);
    }
    descriptors.check();
    return 0;
}
