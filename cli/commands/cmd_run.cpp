// Combines create, start, wait and, with --rm, delete.
#include "cli/containers/attach.hpp"
#include "cli/containers/cid_file.hpp"
#include "cli/containers/container.hpp"
#include "cli/containers/foreground.hpp"
#include "cli/containers/image_bundle.hpp"
#include "cli/containers/monitor.hpp"
#include "commands.hpp"

#include <stdexcept>

namespace zncctl {
namespace {

class Run {
  public:
    Run(const Arguments& args, const NewContainer& container, std::size_t log_max,
        const DetachKeys& keys)
        : args_(args), container_(container), id_(container.id), log_max_(log_max), keys_(keys)
    {
    }

    int run()
    {
        CidFile cid_file(args_);
        if (!bundle_of_container(args_, args_.value("bundle", ""), container_, bundle_))
            return kExitStartFailed;
        // from here on a signal must not end zncctl before the container is deleted
        const SignalQueue signals;
        if (create_container(id_, bundle_, container_.network) != kExitOk)
            return kExitStartFailed;
        if (!cid_file.write(id_)) {
            static_cast<void>(local_failure(errno, args_.value("cidfile")));
            delete_created();
            return kExitStartFailed;
        }
        return args_.has("detach") ? detached() : attached(signals);
    }

  private:
    int attached(const SignalQueue& signals)
    {
        const ContainerOptions& options = container_.options;
        ForegroundEnd end;
        const int status = run_in_foreground(
            id_, signals, {options.tty, options.interactive, options.remove, log_max_, true, keys_},
            end);
        if (!end.left && (options.remove || !end.started))
            delete_created();
        return status;
    }

    int detached()
    {
        const ContainerOptions& options = container_.options;
        const MonitorOptions monitor = {log_max_, options.tty, options.interactive, options.remove,
                                        true};
        if (const int error = start_with_monitor(id_, monitor); error != 0) {
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
    const NewContainer& container_;
    const std::string& id_;
    std::size_t log_max_;
    const DetachKeys& keys_;
    NewBundle bundle_;
};

// Reads everything before anything is created. Returns kExitOk, or another exit status after
// printing a message.
int read_container(const Arguments& args, NewContainer& container)
{
    std::vector<std::string> command = args.all_operands();
    const bool from_image = !args.has("bundle");
    if (from_image && command.empty())
        return usage_failure("either --bundle or an image must be given");
    if (from_image) {
        container.image = command.front();
        command.erase(command.begin());
    }
    try {
        container.id = id_of_new_container(args);
    } catch (const BadOption& bad) {
        return usage_failure(bad.what());
    }
    if (const int status =
            read_container_options(args, command, kExitStartFailed, container.options);
        status != kExitOk)
        return status;
    return read_network(args, from_image, kExitStartFailed, container.network);
}

} // namespace

int cmd_run(const Arguments& args)
{
    std::size_t log_max = 0;
    NewContainer container;
    if (const int status = read_container(args, container); status != kExitOk)
        return status;
    if (!log_limit(args, log_max))
        return kExitUsage;
    const ContainerOptions& options = container.options;
    if (!args.has("detach") && options.tty && options.interactive && ::isatty(STDIN_FILENO) == 0)
        return failure("", "--tty with --interactive needs a terminal on standard input",
                       kExitStartFailed);
    const auto keys = read_detach_keys(args);
    if (!keys)
        return kExitUsage;
    try {
        return Run(args, container, log_max, *keys).run();
    } catch (const std::runtime_error& error) {
        return failure("", error.what(), kExitStartFailed);
    }
}

} // namespace zncctl
