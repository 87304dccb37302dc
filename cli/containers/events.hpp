// events.hpp - notes in the journal what zncctl does to containers, and what becomes of them. Used
// by the commands that change containers and by the monitor.
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

// Notes an event that happens now. Never fails, and does not change errno.
void note_event(const char* status, const std::string& id,
                std::optional<int> exit_code = std::nullopt);

// The same for a container that is about to be removed: what it was made from is read now, and the
// event is noted by note(). That waits for a moment until the end of the program is recorded, which
// is after the event about it.
class RemoveEvent {
  public:
    explicit RemoveEvent(const std::string& id);
    void note();

  private:
    Event event_;
    znc::UniqueFd record_;
};

} // namespace zncctl

#endif
