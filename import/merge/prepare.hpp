// prepare.hpp - gives the merged tree the shape that the new layer can carry, and reports what that
// costs. Used by import.cpp, between the merge and emit.
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

// Gives every node the shape that the format can carry, or throws Failure: hard links become files
// and symbolic links, links that are too long become shorter ones, devices go. Afterwards no node
// has two names, and emit() fails for no reason of the tree's.
void prepare(Tree& tree, const EmitOptions& options, const Limits& limits, Report& report);

} // namespace zncimport

#endif
