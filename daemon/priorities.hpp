// priorities.hpp - whether containers may have priorities more urgent than normal, which are shared
// with everything else on the machine. Used by main, on the daemon task.
#ifndef ZNCD_PRIORITIES_HPP
#define ZNCD_PRIORITIES_HPP

namespace zncd {

// For a container that was just created: what the administrator said. When it is held back from
// what its configuration asks for, the first time says so.
void settle_priority(const char* containerId, bool allowUrgent);

} // namespace zncd

#endif
