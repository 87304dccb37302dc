// container_notes.hpp - data about a container that zncctl stores when it creates it and the daemon
// does not have: its image, its published ports and how its program is to be started. Kept in the
// bundle that was made for the container; containers that use a bundle of the user have none.
#ifndef ZNC_CLI_CONTAINERS_CONTAINER_NOTES_HPP
#define ZNC_CLI_CONTAINERS_CONTAINER_NOTES_HPP

#include <ctime>
#include <string>
#include <vector>

namespace zncctl {

struct ContainerNotes {
    std::string image;              // as the user named it; "": made from a bundle
    std::vector<std::string> ports; // "0.0.0.0:8080->80/tcp"
    std::time_t created = 0;        // 0: unknown
    bool tty = false;
    bool interactive = false;
    bool remove = false; // delete the container when its program has ended
};

// Writes the notes into the directory of a bundle. False with errno set.
bool write_notes(int bundle, const ContainerNotes& notes);

// The notes in a bundle; empty ones if there are none.
ContainerNotes read_notes(const std::string& bundle);

} // namespace zncctl

#endif
