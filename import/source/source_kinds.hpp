// source_kinds.hpp - the three kinds of sources, and shared code for those with manifests. Used by
// source.cpp.
#ifndef ZNC_IMPORT_SOURCE_SOURCE_KINDS_HPP
#define ZNC_IMPORT_SOURCE_SOURCE_KINDS_HPP

#include "image_files.hpp"
#include "source.hpp"

namespace zncimport {

SourcePtr layout_source(ImageFilesPtr files, const Limits& limits);
SourcePtr docker_source(ImageFilesPtr files, const Limits& limits);
// A root filesystem: an archive, or, without a value, a directory.
SourcePtr rootfs_source(std::optional<FilePart> archive);

// Parses a document that must be an object, or an array if `array` is set. Throws Failure.
zncctl::Json parse_document(const std::string& text, const std::string& name, bool array = false,
                            zncctl::JsonNotes* notes = nullptr);

// Reads the platform and the diff IDs of the layers from the configuration. If they do not match
// the layers, sets `problem`.
void read_config(SourceImage& image, const std::string& text, const std::string& name);

} // namespace zncimport

#endif
