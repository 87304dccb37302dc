// priorities.hpp - whether containers may have priorities more urgent than normal, which would
// affect all other processes of the machine. Used by main, on the daemon task.
#ifndef ZNCD_PRIORITIES_HPP
#define ZNCD_PRIORITIES_HPP

namespace zncd {

// Applies the setting of --allow-urgent to a container that was just created. Logs a warning the
// first time that a container asks for an urgent priority and does not get it.
void apply_priority_setting(const char* containerId, bool allowUrgent);

} // namespace zncd

#endif
