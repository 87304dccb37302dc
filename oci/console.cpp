#include "console.hpp"

#include "base/descriptor_message.hpp"
#include "bundle.hpp"
#include "front/files.hpp"

#include <array>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

namespace zncrun {
namespace {

// More than the buffer of a terminal, so that all of the program's output is passed on, but limited
// because a process that the program left behind may go on writing for ever.
constexpr std::size_t kRest = 256 * 1024;
constexpr std::size_t kWanted = 4; // descriptors of two pumps

} // namespace

Console::Console(const Arguments& args, const Process& process, Place place)
{
    const char* path = args.value("console-socket");
    if (!process.terminal && path != nullptr)
        throw Failure("cannot use console socket without a terminal (process.terminal)");
    if (process.terminal && path == nullptr && place == Place::kDetached)
        throw Failure("cannot allocate tty without setting console socket");
    if (!process.terminal)
        return;
    if (path != nullptr) {
        socket_.reset(znEngineConnect(path));
        if (!socket_)
            throw Failure(fmt::format("{}: {}", path, zncctl::error_text()));
        return;
    }
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw Failure("console: " + zncctl::error_text());
    socket_.reset(ends[0]);
    receiver_.reset(ends[1]);
}

void Console::set_size(ZN_ENGINE_PROGRAM& program) const
{
    winsize size = {};
    if (!receiver_ || program.rows != 0 || ::ioctl(STDIN_FILENO, TIOCGWINSZ, &size) != 0)
        return;
    program.rows = size.ws_row;
    program.columns = size.ws_col;
}

void Console::receive_master()
{
    std::array<char, 256> text{};
    znc::receive_descriptor(receiver_.get(), text.data(), text.size(), 0, master_);
    if (!master_)
        throw Failure("console: the terminal was not received");
    if (::fcntl(master_.get(), F_SETFL, O_RDWR | O_NONBLOCK) != 0)
        throw Failure("console: " + zncctl::error_text());
}

void Console::connect()
{
    using zncctl::PumpEnd;
    constexpr std::string_view kEndOfFile = "\x04";
    socket_.reset(); // if the helper has ended without sending, recvmsg() returns
    if (!receiver_)
        return;
    receive_master();
    raw_.emplace();
    input_.emplace(PumpEnd::of_caller(STDIN_FILENO), PumpEnd::borrowed(master_.get()),
                   "standard input");
    input_->watch([](std::string_view /*typed*/) {}, kEndOfFile);
    output_.emplace(PumpEnd::borrowed(master_.get()), PumpEnd::of_caller(STDOUT_FILENO),
                    "standard output");
}

bool Console::copy_size() const
{
    winsize size = {};
    if (!master_)
        return false;
    if (::ioctl(STDIN_FILENO, TIOCGWINSZ, &size) == 0)
        static_cast<void>(::ioctl(master_.get(), TIOCSWINSZ, &size));
    return true;
}

bool Console::in_background() const
{
    return raw_ && *raw_ && zncctl::in_background(STDIN_FILENO);
}

void Console::add_wanted(std::vector<pollfd>& wanted)
{
    if (!output_)
        return;
    input_->pause(in_background());
    raw_->set_raw(); // after a time in the background
    for (const zncctl::Pump* pump : {&*output_, &*input_})
        for (const pollfd& one : pump->wanted())
            wanted.push_back(one);
}

void Console::go(const pollfd* results)
{
    if (!output_)
        return;
    static_assert(kWanted == 2 * std::tuple_size_v<decltype(output_->wanted())>);
    output_->go(results[0].revents, results[1].revents);
    input_->go(results[2].revents, results[3].revents);
}

void Console::finish()
{
    if (!output_)
        return;
    input_->abandon();
    if (!output_->done())
        output_->finish(kRest);
    while (!output_->done()) {
        std::array<pollfd, 2> wanted = output_->wanted();
        if (::poll(wanted.data(), wanted.size(), -1) > 0)
            output_->go(wanted[0].revents, wanted[1].revents);
    }
    raw_->restore();
}

} // namespace zncrun
