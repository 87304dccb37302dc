#include "image_use.hpp"

#include "cli/images/image_store.hpp"
#include "image_users.hpp"

#include <map>
#include <set>
#include <string>

namespace zncctl {
namespace {

struct Blob {
    std::uint64_t size = 0;
    bool used = false;
};

class Blobs {
  public:
    void add(const Descriptor& blob, bool used)
    {
        Blob& known = blobs_[blob.digest];
        known.size = blob.size > 0 ? static_cast<std::uint64_t>(blob.size) : 0;
        known.used = known.used || used;
    }

    void sum_up(ImageUse& use) const
    {
        for (const auto& [digest, blob] : blobs_) {
            use.bytes += blob.size;
            use.unused_bytes += blob.used ? 0 : blob.size;
        }
    }

  private:
    std::map<std::string, Blob> blobs_; // by digest: shared blobs count once
};

} // namespace

std::optional<ImageUse> image_use()
{
    const auto users = containers_of_images();
    if (!users)
        return std::nullopt;
    ImageUse use;
    Blobs blobs;
    std::set<std::string> seen;
    const std::string area = image_area();
    for (const StoredImage& entry : stored_images()) {
        if (!seen.insert(entry.manifest.digest).second)
            continue;
        const bool used = users->contains(entry.manifest.digest);
        use.count++;
        use.used += used ? 1 : 0;
        const Image image = read_stored(area, entry);
        blobs.add(entry.manifest, used);
        if (!image.problem.empty())
            continue; // a damaged image
        blobs.add(image.config, used);
        for (const Descriptor& layer : image.layers)
            blobs.add(layer, used);
    }
    blobs.sum_up(use);
    return use;
}

} // namespace zncctl
