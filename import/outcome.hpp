// outcome.hpp - the result that the worker process sends to the process which writes the layout:
// one JSON document through a pipe, with the new image or an error. Used by import.cpp.
#ifndef ZNCIMPORT_OUTCOME_HPP
#define ZNCIMPORT_OUTCOME_HPP

#include "import/output/image_config.hpp"

namespace zncimport {

struct Outcome {
    std::vector<NewLayer> layers; // in the order of the files given to the worker
    std::string config;           // the document, exactly as it is to be written
    std::string manifest;
    std::string tag; // the tag of the source image, "" for none
    std::string os;
    std::string arch;
    std::string variant;
    std::uint64_t losses = 0;
    std::string summary; // one line about losses and changes, or ""
    std::string report;  // the document of --report
};

std::string write_outcome(const Outcome& outcome);
std::string write_failure(const Failure& failure);
std::string write_list(const std::vector<SourceImage>& images);

// Parses what the worker wrote; if that is an error, throws it. The text is not trusted: invalid
// digests and numbers throw Failure.
Outcome read_outcome(const std::string& text);

// The same for a list of images: an array of objects with "names", "os", "architecture", "variant",
// "digest" (of the manifest), "rootfs" (whether it is a plain root filesystem) and "problem". All
// are strings, except for "names" (an array) and "rootfs" (a boolean).
zncctl::Json read_list(const std::string& text);

} // namespace zncimport

#endif
