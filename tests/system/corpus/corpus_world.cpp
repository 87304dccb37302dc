#include "corpus_world.hpp"

#include "descriptors.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace corpus {

namespace {

namespace fs = std::filesystem;

constexpr char kOverlay[] = "/overlay";

bool inside(const std::string& path, const std::string& top)
{
    return path == top || path.starts_with(top + "/");
}

std::string chain_of(const std::vector<std::string>& layers)
{
    std::string chain;
    for (const std::string& layer : layers)
        chain = layout::sha256_hex(layout::raw_bytes(chain) + layout::sha256_hex(layer));
    return chain;
}

// An archive without members, used as the layer below the tested one.
std::string empty_layer()
{
    return std::string(1024, '\0');
}

} // namespace

const char* name_of(Storage storage)
{
    switch (storage) {
    case Storage::kDirect:
        return "Direct";
    case Storage::kRaw:
        return "Raw";
    case Storage::kFlattened:
        return "Flattened";
    default:
        return "Layered";
    }
}

World::World(Storage storage) : storage_(storage), layout_(fs::path(dir_ / "image"))
{
    const std::map<Storage, std::string> beside = {{Storage::kDirect, "/target-evil"},
                                                   {Storage::kRaw, "/bundle/outside"},
                                                   {Storage::kFlattened, "/base/flattened/outside"},
                                                   {Storage::kLayered, "/base/layers/outside"}};
    sentinel::make(dir_ / "outside");
    sentinel::make(dir_.path() + beside.at(storage));
    fs::create_directories(dir_ / "base/layers");
    fs::create_directories(dir_ / "base/flattened");
    fs::remove_all(kOutside); // left over if an earlier test threw
    sentinel::make(kOutside);
    fs::create_directory(dir_ / "target");
    if (storage == Storage::kRaw) {
        fs::remove(kOverlay);
    } else {
        fs::create_directories(kOverlay);
    }
    setenv("ZNC_BASE", (dir_ / "base").c_str(), 1);
}

World::~World()
{
    if (!device_.empty()) {
        umount2(device_.c_str(), MNT_DETACH);
        fs::remove_all(device_);
    }
    unsetenv("ZNC_BASE");
    fs::remove_all(kOutside);
}

World::View World::look() const
{
    View view;
    for (const auto& [path, state] : sentinel::look(dir_.path())) {
        bool product = false;
        for (const std::string& top : products_)
            product = product || inside(path, top);
        if (!product)
            view.world[path] = parents_.count(path) != 0 ? "(may change)" : state;
    }
    view.outside = sentinel::look(kOutside);
    for (const char* place : {"/", "/tmp", "/run", "/dev", kOverlay})
        for (const std::string& name : sentinel::names_in(place))
            if (std::string(place) + "/" + name != device_)
                view.places.insert(std::string(place) + "/" + name);
    return view;
}

void World::may_appear(const std::string& path)
{
    products_.insert(path);
    const std::string parent = fs::path(path).parent_path();
    parents_.insert(parent.empty() ? "." : parent);
}

// The path of the root is known in advance; nothing but the root, the bundle and the layers may be
// created.
void World::expect_products(const std::vector<std::string>& layers)
{
    if (storage_ == Storage::kRaw) {
        may_appear("bundle/rootfs");
        may_appear("bundle/config.json");
        root_ = bundle() + "/rootfs";
        return;
    }
    may_appear("bundle");
    may_appear("base/records");
    // for a single layer, the tree is that of the layer store
    if (storage_ == Storage::kFlattened && layers.size() > 1) {
        may_appear("base/flattened/" + chain_of(layers));
        root_ = dir_ / "base/flattened/" + chain_of(layers);
        return;
    }
    // even without a layer: a temporary directory was created and removed
    parents_.insert("base/layers");
    for (const std::string& layer : layers)
        may_appear("base/layers/" + layout::sha256_hex(layer));
    root_ = dir_ / "base/layers/" + layout::sha256_hex(layers.back());
    if (layers.size() > 1)
        device_ = std::string(kOverlay) + "/" + chain_of(layers);
}

template <class Call> Outcome World::watched(Call call)
{
    before_ = look();
    const std::ptrdiff_t descriptors = open_descriptors();
    errno = 0;
    const STATUS status = call();
    const Outcome outcome = {status, errno};
    after_ = look();
    if (open_descriptors() != descriptors)
        after_.places.insert("(a descriptor was left open)");
    return outcome;
}

