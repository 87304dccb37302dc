// containers.hpp - cleans up after a previous daemon at startup, or takes over its containers; ends
// all containers at shutdown, or leaves them. Used by main, on the daemon task.
#ifndef ZNCD_CONTAINERS_HPP
#define ZNCD_CONTAINERS_HPP

#include "zarnel/ns_keep.h"

namespace zncd {

// Whether another running daemon has the request queue open.
bool other_daemon_serves();

// Removes what a daemon that died left behind: its queue, its namespaces and all processes in them,
// the overlay devices and writable layers of its containers. Mounts the overlay devices of images
// again. Failures are logged and do not keep the daemon from serving.
// An earlier daemon's containers that were kept are ended too.
void recover(const znKeepManager& manager);

// The same for a daemon that keeps its containers: takes over those that an earlier daemon has
// kept. False if containers cannot be kept on this system, which is logged; nothing is done then.
bool recover_and_adopt(const znKeepManager& manager);

// Ends and deletes all containers. False if a container could not be deleted, which is logged.
bool delete_all_containers();

// Leaves the containers to the next daemon.
void leave_containers();

} // namespace zncd

#endif
