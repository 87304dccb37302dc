// ns_spare.cpp - see ns_spare.hpp. A starter process (helper/starter.cpp) makes the spares: their
// owner sends a byte for each and later receives its socket. It never waits for one, except for a
// moment when a namespace is to be created and a spare is almost ready.
//
// A spare differs from a keeper that was just started only by the mounts that it has made already,
// and is used at most once. It has copied settings of its owner and of the host. Most are compared
// before it is used; because of the rest, which are the host's parameters of network namespaces, it
// is replaced after a minute.
#include "ns_spare.hpp"

#include "base/descriptor_message.hpp"
#include "base/mutex_hold.hpp"
#include "ns_surroundings.hpp"
#include "system/pidfd.hpp"
#include "zarnel/ns.h"

#include <algorithm>
#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <utility>

namespace zn {
namespace {

using znc::UniqueFd;

constexpr std::int64_t kUsableNs = 60 * kNsPerSec;
constexpr std::int64_t kCheckNs = kNsPerSec;      // between comparisons of the surroundings
constexpr std::int64_t kRetryNs = kNsPerSec;      // after something could not be started
constexpr std::int64_t kAlmostReadyNs = 50000000; // how long a namespace waits for a spare
constexpr std::int64_t kEndNs = kNsPerSec;        // how long is waited for the ends of all
constexpr long kPauseNs = 200000;                 // between looks for processes that have not ended

// A process of the pool: a spare or the starter.
struct Member {
    enum class State { kNone, kStarting, kReady, kEnding };

    State state = State::kNone;
    Keeper process;
    std::int64_t made = 0;

    [[nodiscard]] bool lives() const { return state == State::kStarting || state == State::kReady; }

    void begin(State first)
    {
        state = first;
        made = now_ns();
    }

    // Kills a spare. It is reaped later.
    void drop()
    {
        if (!lives())
            return;
        // It is a child that was not reaped, so its id is not reused. Its descriptors are closed.
        ::kill(process.pid(), SIGKILL);
        process.adopt(process.pid(), UniqueFd(), UniqueFd());
        state = State::kEnding;
    }

    // Reaps it if it has ended, also if it was not dropped.
    void reap()
    {
        if (state == State::kNone || ::waitpid(process.pid(), nullptr, WNOHANG | __WALL) == 0)
            return;
        process = Keeper();
        state = State::kNone;
    }
};

class Pool {
  public:
    void set(unsigned wanted)
    {
        wanted_ = std::min<unsigned>(wanted, ZNNS_SPARES_MAX);
        if (wanted_ == 0)
            end(now_ns() + kEndNs);
    }
    void make();
    bool take(Keeper& keeper);
    void end(std::int64_t deadline);

  private:
    void collect();
    void collect_answers();
    void collect_starter();
    void add(const wire::SpareAnswer& answer, UniqueFd socket);
    void drop_all();
    bool has_starter();
    bool start_starter();
    [[nodiscard]] bool has_same_surroundings();
    [[nodiscard]] bool is_pending() const;
    [[nodiscard]] bool is_empty() const;
    Member* find(Member::State state);
    void wait_for_news(std::int64_t deadline);

