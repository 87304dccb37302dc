// prepare.hpp - changes the merged tree so that the new layer can represent it, and reports the
// losses. Used by import.cpp, between the merge and emit.
#ifndef ZNC_IMPORT_MERGE_PREPARE_HPP
#define ZNC_IMPORT_MERGE_PREPARE_HPP

#include "report.hpp"
#include "tree.hpp"

namespace zncimport {

enum class Hardlinks { kAuto, kCopy, kSymlink };
enum class Devices { kFail, kDrop, kKeep };
enum class LongLinks { kFail, kHop };

struct EmitOptions {
    Hardlinks hardlinks = Hardlinks::kAuto;
    Devices devices = Devices::kFail;
    LongLinks long_links = LongLinks::kFail;
    bool skip_unrepresentable = false;
};

// Changes every node so that the format can represent it, or throws Failure: hard links become
// files and symbolic links, long link targets are shortened, devices are dropped. Afterwards no
// node has two names, and emit() cannot fail because of the tree.
void prepare(Tree& tree, const EmitOptions& options, const Limits& limits, Report& report);

} // namespace zncimport

#endif
