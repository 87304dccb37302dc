// zncContainerKeep.hpp - containers that outlive their daemon: the registry's note about each,
// which the platform stores with the container's namespace, and registering the containers again
// from such notes. Used by the daemon; off unless keep_containers() is called.
#ifndef ZNCCONTAINERKEEP_HPP
#define ZNCCONTAINERKEEP_HPP

namespace znc {

// From now on every container that is created or changed is recorded; the platform must have been
// prepared (znnsKeepOpen).
void keep_containers();

// Registers the containers that an earlier daemon has kept. `refused` is called for each that
// cannot be taken over, with its id ("" if that is not known either) and the reason; its processes
// are ended. Returns the number of containers that were registered.
int adopt_containers(void (*refused)(const char* id, const char* reason));

} // namespace znc

#endif