Outcome World::extract_directly(const std::vector<std::string>& layers)
{
    may_appear("target");
    root_ = dir_ / "target";
    std::vector<std::string> files;
    for (const std::string& layer : layers) {
        files.push_back(dir_ / "archive" + std::to_string(files.size()));
        test_tree::write_file(files.back(), layer);
    }
    const Outcome outcome = watched([&] {
        for (const std::string& file : files)
            if (zncUtilUntar(file.c_str(), root_.c_str()) != OK)
                return ERROR;
        return OK;
    });
    // The dry run is the same program.
    if (layers.size() == 1) {
        const auto nobody = [](const ZNC_LAYER_REPORT*, void*) {};
        const std::string digest = "sha256:" + layout::sha256_hex(layers[0]);
        errno = 0;
        const STATUS checked =
            zncLayerCheck(files[0].c_str(), digest.c_str(), nullptr, nobody, nullptr);
        EXPECT_EQ(checked, outcome.status);
        EXPECT_EQ(checked == OK ? 0 : errno, outcome.status == OK ? 0 : outcome.error);
    }
    return outcome;
}

Outcome World::extract(const std::vector<std::string>& layers)
{
    if (storage_ == Storage::kDirect)
        return extract_directly(layers);
    layout::Image image;
    image.layers = layers;
    if (storage_ == Storage::kFlattened)
        image.layers.insert(image.layers.begin(), empty_layer());
    layout_.add(image);
    return unpack(image.layers);
}

Outcome World::unpack(const std::vector<std::string>& layers)
{
    expect_products(layers);
    const unsigned option = storage_ == Storage::kFlattened ? ZNC_OPT_FLATTEN : 0;
    return watched([&] {
        return zncImageUnpack(bundle().c_str(), layout_.c_str(), nullptr, option, nullptr);
    });
}

std::string World::damage() const
{
    std::string text = sentinel::difference(before_.world, after_.world) +
                       sentinel::difference(before_.outside, after_.outside);
    for (const std::string& name : after_.places)
        if (before_.places.count(name) == 0)
            text += "  new: " + name + '\n';
    for (const std::string& name : before_.places)
        if (after_.places.count(name) == 0)
            text += "  gone: " + name + '\n';
    return text;
}

std::string World::leftovers(const Outcome& outcome) const
{
    if (storage_ == Storage::kDirect)
        return "";
    const bool good = outcome.status == OK;
    std::string text;
    if (test_tree::exists(bundle()) != (good || storage_ == Storage::kRaw))
        text += good ? "  no bundle\n" : "  the bundle stayed\n";
    if (test_tree::exists(bundle() + "/config.json") != good)
        text += good ? "  no configuration\n" : "  a configuration was written\n";
    // An extracted layer is kept even if the configuration is refused afterwards.
    const bool extracted = good || outcome.error == S_zncLib_BUNDLE_CONFIG_PARAM_INVALID;
    if (storage_ == Storage::kLayered && device_.empty() && test_tree::exists(root_) != extracted)
        text += extracted ? "  no layer\n" : "  a layer was published that is none\n";
    if (!good && !device_.empty() && test_tree::exists(device_))
        text += "  an overlay device was left\n";
    return text;
}

std::set<std::string> tree_of(const std::string& root)
{
    std::set<std::string> tree;
    if (!test_tree::exists(root))
        return tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string name = entry.path().string().substr(root.size() + 1);
        if (entry.is_symlink())
            tree.insert(name + "->" + fs::read_symlink(entry.path()).string());
        else if (entry.is_directory())
            tree.insert(name + "/");
        else if (entry.is_regular_file())
            tree.insert(name + "=" + test_tree::read_file(entry.path()));
        else
            tree.insert(name + "!" + std::to_string(test_tree::mode_of(entry.path())));
    }
    return tree;
}

namespace {

std::string forbidden_of(const std::string& path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return "  " + path + " cannot be looked at\n";
    std::string text;
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode) && !S_ISLNK(st.st_mode))
        text += "  " + path + " is of a kind that is never made\n";
    if ((st.st_mode & 07000) != 0)
        text += "  " + path + " has a mode beyond its nine bits\n";
    if (!S_ISDIR(st.st_mode) && st.st_nlink != 1)
        text += "  " + path + " has a second name\n";
    if (st.st_uid != geteuid() || st.st_gid != getegid())
        text += "  " + path + " belongs to somebody else\n";
    if (llistxattr(path.c_str(), nullptr, 0) > 0)
        text += "  " + path + " has extended attributes\n";
    return text;
}

} // namespace

std::string forbidden_in(const std::string& root)
{
    std::string text;
    if (!test_tree::exists(root))
        return text;
    text += forbidden_of(root);
    for (const auto& entry : fs::recursive_directory_iterator(root))
        text += forbidden_of(entry.path());
    return text;
}

} // namespace corpus
