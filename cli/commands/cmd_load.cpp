// Adds the images of an archive to the store.
#include "cli/images/archive_copy.hpp"
#include "cli/images/helper_program.hpp"
#include "cli/images/image_adder.hpp"
#include "cli/images/reference.hpp"
#include "commands.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace zncctl {
namespace {

// An image as zncctl-import lists it.
struct Listed {
    std::size_t place;              // index in the list
    std::vector<std::string> names; // as the archive says
    std::string os;
    std::string arch;
    std::string digest; // of the manifest; "" in a docker-archive
    std::string problem;
    bool rootfs;
};

Listed listed_of(const Json& object, std::size_t place)
{
    Listed image = {place,
                    {},
                    text_of(object, "os"),
                    text_of(object, "architecture"),
                    text_of(object, "digest"),
                    text_of(object, "problem"),
                    *member(object, "rootfs") == true};
    for (const Json& name : children(member(object, "names")))
        image.names.push_back(name.get<std::string>());
    return image;
}

// Many more than real archives have. Each name is an entry of the index, which is rewritten as a
// whole while other processes wait.
constexpr std::size_t kLoadedMax = 100;
constexpr std::size_t kNamesMax = 100; // of an image

// Why an archive is refused before any of its images is added, or "".
std::string limit_problem(const std::vector<Listed>& images)
{
    if (images.size() > kLoadedMax)
        return fmt::format("it contains {} images, more than {}", images.size(), kLoadedMax);
    for (const Listed& image : images)
        if (image.names.size() > kNamesMax)
            return fmt::format("an image has {} names, more than {}", image.names.size(),
                               kNamesMax);
    return "";
}

// Keeps only the images for this machine, unless there are none: indexes list signatures and other
// documents like images.
void keep_for_this_machine(std::vector<Listed>& images)
{
    const auto is_foreign = [](const Listed& image) { return image.arch != host_arch(); };
    if (std::all_of(images.begin(), images.end(), is_foreign))
        return;
    std::erase_if(images, is_foreign);
}

std::string label_of(const Listed& image)
{
    return !image.names.empty()    ? image.names[0]
           : !image.digest.empty() ? image.digest
                                   : fmt::format("image {}", image.place + 1);
}

// The full names of an image. Archives in Docker's format leave out its registry.
std::vector<std::string> full_names(const Listed& image)
{
    std::vector<std::string> names;
    for (const std::string& name : image.names)
        if (const auto full =
                parse_reference(name, image.digest.empty() ? kDefaultRegistry : kLocalHost);
            full && full->digest.empty())
            names.push_back(full->text());
    return names;
}

// The operand of zncctl-import that selects an image of the archive on standard input. Names and
// digests may be those of several images.
std::string operand_of(const Listed& image)
{
    return fmt::format("{}-archive:-:@{}", image.digest.empty() ? "docker" : "oci", image.place);
}

class Load {
  public:
    Load(const Arguments& args, const char* path)
        : args_(args), archive_(path), name_(archive_.name())
    {
    }

    int load()
    {
        std::vector<Listed> images;
        if (const int status = list(images); status != kExitOk)
            return status;
        if (images.empty())
            return failure(name_, "it contains no image", kExitNotFound);
        if (std::any_of(images.begin(), images.end(),
                        [](const Listed& image) { return image.rootfs; })) {
            const int status = failure(name_, "it is a root filesystem and not an image");
            print_hint("'zncctl import' makes an image of a root filesystem");
            return status;
        }
        keep_for_this_machine(images);
        if (const std::string problem = limit_problem(images); !problem.empty())
            return failure(name_, problem);
        return load_images(images);
    }

  private:
    int list(std::vector<Listed>& images) const
    {
        const ProgramEnd end =
            run_program(import_program(), {"--list", "--source-name=" + name_, "--", "-"},
                        archive_.fd(), Output::kKept);
        if (end.too_much)
            return failure(name_, "the list of its images is too long");
        if (end.error != 0 || end.status != kExitOk)
            return end.error != 0 ? import_failure(end.error) : end.status;
        const Json list = parse_json(end.output).value_or(Json());
        for (const Json& object : children(&list))
            images.push_back(listed_of(object, images.size()));
        return kExitOk;
    }

    // Adds the images. One that is incomplete in the archive is left out if there are others.
    int load_images(const std::vector<Listed>& images)
    {
        int result = kExitOk;
        bool complete = false;
        for (const Listed& image : images) {
            if (!image.problem.empty()) {
                print_warning(
                    fmt::format("{}: {} is not added: {}", name_, label_of(image), image.problem));
                continue;
            }
            complete = true;
            if (const int status = load_image(image); status != kExitOk)
                result = status;
        }
        return complete ? result : failure(name_, "it contains no complete image");
    }

    int load_image(const Listed& image)
    {
        const std::vector<std::string> names = full_names(image);
        const Added added =
            add_converted({operand_of(image), archive_.fd(), name_, usual_options()}, names, "");
        if (added.status != kExitOk)
            return added.status;
        std::string text;
        for (const std::string& name : names)
            text += fmt::format("Loaded image: {}\n", name);
        if (names.empty())
            text = fmt::format("Loaded image: {}\n", added.id);
        return args_.has("quiet") ? static_cast<int>(kExitOk) : print_result(text);
    }

    const Arguments& args_;
    ArchiveCopy archive_;
    const std::string& name_;
};

} // namespace

int cmd_load(const Arguments& args)
try {
    return Load(args, args.value("input", "-")).load();
} catch (const std::runtime_error& error) {
    return failure("", error.what());
}

} // namespace zncctl