    unsigned wanted_ = 0;
    unsigned awaited_ = 0;               // asked for and not answered
    Member spares_[2 * ZNNS_SPARES_MAX]; // some may be ending while others replace them
    Member starter_;
    Surroundings surroundings_; // of the starter, and therefore of the spares
    std::int64_t checked_ = 0;  // when they were last compared
    std::int64_t retry_ = 0;    // nothing is started before
    bool late_ = false;         // the last wait for a spare was in vain, and none came since
};

Member* Pool::find(Member::State state)
{
    for (Member& spare : spares_)
        if (spare.state == state)
            return &spare;
    return nullptr;
}

// The starter ends when it has answered what it was asked for: if it were killed, a spare that it
// has just started would not be known here and never be reaped.
void Pool::drop_all()
{
    for (Member& spare : spares_)
        spare.drop();
    if (starter_.lives()) {
        ::shutdown(starter_.process.socket(), SHUT_WR);
        starter_.state = Member::State::kEnding;
    }
}

void Pool::add(const wire::SpareAnswer& answer, UniqueFd socket)
{
    if (answer.error != 0) {
        retry_ = now_ns() + kRetryNs;
        return;
    }
    Member* const free = find(Member::State::kNone);
    if (free == nullptr) // cannot happen: not so many are asked for
        return;
    UniqueFd pidfd = process_open(answer.pid);
    const bool complete = pidfd && socket;
    free->process.adopt(answer.pid, std::move(pidfd), std::move(socket));
    free->begin(Member::State::kStarting);
    if (!complete) // no descriptors are left
        retry_ = now_ns() + kRetryNs;
    if (!complete || !starter_.lives())
        free->drop();
}

// Receives the spares that the starter has started.
void Pool::collect_answers()
{
    for (;;) {
        wire::SpareAnswer answer = {};
        UniqueFd socket;
        const ssize_t n = znc::receive_descriptor(starter_.process.socket(), &answer, sizeof answer,
                                                  MSG_DONTWAIT, socket);
        if (n != static_cast<ssize_t>(sizeof answer))
            return;
        awaited_ -= awaited_ != 0 ? 1 : 0;
        add(answer, std::move(socket));
    }
}

void Pool::collect_starter()
{
    if (starter_.state == Member::State::kNone)
        return;
    const bool ended = starter_.process.ended(0); // asked first, so that no answer is missed
    collect_answers();
    if (!ended)
        return;
    if (starter_.lives()) // it was killed
        retry_ = now_ns() + kRetryNs;
    awaited_ = 0;
    starter_.reap();
}

// Learns what has happened to the processes since the last call.
void Pool::collect()
{
    collect_starter();
    const std::int64_t oldest = now_ns() - kUsableNs;
    for (Member& spare : spares_) {
        if (spare.state == Member::State::kStarting) {
            wire::Answer ready = {};
            UniqueFd none;
            if (znc::receive_descriptor(spare.process.socket(), &ready, sizeof ready, MSG_DONTWAIT,
                                        none) > 0) {
                spare.state = Member::State::kReady;
                late_ = false;
            }
        }
        if (spare.made < oldest)
            spare.drop();
        const bool dropped = !spare.lives();
        spare.reap();
        // It could not mount, or was killed.
        if (!dropped && !spare.lives())
            retry_ = now_ns() + kRetryNs;
    }
}

bool Pool::has_same_surroundings()
{
    Surroundings found;
    checked_ = now_ns();
    return found.read() && found == surroundings_;
}

bool Pool::has_starter()
{
    if (starter_.lives() && now_ns() - checked_ >= kCheckNs && !has_same_surroundings())
        drop_all();
    if (starter_.state == Member::State::kNone && !start_starter())
        retry_ = now_ns() + kRetryNs;
    return starter_.lives();
}

bool Pool::start_starter()
{
    awaited_ = 0;
    checked_ = now_ns();
    if (!surroundings_.read() || !starter_.process.start_starter())
        return false;
    starter_.begin(Member::State::kReady);
    if (!has_same_surroundings()) // they changed meanwhile
        drop_all();
    return true;
}

void Pool::make()
{
    if (wanted_ == 0)
        return;
    collect();
    if (now_ns() < retry_ || !has_starter())
        return;
    unsigned living = awaited_;
    unsigned used = awaited_;
    for (const Member& spare : spares_) {
        living += spare.lives() ? 1 : 0;
        used += spare.state != Member::State::kNone ? 1 : 0;
    }
    for (Member& spare : spares_)
        if (living > wanted_ && spare.lives()) {
            spare.drop();
            living--;
        }
    if (living < wanted_ && !Keeper::descriptors_left()) {
        retry_ = now_ns() + kRetryNs;
        return;
    }
    const char byte = 0;
    for (; living < wanted_ && used < std::size(spares_); living++, used++) {
        if (::send(starter_.process.socket(), &byte, 1, MSG_DONTWAIT | MSG_NOSIGNAL) != 1)
            return; // the next collect() finds out why
        awaited_++;
    }
}

// Whether a spare will be ready without another request for one.
bool Pool::is_pending() const
{
    return awaited_ != 0 ||
           std::any_of(std::begin(spares_), std::end(spares_),
                       [](const Member& m) { return m.state == Member::State::kStarting; });
}

void Pool::wait_for_news(std::int64_t deadline)
{
    pollfd fds[std::size(decltype(spares_){}) + 1];
    nfds_t count = 0;
    if (awaited_ != 0)
        fds[count++] = {starter_.process.socket(), POLLIN, 0};
    for (const Member& spare : spares_)
        if (spare.state == Member::State::kStarting)
            fds[count++] = {spare.process.socket(), POLLIN, 0};
    const timespec wait = to_timespec(std::max<std::int64_t>(deadline - now_ns(), 0));
    ::ppoll(fds, count, &wait, nullptr);
}

bool Pool::take(Keeper& keeper)
{
    if (wanted_ == 0 || is_empty())
        return false;
    collect();
    const bool usable = has_same_surroundings();
    if (!usable)
        drop_all();
    if (!Keeper::descriptors_left()) { // those of the spares and of the starter may be needed
        retry_ = now_ns() + kRetryNs;
        end(now_ns() + kEndNs);
        return false;
    }
    if (!usable)
        return false;
    const std::int64_t deadline = now_ns() + kAlmostReadyNs;
    Member* spare = find(Member::State::kReady);
    while (spare == nullptr && is_pending() && !late_) {
        wait_for_news(deadline);
        late_ = now_ns() >= deadline;
        collect();
        spare = find(Member::State::kReady);
    }
    if (spare == nullptr)
        return false;
    keeper = std::move(spare->process);
    *spare = Member();
    return true;
}

bool Pool::is_empty() const
{
    return starter_.state == Member::State::kNone &&
           std::all_of(std::begin(spares_), std::end(spares_),
                       [](const Member& m) { return m.state == Member::State::kNone; });
}

void Pool::end(std::int64_t deadline)
{
    const timespec pause = {0, kPauseNs};
    drop_all();
    for (collect(); !is_empty() && now_ns() < deadline; collect())
        ::nanosleep(&pause, nullptr);
    if (starter_.state != Member::State::kNone)
        process_signal(starter_.process.pidfd(), SIGKILL);
}

pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER; // protects the pool
Pool g_pool;

} // namespace

bool spare_take(Keeper& keeper, unsigned long namespaces)
{
    const znc::ErrnoSaver keep;
    const znc::MutexHold lock(g_lock);
    return (namespaces | CLONE_NEWNS) == wire::kSpareNamespaces && g_pool.take(keeper);
}

void spares_end(std::int64_t deadline)
{
    const znc::ErrnoSaver keep;
    const znc::MutexHold lock(g_lock);
    g_pool.end(deadline);
}

} // namespace zn

void znnsSparesSet(unsigned count)
{
    const znc::ErrnoSaver keep;
    const znc::MutexHold lock(zn::g_lock);
    zn::g_pool.set(count);
}

void znnsSparesMake(void)
{
    const znc::ErrnoSaver keep;
    const znc::MutexHold lock(zn::g_lock);
    zn::g_pool.make();
}
