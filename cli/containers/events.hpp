// events.hpp - writes to the journal what zncctl does to containers, and the end of their programs.
// Used by the commands that change containers and by the monitor.
#ifndef ZNC_CLI_CONTAINERS_EVENTS_HPP
#define ZNC_CLI_CONTAINERS_EVENTS_HPP

#include "event_journal.hpp"

#include <string>

namespace zncctl {

inline constexpr const char* kCreateEvent = "create";
inline constexpr const char* kStartEvent = "start";
inline constexpr const char* kDiedEvent = "died";
inline constexpr const char* kPauseEvent = "pause";
inline constexpr const char* kUnpauseEvent = "unpause";
inline constexpr const char* kRemoveEvent = "remove";

// Writes the events of one container.
class ContainerEvents {
  public:
    // Reads what the container was made from, from its own bundle if it has one.
    explicit ContainerEvents(const std::string& id);
    // The same for a caller that knows its own bundle; "": it has none.
    ContainerEvents(const std::string& id, const std::string& own_bundle);

    // Notes an event that happens now. Never fails, and does not change errno.
    void note(const char* status, std::optional<int> exit_code = std::nullopt) const;

  private:
    std::string id_;
    std::string image_;
};

// The same for a container that is about to be removed. The constructor reads what the container
// was made from, from its bundle if it has its own; note() writes the event. Before, it waits
// briefly until the end of the program is recorded, so that the event "died" precedes "remove".
class RemoveEvent {
  public:
    RemoveEvent(const std::string& id, const std::string& own_bundle);
    void note();

  private:
    Event event_;
    znc::UniqueFd record_;
};

} // namespace zncctl

#endif
