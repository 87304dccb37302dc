// Removes names and images from the store.
#include "cli/containers/container.hpp"
#include "cli/containers/image_users.hpp"
#include "cli/images/image_lookup.hpp"
#include "commands.hpp"

#include <fmt/format.h>
#include <stdexcept>

namespace zncctl {
namespace {

using Places = std::vector<std::size_t>;

// The entries of the image that an entry belongs to.
Places entries_of(const std::vector<StoredImage>& images, std::size_t place)
{
    Places places;
    for (std::size_t i = 0; i < images.size(); i++)
        if (images[i].manifest.digest == images[place].manifest.digest)
            places.push_back(i);
    return places;
}

std::string names_of(const std::vector<StoredImage>& images, const Places& places)
{
    std::string names;
    for (const std::size_t i : places)
        names += fmt::format("{}{}", names.empty() ? "" : ", ", images[i].name);
    return names;
}

int delete_containers(const std::vector<std::string>& ids)
{
    for (const std::string& id : ids)
        if (delete_container(id, true) != OK && errno != ENODEV)
            return daemon_failure(errno, id);
    return kExitOk;
}

// Makes sure that no container uses an image, or deletes those that do.
int release(const std::string& operand, const std::string& manifest, bool force)
{
    const auto users = containers_of_images();
    if (!users)
        return daemon_failure(errno, operand);
    const auto found = users->find(manifest);
    if (found == users->end())
        return kExitOk;
    if (force)
        return delete_containers(found->second);
    const int status = failure(
        operand, fmt::format("it is used by the containers {}", fmt::join(found->second, ", ")),
        kExitWrongState);
    print_hint("'zncctl rmi --force' deletes them, too");
    return status;
}

int remove_entries(StoreChange& change, const Places& places, bool whole)
{
    const std::vector<StoredImage> before = change.images();
    const std::string id = whole ? read_stored(image_area(), before[places[0]]).config.digest : "";
    change.remove(places);
    change.save();
    std::string text;
    for (const std::size_t i : places)
        if (!before[i].name.empty())
            text += fmt::format("Untagged: {}\n", before[i].name);
    if (whole)
        text += fmt::format("Deleted: {}\n", id.empty() ? before[places[0]].manifest.digest : id);
    change.remove_unneeded_blobs();
    return print_result(text);
}

int remove_image(const std::string& operand, bool force)
try {
    StoreChange change;
    std::string problem;
    const Places found = find_stored(change.images(), operand, problem);
    if (found.empty())
        return failure(operand, problem, kExitNotFound);
    const bool by_id = !has_name(change.images()[found[0]], operand);
    const Places all = entries_of(change.images(), found[0]);
    if (!by_id && all.size() > 1)
        return remove_entries(change, found, false);
    if (all.size() > 1 && !force)
        return failure(operand,
                       fmt::format("it has several names, remove them or use --force: {}",
                                   names_of(change.images(), all)),
                       kExitWrongState);
    const int status = release(operand, change.images()[found[0]].manifest.digest, force);
    return status != kExitOk ? status : remove_entries(change, all, true);
} catch (const std::runtime_error& error) {
    return failure(operand, error.what());
}

} // namespace

int cmd_rmi(const Arguments& args)
{
    return for_each_id(args.all_operands(), true, [&](const std::string& operand) {
        return remove_image(operand, args.has("force"));
    });
}

} // namespace zncctl
