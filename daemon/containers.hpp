// containers.hpp - what a daemon does about containers at its two ends: clear away those of a dead
// predecessor, and end its own. Used by main, on the daemon task.
#ifndef ZNCD_CONTAINERS_HPP
#define ZNCD_CONTAINERS_HPP

namespace zncd {

// Whether a live daemon has the queue.
bool served_elsewhere();

// Removes what a daemon that died left: its queue, the namespaces with everything in them, the
// containers' overlay devices and writable layers. Attaches the images' overlay devices again.
// What cannot be done is printed and does not keep the daemon from serving.
void recover();

// Ends and deletes every container. False if something is left, which was then printed.
bool end_all();

} // namespace zncd

#endif
