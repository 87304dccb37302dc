// source_kinds.hpp - the three kinds of sources, and what those with manifests share. Used by
// source.cpp.
#ifndef ZNC_IMPORT_SOURCE_SOURCE_KINDS_HPP
#define ZNC_IMPORT_SOURCE_SOURCE_KINDS_HPP

#include "image_files.hpp"
#include "source.hpp"

namespace zncimport {

SourcePtr layout_source(ImageFilesPtr files, const Limits& limits);
SourcePtr docker_source(ImageFilesPtr files, const Limits& limits);
// The one layer of a root filesystem: an archive, or nothing for the directory itself.
SourcePtr rootfs_source(std::optional<FilePart> archive);

// A document that must be an object (or an array). Throws Failure.
zncctl::Json parse_document(const std::string& text, const std::string& name, bool array = false,
                            zncctl::JsonNotes* notes = nullptr);

// Takes the platform and the layers' plain digests from the configuration, where they fit; says in
// `problem` if they do not.
void read_config(SourceImage& image, const std::string& text, const std::string& name);

} // namespace zncimport

#endif
