// outcome.hpp - what the process that reads the image tells the one that writes the layout: one
// JSON document through a pipe, an image or an error. Used by import.cpp.
#ifndef ZNCIMPORT_OUTCOME_HPP
#define ZNCIMPORT_OUTCOME_HPP

#include "import/output/image_config.hpp"

namespace zncimport {

struct Outcome {
    std::vector<NewLayer> layers; // in the order of the files that were given for them
    std::string config;           // documents as they are to be written
    std::string manifest;
    std::string tag; // the source's own name for the image, "" for none
    std::string os;
    std::string arch;
    std::string variant;
    std::uint64_t losses = 0;
    std::string summary; // of losses and changes, a line, or ""
    std::string report;  // the document of --report
};

std::string write_outcome(const Outcome& outcome);
std::string write_failure(const Failure& failure);

// What one of the two wrote; a failure is thrown. Nothing of it is trusted: digests and numbers
// that are none are a Failure.
Outcome read_outcome(const std::string& text);

} // namespace zncimport

#endif
