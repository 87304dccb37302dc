// Removes images that nothing refers to from the store.
#include "cli/containers/image_users.hpp"
#include "cli/images/image_list.hpp"
#include "commands.hpp"
#include "front/output.hpp"

#include <cstdio>
#include <fmt/format.h>
#include <set>
#include <stdexcept>

namespace zncctl {
namespace {

// Asks on the terminal. False if the answer is not yes.
bool is_confirmed(bool all)
{
    fmt::print(stderr, "This removes all images {}. Continue? [y/N] ",
               all ? "that no container uses" : "without a name that no container uses");
    const int answer = std::getchar();
    return answer == 'y' || answer == 'Y';
}

} // namespace

int cmd_image_prune(const Arguments& args)
try {
    const bool all = args.has("all");
    if (!args.has("force") && ::isatty(STDIN_FILENO) == 0)
        return failure("", "standard input is not a terminal, so --force is needed");
    if (!args.has("force") && !is_confirmed(all))
        return kExitOk;
    StoreChange change;
    const auto users = containers_of_images();
    if (!users)
        return daemon_failure(errno, "");
    std::vector<std::size_t> places;
    std::set<std::string> ids;
    for (std::size_t i = 0; i < change.images().size(); i++) {
        const StoredImage& image = change.images()[i];
        if ((!all && !image.name.empty()) || users->contains(image.manifest.digest))
            continue;
        const std::string id = read_stored(image_area(), image).config.digest;
        ids.insert(id.empty() ? image.manifest.digest : id);
        places.push_back(i);
    }
    change.remove(places);
    if (!places.empty())
        change.save();
    const std::uint64_t bytes = change.remove_unneeded_blobs();
    std::string text;
    for (const std::string& id : ids)
        text += id + "\n";
    text += fmt::format("Freed: {}\n", size_text(static_cast<std::int64_t>(bytes)));
    return print_result(text);
} catch (const std::runtime_error& error) {
    return failure("", error.what());
}

} // namespace zncctl
