// stored.hpp - everything kept under the storage base and what of it is in use. Used by storage df
// and storage gc.
#ifndef ZNCCTL_STORED_HPP
#define ZNCCTL_STORED_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zncctl {

enum class StoredKind { kLayer, kTree, kDevice, kBundle };

struct Stored {
    StoredKind kind;
    std::string path;
    std::uint64_t bytes; // on disk; 0 for devices, which only show what others hold
    bool used;
};

// What there is; `bundles` and those of all containers are in use, and so is all that they need.
// Nothing with errno set when the daemon gives no list of its containers.
std::optional<std::vector<Stored>> stored(const std::vector<std::string>& bundles);

const char* name_of(StoredKind kind);

} // namespace zncctl

#endif
