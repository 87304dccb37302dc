// corpus_world.hpp - one hostile archive or image in a world of its own: bait all round the place
// where it is extracted, and a comparison of everything that is not the product of the call.
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

// How an archive comes to the disk.
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

// Where nobody has any business, with an absolute name that members can carry.
inline constexpr char kOutside[] = "/tmp/znc-outside";

class World {
  public:
    explicit World(Storage storage);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Extracts the archives one after another, as the layers of an image or by themselves.
    Outcome extract(const std::vector<std::string>& layers);
    // Unpacks an image of these layers that the caller has written to layout().
    Outcome unpack(const std::vector<std::string>& layers);

    [[nodiscard]] layout::Layout& layout() { return layout_; }
    // Where the tree of the last extraction is, if it is anywhere.
    [[nodiscard]] const std::string& root() const { return root_; }
    [[nodiscard]] std::string bundle() const { return dir_ / "bundle"; }

    // What the call changed that it had no right to; "" if nothing.
    [[nodiscard]] std::string damage() const;
    // What it left or did not leave behind contrary to its result; "" if all is well.
    [[nodiscard]] std::string leftovers(const Outcome& outcome) const;

  private:
    struct View {
        sentinel::Snapshot world;
        sentinel::Snapshot outside;
        std::set<std::string> places; // names in the directories above
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
    std::set<std::string> products_; // relative to the world; with everything below
    std::set<std::string> parents_;  // of them: their times and sizes may change
    View before_;
    View after_;
};

// What is below `root`, one text for each: "d/", "f=content", "l->target", anything else "n!MODE".
std::set<std::string> tree_of(const std::string& root);

// Whatever no extraction may make: set-id bits, devices, second names, foreign owners, attributes.
std::string forbidden_in(const std::string& root);

} // namespace corpus

#endif
