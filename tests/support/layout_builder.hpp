// layout_builder.hpp - writes OCI image layouts for tests: complete images in one call, or blob by
// blob so that any document can be made invalid in any way.
#ifndef LAYOUT_BUILDER_HPP
#define LAYOUT_BUILDER_HPP

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace layout {

namespace fs = std::filesystem;

inline constexpr char kManifestType[] = "application/vnd.oci.image.manifest.v1+json";
inline constexpr char kIndexType[] = "application/vnd.oci.image.index.v1+json";
inline constexpr char kConfigType[] = "application/vnd.oci.image.config.v1+json";
inline constexpr char kLayerType[] = "application/vnd.oci.image.layer.v1.tar";

std::string sha256_hex(std::string_view bytes);
std::string sha512_hex(std::string_view bytes);
std::string raw_bytes(std::string_view hex); // decodes hexadecimal digits

// A temporary directory below /tmp, removed by the destructor.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    [[nodiscard]] const fs::path& path() const { return path_; }
    [[nodiscard]] std::string operator/(std::string_view name) const { return path_ / name; }

  private:
    fs::path path_;
};

// A ustar member. A directory's name ends with "/".
struct Member {
    std::string name;
    std::string content = {};
    char type = '0';
    std::string link = {};
    unsigned mode = 0644;
    long mtime = 1000000000;
};
Member directory(const std::string& name, unsigned mode = 0755);
Member symlink(const std::string& name, const std::string& target);

std::string tar(const std::vector<Member>& members);
std::string gzip(const std::string& bytes);

std::string read_file(const fs::path& path);
void write_file(const fs::path& path, std::string_view bytes);

std::string json_text(std::string_view text); // as a JSON string literal

// The parts of an image. Strings that contain JSON are marked; "" omits the member.
struct Image {
    std::vector<std::string> layers = {tar({{"file", "content"}})};
    std::string os = "zarnel";
    std::string arch = "amd64";
    std::string section = "{}"; // JSON: the configuration's "config"
    std::string
        config_extra; // JSON: more members of the configuration, each with its comma in front
    std::vector<std::string> diff_ids; // empty: those of the layers
    std::string name = "latest";       // the index entry's name; "": none
    std::string annotations_extra;     // JSON: more members of the entry's annotations
    std::string platform;              // JSON: the index entry's "platform"
    std::string layer_type = kLayerType;
};

class Layout {
  public:
    // Creates `dir` with "oci-layout" and an empty "blobs/sha256".
    explicit Layout(fs::path dir);

    [[nodiscard]] const fs::path& dir() const { return dir_; }
    [[nodiscard]] const char* c_str() const { return dir_.c_str(); }
    [[nodiscard]] fs::path blob(const std::string& digest) const;

    // Stores a blob and returns its digest ("sha256:...").
    std::string add_blob(std::string_view bytes) const;
    // Stores a blob and returns its descriptor: {"mediaType":..., "digest":..., "size":...}.
    std::string add_described(std::string_view bytes, const std::string& type) const;

    // Adds the image and its index entry, and writes the index.
    void add(const Image& image);
    // As above, from documents made by the caller.
    void add_manifest(const std::string& manifest, const std::string& entry_extra = "");
    void add_entry(const std::string& entry);
    void write_index(const std::string& schema_version = "2") const;

    std::string config_json(const Image& image) const;
    std::string manifest_json(const std::string& config_descriptor,
                              const std::vector<std::string>& layer_descriptors) const;

  private:
    fs::path dir_;
    std::vector<std::string> entries_;
};

std::string descriptor(const std::string& type, const std::string& digest, std::size_t size,
                       const std::string& extra = "");

} // namespace layout

#endif
