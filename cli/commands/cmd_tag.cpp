// Gives names to an image of the store.
#include "cli/images/image_lookup.hpp"
#include "cli/images/reference.hpp"
#include "commands.hpp"
#include "front/output.hpp"

#include <stdexcept>

namespace zncctl {

int cmd_tag(const Arguments& args)
try {
    const std::vector<std::string>& operands = args.all_operands();
    std::vector<std::string> names;
    for (auto operand = operands.begin() + 1; operand != operands.end(); ++operand) {
        const auto name = parse_reference(*operand, kLocalHost);
        if (!name || !name->digest.empty())
            return failure(*operand, "it is not a valid name with a tag");
        names.push_back(name->text());
    }
    StoreChange change;
    std::string problem;
    const auto found = find_stored(change.images(), operands[0], problem);
    if (found.empty())
        return failure(operands[0], problem, kExitNotFound);
    const StoredImage image = change.images()[found[0]];
    change.put(image, names);
    change.save();
    return kExitOk;
} catch (const std::runtime_error& error) {
    return failure(args.operand(0), error.what());
}

} // namespace zncctl
