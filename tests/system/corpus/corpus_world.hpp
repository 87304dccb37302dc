// corpus_world.hpp - extracts one hostile archive or image into a directory surrounded by files
// that must not change, and detects every change that is not the result of the call.
#ifndef CORPUS_WORLD_HPP
#define CORPUS_WORLD_HPP

#include "layout_builder.hpp"
#include "sentinel.hpp"
#include "test_tree.hpp"

#include "zncontainer.h"

#include <set>
#include <string>
#include <vector>

namespace corpus {

// The ways to extract an archive.
enum class Storage {
    kDirect,    // the extractor alone
    kRaw,       // an image without overlays, into a bundle that exists
    kFlattened, // the second layer of an image that is flattened
    kLayered,   // a layer in the layer store
};
const char* name_of(Storage storage);

struct Outcome {
    STATUS status;
    int error;
};

// A directory that must not change, with an absolute name that members can use.
inline constexpr char kOutside[] = "/tmp/znc-outside";

class World {
  public:
    explicit World(Storage storage);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Extracts the archives one after another, as the layers of an image or directly.
    Outcome extract(const std::vector<std::string>& layers);
    // Unpacks an image with these layers that the caller has written to layout().
    Outcome unpack(const std::vector<std::string>& layers);

    [[nodiscard]] layout::Layout& layout() { return layout_; }
    // The path of the tree of the last extraction, if it exists.
    [[nodiscard]] const std::string& root() const { return root_; }
    [[nodiscard]] std::string bundle() const { return dir_ / "bundle"; }

    // Describes forbidden changes by the call; "" if there are none.
    [[nodiscard]] std::string damage() const;
    // Describes files that do not match the result of the call; "" if there are none.
    [[nodiscard]] std::string leftovers(const Outcome& outcome) const;

  private:
    struct View {
        sentinel::Snapshot world;
        sentinel::Snapshot outside;
        std::set<std::string> places; // names in the parent directories
    };
    [[nodiscard]] View look() const;
    void expect_products(const std::vector<std::string>& layers);
    void may_appear(const std::string& path);
    Outcome extract_directly(const std::vector<std::string>& layers);
    template <class Call> Outcome watched(Call call);

    Storage storage_;
    test_tree::TempDir dir_;
    layout::Layout layout_;
    std::string root_;
    std::string device_;
    std::set<std::string> products_; // relative to the world; including everything below
    std::set<std::string> parents_;  // their parents, whose times and sizes may change
    View before_;
    View after_;
};

// Describes each file below `root`: "d/", "f=content", "l->target", anything else "n!MODE".
std::set<std::string> tree_of(const std::string& root);

// Finds what no extraction may create: set-ID bits, devices, hard links, foreign owners,
// attributes.
std::string forbidden_in(const std::string& root);

} // namespace corpus

#endif
