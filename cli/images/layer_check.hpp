// layer_check.hpp - reads a layer's archive as the extractor does, without writing anything, and
// says what it would refuse and what it would leave out. Used by image check.
#ifndef ZNC_CLI_IMAGES_LAYER_CHECK_HPP
#define ZNC_CLI_IMAGES_LAYER_CHECK_HPP

#include <string>
#include <vector>

namespace zncctl {

struct Finding {
    bool refused; // else left out or changed
    std::string what;
    std::size_t count;
    std::string first; // the member it was first seen at, "" for the archive itself
};

// `diff_id`: the digest of the plain archive, "" when it is not known.
std::vector<Finding> check_layer(const std::string& path, const std::string& diff_id);

} // namespace zncctl

#endif
