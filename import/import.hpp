// import.hpp - the whole of an import: a process of few rights reads the image and writes new
// layers into files it was given; the caller's puts them into the layout. Used by main.cpp.
#ifndef ZNCIMPORT_IMPORT_HPP
#define ZNCIMPORT_IMPORT_HPP

#include "options.hpp"

namespace zncimport {

// The exit status. Throws Failure; the layout is then as it was.
int import_image(const Options& options);

} // namespace zncimport

#endif
