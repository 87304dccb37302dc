// storage_use.hpp - everything kept under the storage base and what of it is in use: what
// containers use is known here, what bundles need the library knows. Used by storage df and storage
// gc.
#ifndef ZNC_CLI_CONTAINERS_STORAGE_USE_HPP
#define ZNC_CLI_CONTAINERS_STORAGE_USE_HPP

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

// What containers use: their bundles and roots, and the directories below their overlay devices.
// Nothing with errno set when the daemon gives no list of its containers.
std::optional<std::vector<std::string>> used_by_containers();

// Has the library remove what neither the bundles that it knows nor `used` need, or, in a dry run,
// only tell; false with errno set when not all of it could be done. `removed` is what it was.
bool collect(std::vector<std::string> used, bool dryRun, std::vector<Stored>& removed);

// What there is, and whether it is in use.
std::optional<std::vector<Stored>> stored();

const char* name_of(StoredKind kind);

} // namespace zncctl

#endif
