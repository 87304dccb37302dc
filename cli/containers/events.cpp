#include "events.hpp"

#include "container_notes.hpp"
#include "front/record.hpp"
#include "image_bundle.hpp"

#include <chrono>
#include <ctime>
#include <exception>
#include <thread>

namespace zncctl {
namespace {

std::int64_t time_now()
{
    constexpr std::int64_t kNanoseconds = 1000000000;
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * kNanoseconds + now.tv_nsec;
}

std::string image_of(const std::string& own_bundle)
{
    return own_bundle.empty() ? "" : read_notes(own_bundle).image;
}

Event event_of(const char* status, const std::string& id, const std::string& image)
{
    Event event;
    event.status = status;
    event.id = id;
    event.name = id;
    event.image = image;
    return event;
}

void append_now(Event& event)
{
    event.time = time_now();
    if (const znc::UniqueFd area = open_journal_area(true); area)
        append_event(area.get(), event);
}

// Waits until the record is no longer kept, with a limit: the process that keeps it may be stopped
// or slow.
void wait_for_end(int record)
{
    constexpr std::chrono::milliseconds kPause(1);
    constexpr int kTries = 200;
    const RecordEnd end(record);
    for (int i = 0; i < kTries && end && !end.exit_code() && record_is_kept(record); i++)
        std::this_thread::sleep_for(kPause);
}

} // namespace

ContainerEvents::ContainerEvents(const std::string& id) : id_(id)
{
    try {
        const znc::ErrnoSaver keep;
        image_ = image_of(own_bundle(id));
    } catch (const std::exception&) { // the storage base is refused: the image is not known
        image_.clear();
    }
}

ContainerEvents::ContainerEvents(const std::string& id, const std::string& own_bundle) : id_(id)
{
    try {
        const znc::ErrnoSaver keep;
        image_ = image_of(own_bundle);
    } catch (const std::exception&) {
        image_.clear();
    }
}

void ContainerEvents::note(const char* status, std::optional<int> exit_code) const
try {
    const znc::ErrnoSaver keep;
    Event event = event_of(status, id_, image_);
    event.exit_code = exit_code;
    append_now(event);
} catch (const std::exception&) { // for example out of memory: the event is dropped
    return;
}

RemoveEvent::RemoveEvent(const std::string& id, const std::string& own_bundle)
    : event_(event_of(kRemoveEvent, id, image_of(own_bundle))), record_(open_record(id))
{
}

void RemoveEvent::note()
try {
    const znc::ErrnoSaver keep;
    if (record_)
        wait_for_end(record_.get());
    append_now(event_);
} catch (const std::exception&) {
    return;
}

} // namespace zncctl
