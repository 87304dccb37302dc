// layer_check.hpp - what the library's dry run of the extractor says of a layer's archive, in
// words. Used by image check.
#ifndef ZNCCTL_LAYER_CHECK_HPP
#define ZNCCTL_LAYER_CHECK_HPP

#include <string>
#include <vector>

namespace zncctl {

struct Finding {
    bool refused; // else left out or changed
    std::string what;
    std::size_t count;
    std::string first; // the member it was first seen at, "" for the archive itself
};

// `digest`: of the file; `diff_id`: of the plain archive, "" when it is not known.
std::vector<Finding> check_layer(const std::string& path, const std::string& digest,
                                 const std::string& diff_id);

} // namespace zncctl

#endif
