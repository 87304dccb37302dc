// image_config.hpp - the new image's configuration and manifest, made from the source's. Used by
// import.cpp.
#ifndef ZNC_IMPORT_OUTPUT_IMAGE_CONFIG_HPP
#define ZNC_IMPORT_OUTPUT_IMAGE_CONFIG_HPP

#include "import/merge/report.hpp"
#include "import/merge/tree.hpp"
#include "import/source/source.hpp"

namespace zncimport {

struct NewLayer {
    std::string digest;  // of the compressed archive
    std::string diff_id; // of the uncompressed archive
    std::uint64_t size = 0;
};

struct ConfigOptions {
    std::string set_os; // "": keep that of the source
    std::string set_arch;
    // without it the creation time of the source is kept
    std::optional<std::int64_t> source_date_epoch;
    bool keep_user = false; // write the user as the source does
};

// Returns the image configuration without its layers: that of the source with the requested
// platform and what the library needs: an execution section, a working directory, numeric users,
// and no "Volumes" that the library would treat as host directories. Changes the tree where this
// preserves the meaning (directories for volumes), so call it before prepare().
zncctl::Json settle_config(const SourceImage& image, Tree& tree, const Spool& spool,
                           const ConfigOptions& options, Report& report);

// Returns the text of this document, completed with rootfs and history of the new layers.
std::string finish_config(zncctl::Json config, const std::vector<NewLayer>& layers);

// Returns the manifest with the annotations of the source, and the digest of the source's manifest
// as an additional annotation.
std::string new_manifest(const SourceImage& image, const std::string& config,
                         const std::vector<NewLayer>& layers);

} // namespace zncimport

#endif
