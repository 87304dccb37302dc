#include "foreground.hpp"

#include "container.hpp"
#include "events.hpp"
#include "front/output.hpp"
#include "log_file.hpp"
#include "monitor.hpp"
#include "network.hpp"
#include "pause.hpp"
#include "session.hpp"

#include <csignal>
#include <fmt/format.h>
#include <optional>
#include <string_view>
#include <utility>

namespace zncctl {

void SignalRelay::forward(int signo)
{
    forward_signal(id_, signo);
    if ((signo == SIGINT || signo == SIGTERM) && signo == last_)
        print_hint(fmt::format("{} is still running; 'zncctl kill -s KILL {}' kills it", id_, id_));
    last_ = signo;
}

namespace {

int run_hosted(const std::string& id, Session& session, const ForegroundOptions& options,
               ForegroundEnd& end)
{
    const MonitorOptions monitor = {options.log_max, true, true, options.remove};
    const int error = session.start_hosted([&](ProgramLink link, Pty terminal) {
        host_program(id, monitor, std::move(link), std::move(terminal));
    });
    if (error != 0)
        return start_failure(error, id);
    end.started = true;
    std::optional<int> status = session.wait();
    if (!status)
        status = session.leave();
    end.left = !status;
    return status ? session.finish(id, *status) : static_cast<int>(kExitOk);
}

int run_as_child(const std::string& id, Session& session, const ForegroundOptions& options,
                 ForegroundEnd& end)
{
    const RecordKeeper record = RecordKeeper::begin(id);
    std::optional<LogFile> log; // made with the first output
    if (record)
        session.watch_output([&](std::string_view text) {
            if (!log)
                log.emplace(record.dir(), options.log_max);
            log->append(text);
        });
    const auto start = [&id](Program& program, const ProgramStreams& streams) {
        return program.start(id, streams);
    };
    if (const int error = session.start(start); error != 0) {
        if (record) // otherwise it is that of a command which started the container before
            remove_record(id);
        return start_failure(error, id);
    }
    end.started = true;
    const ContainerEvents events(id);
    Record program_record = describe(session.program(), true);
    record.write(program_record);
    events.note(kStartEvent);
    const int status = session.wait().value_or(kExitOk); // there are no keys
    note_end(program_record, id, status);
    events.note(kDiedEvent, program_record.exit_code); // before the record: see RemoveEvent
    record.write(program_record);
    end_network_of_stopped(id);
    return session.finish(id, status);
}

} // namespace

int run_in_foreground(const std::string& id, const SignalQueue& signals,
                      const ForegroundOptions& options, ForegroundEnd& end)
{
    if (const int error = options.created ? 0 : startable(id); error != 0)
        return start_failure(error, id);
    SignalRelay relay(id);
    Session session(
        signals,
        {[&relay](const Program& /*program*/, int signo) { relay.forward(signo); },
         [&id](const Program& /*program*/, int signo) { forward_signal(id, signo, true); }});
    std::optional<TerminalOptions> terminal;
    if (options.tty)
        terminal = {namespace_of(id), user_of_program(id),
                    options.interactive ? options.keys : DetachKeys()};
    if (!session.open(terminal, options.interactive))
        return failure(id, "its standard streams cannot be created", kExitStartFailed);
    return terminal && !terminal->keys.none() ? run_hosted(id, session, options, end)
                                              : run_as_child(id, session, options, end);
}

} // namespace zncctl
