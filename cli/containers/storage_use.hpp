// storage_use.hpp - the contents of the storage base, and whether they are in use. This module
// determines what containers use; the library records what bundles need. Used by storage df and
// storage gc.
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
    std::uint64_t bytes; // disk usage; 0 for devices, which have no data of their own
    bool used;
};

// What containers use: their bundles, their roots, and the lower directories of their overlay
// devices. nullopt with errno set if the daemon sends no list of containers.
std::optional<std::vector<std::string>> used_by_containers();

// Removes, or in a dry run only lists, what is needed neither by `used` nor by the bundles that the
// library has recorded; false with errno set if that was not completely possible. `removed`
// receives what was removed.
bool collect(std::vector<std::string> used, bool dryRun, std::vector<Stored>& removed);

// Everything under the storage base, and whether it is in use.
std::optional<std::vector<Stored>> stored();

const char* name_of(StoredKind kind);

} // namespace zncctl

#endif
