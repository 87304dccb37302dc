// options.hpp - the options of an import, from the parsed command line. Used by main.cpp and
// import.cpp.
#ifndef ZNCIMPORT_OPTIONS_HPP
#define ZNCIMPORT_OPTIONS_HPP

#include "front/command.hpp"
#include "import/output/gzip_writer.hpp"
#include "import/output/image_config.hpp"
#include "import/source/source.hpp"

namespace zncimport {

struct Options {
    SourceName source;
    std::string source_name = "standard input"; // for messages, if that is the source
    Wanted wanted;
    std::string layout;
    std::string tag; // "": the tag of the source image, or the default
    bool replace = false;
    bool split = false;
    bool strict = false;
    bool dry_run = false;
    bool list = false;
    bool quiet = false;
    std::string report; // path of a file, "" for none
    Compressor compressor = Compressor::kIsal;
    EmitOptions emit;
    ConfigOptions config;
    Limits limits;
};

// Throws Failure (usage) for invalid values.
Options read_options(const zncctl::Arguments& args);

} // namespace zncimport

#endif
