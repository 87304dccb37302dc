// Combines create, start, wait and delete.
#include "cli/containers/container.hpp"
#include "cli/containers/foreground.hpp"
#include "cli/containers/image_bundle.hpp"
#include "cli/containers/monitor.hpp"
#include "commands.hpp"

#include <fmt/format.h>
#include <optional>
#include <random>

namespace zncctl {
namespace {

std::string new_id()
{
    std::random_device random;
    return fmt::format("{:08x}{:04x}", random(), random() & 0xffffU);
}

// A container for the duration of the command.
class Run {
  public:
    Run(const Arguments& args, std::size_t log_max, const Network& network)
        : args_(args), log_max_(log_max), network_(network), from_bundle_(args.has("bundle")),
          id_(args.operand(from_bundle_ ? 0 : 1) != nullptr ? args.operand(from_bundle_ ? 0 : 1)
                                                            : new_id())
    {
    }

    int run()
    {
        if (!find_bundle())
            return kExitStartFailed;
        // from here on a signal must not end zncctl before the container is deleted
        const SignalQueue signals;
        if (create_container(id_, bundle_, network_) != kExitOk)
            return kExitStartFailed;
        return args_.has("detach") ? detached() : attached(signals);
    }

  private:
    bool find_bundle()
    {
        if (from_bundle_)
            return bundle_of_bundle(args_.value("bundle"), id_, network_, bundle_);
        const auto wanted = find_image(args_, args_.operand(0));
        return wanted && bundle_of_image(args_, *wanted, id_, network_, bundle_);
    }

    int attached(const SignalQueue& signals)
    {
        const int status = run_in_foreground(id_, signals, args_.has("tty"));
        if (!args_.has("keep"))
            delete_created();
        return status;
    }

    int detached()
    {
        if (const int error = start_with_monitor(id_, log_max_); error != 0) {
            const int status = start_failure(error, id_);
            delete_created();
            return status;
        }
        return print_result(id_);
    }

    // Deletes the container, and kills any processes that the program left behind.
    void delete_created()
    {
        if (delete_container(id_, true) != OK)
            static_cast<void>(daemon_failure(errno, id_));
    }

    const Arguments& args_;
    std::size_t log_max_;
    const Network& network_;
    bool from_bundle_;
    std::string id_;
    NewBundle bundle_;
};

} // namespace

int cmd_run(const Arguments& args)
{
    std::size_t log_max = 0;
    if (args.has("bundle") ? args.operands() > 1 : args.operands() < 1)
        return usage_failure("either --bundle or an image layout must be given");
    if (args.has("tty") && args.has("detach"))
        return usage_failure("--tty cannot be combined with --detach");
    if (!log_limit(args, log_max))
        return kExitUsage;
    if (args.has("tty") && ::isatty(STDIN_FILENO) == 0)
        return failure("", "--tty needs a terminal on standard input", kExitStartFailed);
    Network network;
    if (const int status = read_network(args, !args.has("bundle"), kExitStartFailed, network);
        status != kExitOk)
        return status;
    return Run(args, log_max, network).run();
}

} // namespace zncctl
