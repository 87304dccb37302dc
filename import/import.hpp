// import.hpp - a complete import: an unprivileged worker process reads the image and writes new
// layers into files that it is given; the calling process adds them to the layout. Used by
// main.cpp.
#ifndef ZNCIMPORT_IMPORT_HPP
#define ZNCIMPORT_IMPORT_HPP

#include "options.hpp"

namespace zncimport {

// Returns the exit status. Throws Failure; the layout is then unchanged.
int import_image(const Options& options);

} // namespace zncimport

#endif
