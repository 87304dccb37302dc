// Writes the root filesystem of a container as an archive.
#include "cli/containers/container.hpp"
#include "cli/containers/container_root.hpp"
#include "cli/containers/output_file.hpp"
#include "cli/containers/tree_archive.hpp"
#include "commands.hpp"
#include "front/files.hpp"

#include <stdexcept>

namespace zncctl {
namespace {

void write_archive(const std::string& id, int root, int output)
{
    TreeArchive archive(output);
    archive.add_content(root, "");
    archive.finish(id);
}

} // namespace

int cmd_export(const Arguments& args)
{
    const std::string id = args.operand(0);
    const char* path = args.value("output");
    if (path == nullptr && ::isatty(STDOUT_FILENO) != 0)
        return usage_failure(
            "the archive is not written to a terminal: redirect the output or give --output");
    if (status_of(id) == STATE_UNKNOWN)
        return daemon_failure(errno, id);
    const znc::UniqueFd root = open_container_root(id);
    if (!root)
        return local_failure(errno, id);
    try {
        if (path == nullptr) {
            write_archive(id, root.get(), STDOUT_FILENO);
            return kExitOk;
        }
        OutputFile output(path);
        write_archive(id, root.get(), output.fd());
        output.finish();
        return kExitOk;
    } catch (const std::runtime_error& error) {
        return failure(id, error.what());
    }
}

} // namespace zncctl
