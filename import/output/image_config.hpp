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
    std::string diff_id; // of the plain one
    std::uint64_t size = 0;
};

struct ConfigOptions {
    std::string set_os; // "" as the source has it
    std::string set_arch;
    std::optional<std::int64_t> source_date_epoch; // else the source's own time is kept
};

// The image configuration without its layers: the source's with the platform as asked for and what
// the library needs: an execution section, a working directory, users as numbers, no "Volumes" that
// it would take for directories of the host. Changes the tree where that keeps the meaning; call it
// before prepare().
zncctl::Json settle_config(const SourceImage& image, Tree& tree, const Spool& spool,
                           const ConfigOptions& options, Report& report);

// That document with rootfs and history of the new layers, as it is to be written.
std::string finish_config(zncctl::Json config, const std::vector<NewLayer>& layers);

// The manifest with the source's annotations and the digest of the source's manifest as one more.
std::string new_manifest(const SourceImage& image, const std::string& config,
                         const std::vector<NewLayer>& layers);

} // namespace zncimport

#endif
