#include "source_kinds.hpp"

namespace zncimport {
namespace {

class RootfsSource : public Source {
  public:
    explicit RootfsSource(std::optional<FilePart> archive) : archive_(std::move(archive)) {}

    std::vector<SourceImage> images() override
    {
        // An empty stream usually means that the process writing to the pipe has failed.
        if (archive_ && archive_->extent.size == 0)
            throw Failure(archive_->name, "is empty");
        std::vector<SourceImage> images(1);
        if (archive_)
            images[0].layers.push_back(
                {archive_->name, "", "", static_cast<std::int64_t>(archive_->extent.size)});
        return images;
    }

    ReaderPtr open(const Layer& layer) override
    {
        if (!archive_)
            throw Failure(layer.name, "is a directory, not an archive");
        return archive_->read();
    }

    [[nodiscard]] bool is_tree() const override { return !archive_; }

  private:
    std::optional<FilePart> archive_;
};

} // namespace

SourcePtr rootfs_source(std::optional<FilePart> archive)
{
    return std::make_unique<RootfsSource>(std::move(archive));
}

} // namespace zncimport
