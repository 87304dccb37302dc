// event_journal.hpp - a journal of the events of containers in the runtime directory: a file of
// limited size with one JSON document per line, and its predecessor. Every zncctl process appends
// to it; actions of other clients of the daemon are not recorded. Used by events and by the
// commands that change containers.
#ifndef ZNC_CLI_CONTAINERS_EVENT_JOURNAL_HPP
#define ZNC_CLI_CONTAINERS_EVENT_JOURNAL_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/owned.hpp"

namespace zncctl {

struct Event {
    std::int64_t time = 0; // nanoseconds since the epoch
    std::string status;    // "create", "start", "died", "pause", "unpause", "remove"
    std::string id;
    std::string name;
    std::string image;            // "": the container was made from a bundle
    std::optional<int> exit_code; // of "died"
};

inline constexpr std::size_t kJournalMax = std::size_t{1} << 20U;

// The directory of the journal. Invalid with errno set.
znc::UniqueFd open_journal_area(bool make);

// Appends an event. Errors are ignored: the journal must not keep containers from running. If the
// file is then larger than `max`, it is renamed and replaces the previous one.
void append_event(int area, const Event& event, std::size_t max = kJournalMax);

class JournalReader {
  public:
    // `area` must stay open during the life of the object. Starts at the oldest event or, with
    // `at_end`, behind the newest.
    JournalReader(int area, bool at_end);

    // The events since the last call. Invalid lines are skipped.
    std::vector<Event> read();

  private:
    void add_events(std::string_view text, std::vector<Event>& events);

    int area_;
    znc::UniqueFd file_;
    std::string rest_; // the beginning of a line
};

} // namespace zncctl

#endif
