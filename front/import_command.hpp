// import_command.hpp - describes the command `zncctl import`, which is listed by zncctl and
// executed by zncctl-import.
#ifndef ZNC_FRONT_IMPORT_COMMAND_HPP
#define ZNC_FRONT_IMPORT_COMMAND_HPP

#include "command.hpp"

namespace zncctl {

inline constexpr Option kImportOptions[] = {
    {'t', "tag", "TAG", "the new image's name (default: that of the source, or latest)"},
    {0, "platform", "OS/ARCH", "platform of the image; a variant may follow: linux/arm/v7"},
    {0, "set-os", "OS", "give the new image this operating system"},
    {0, "set-arch", "ARCH", "give the new image this architecture"},
    {0, "keep-user", nullptr, "leave the user as it is: run and unpack look it up in the image"},
    {'f', "force", nullptr, "replace an image of that name and platform"},
    {0, "list", nullptr, "only list the images of the source, as JSON"},
    {'n', "dry-run", nullptr, "dry run: print the result without writing it"},
    {0, "split", nullptr, "keep lower layers that no later layer changes as layers of their own"},
    {0, "hardlinks", "HOW", "\"auto\" (default: copies, links beyond --max-hardlink-bytes)",
     Word::kChoice, "auto copy symlink"},
    {0, "devices", "HOW", "devices and FIFOs outside dev: \"fail\" (default), \"drop\" or \"keep\"",
     Word::kChoice, "fail drop keep"},
    {0, "long-links", "HOW",
     "link targets that are too long: \"fail\" (default) or \"hop\" (chain of links)",
     Word::kChoice, "fail hop"},
    {0, "skip-unrepresentable", nullptr,
     "drop files whose name or size the format cannot represent"},
    {0, "strict", nullptr, "fail when anything is lost"},
    {0, "report", "FILE", "write a JSON report of losses and changes to this file", Word::kFile},
    {0, "compress", "HOW", "\"isal\" (default) or \"zlib\"", Word::kChoice, "isal zlib"},
    {0, "max-entries", "N", "members of all layers (default: 1000000)"},
    {0, "max-bytes", "N", "uncompressed bytes of all layers (default: 34359738368)"},
    {0, "max-ratio", "N", "uncompressed bytes for each compressed one (default: 1100)"},
    {0, "max-depth", "N", "components of a path (default: 128)"},
    {0, "max-json", "N", "bytes of a document (default: 4194304)"},
    {0, "max-hardlink-bytes", "N", "bytes added by copies of hard links (default: 16777216)"},
    {0, "source-name", "NAME", "name of standard input in messages"},
    {'q', "quiet", nullptr, "do not print the new image's digest"},
};

// `run` as in Command.
constexpr Command import_command(int (*run)(const Arguments& args))
{
    return {"import",
            "",
            "SOURCE [NAME|LAYOUT[:TAG]]",
            "convert any image so that it can be unpacked",
            kImportOptions,
            1,
            2,
            Word::kFile,
            "",
            run};
}

} // namespace zncctl

#endif
