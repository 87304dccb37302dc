// containers.hpp - cleans up after a previous daemon at startup, and ends all containers at
// shutdown. Used by main, on the daemon task.
#ifndef ZNCD_CONTAINERS_HPP
#define ZNCD_CONTAINERS_HPP

namespace zncd {

// Whether another running daemon has the request queue open.
bool other_daemon_serves();

// Removes what a daemon that died left behind: its queue, its namespaces and all processes in them,
// the overlay devices and writable layers of its containers. Mounts the overlay devices of images
// again. Failures are logged and do not keep the daemon from serving.
void recover();

// Ends and deletes all containers. False if a container could not be deleted, which is logged.
bool delete_all_containers();

} // namespace zncd

#endif
