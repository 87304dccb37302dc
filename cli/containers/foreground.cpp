#include "foreground.hpp"

#include "events.hpp"
#include "front/output.hpp"
#include "network.hpp"
#include "session.hpp"

#include <csignal>
#include <ctime>
#include <fmt/format.h>

namespace zncctl {

void SignalRelay::forward(int signo)
{
    forward_signal(id_, signo);
    if ((signo == SIGINT || signo == SIGTERM) && signo == last_)
        print_hint(fmt::format("{} is still running; 'zncctl kill -s KILL {}' kills it", id_, id_));
    last_ = signo;
}

int run_in_foreground(const std::string& id, const SignalQueue& signals,
                      const ForegroundOptions& options, bool* started)
{
    *started = false;
    if (const int error = startable(id); error != 0)
        return start_failure(error, id);
    SignalRelay relay(id);
    Session session(
        signals,
        {[&relay](const Program& /*program*/, int signo) { relay.forward(signo); },
         [&id](const Program& /*program*/, int signo) { forward_signal(id, signo, true); }});
    if (!session.open(options.tty, options.interactive))
        return failure(id, "its standard streams cannot be created", kExitStartFailed);
    const RecordKeeper record = RecordKeeper::begin(id);
    const auto start = [&id](Program& program, const ProgramStreams& streams) {
        return program.start(id, streams);
    };
    if (const int error = session.start(start); error != 0) {
        remove_record(id);
        return start_failure(error, id);
    }
    *started = true;
    Record program_record = describe(session.program(), false);
    record.write(program_record);
    note_event(kStartEvent, id);
    note_end(program_record, id, session.wait());
    note_event(kDiedEvent, id, program_record.exit_code); // before the record: see RemoveEvent
    record.write(program_record);
    end_network_of_stopped(id);
    return session.finish(id, *program_record.exit_code);
}

} // namespace zncctl
