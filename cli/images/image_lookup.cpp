#include "image_lookup.hpp"

#include "reference.hpp"

#include <algorithm>

namespace zncctl {
namespace {

bool is_meant(const StoredImage& image, const Reference& name)
{
    if (image.name == name.text())
        return true;
    const auto own = parse_reference(image.name, "");
    return !name.digest.empty() && own && own->repository == name.repository &&
           (image.manifest.digest == name.digest || image.source == name.digest);
}

std::vector<std::size_t> with_name(const std::vector<StoredImage>& images, const Reference& name)
{
    for (std::size_t i = 0; i < images.size(); i++)
        if (is_meant(images[i], name))
            return {i};
    return {};
}

// The entries of the image whose id, or manifest, begins with these digits.
std::vector<std::size_t> with_id(const std::vector<StoredImage>& images, const std::string& text,
                                 std::string& problem)
{
    const std::string area = image_area();
    const std::string_view digits = id_digits(text);
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < images.size(); i++) {
        const StoredImage& image = images[i];
        const std::string id = read_stored(area, image).config.digest;
        if (!id_digits(id).starts_with(digits) && image.manifest.digest != text)
            continue;
        if (!found.empty() && images[found[0]].manifest.digest != image.manifest.digest)
            problem = "several images have an id that begins like this";
        found.push_back(i);
    }
    return problem.empty() ? found : std::vector<std::size_t>();
}

} // namespace

std::vector<std::size_t> find_stored(const std::vector<StoredImage>& images,
                                     const std::string& text, std::string& problem)
{
    problem.clear();
    for (const Reference& name : possible_references(text))
        if (auto found = with_name(images, name); !found.empty())
            return found;
    std::vector<std::size_t> found;
    if (is_id_prefix(text))
        found = with_id(images, text, problem);
    if (found.empty() && problem.empty())
        problem = possible_references(text).empty() && !is_id_prefix(text)
                      ? "it is not a valid name of an image"
                      : kNoSuchImage;
    return found;
}

bool has_name(const StoredImage& image, const std::string& text)
{
    const auto names = possible_references(text);
    return std::any_of(names.begin(), names.end(),
                       [&](const Reference& name) { return is_meant(image, name); });
}

} // namespace zncctl
