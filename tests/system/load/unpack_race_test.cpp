// Many processes concurrently unpack images with common layers: each gets a complete tree, the
// store has one copy of each layer, and nothing partial is left. RACE_ROUNDS is the number of
// rounds.

#include "layered_image.hpp"
#include "system_world.hpp"

using namespace system_world;

namespace {

constexpr const char* kStore = "/tmp/store";
constexpr int kProcesses = 16;
constexpr int kLayers = 3;
constexpr int kFiles = 60;

std::string layout_of(int n)
{
    return "/tmp/layout" + std::to_string(n);
}
std::string bundle_of(int n)
{
    return "/tmp/bundles/" + std::to_string(n);
}

// Checks that the store contains complete layers with the right names and nothing else.
void expect_whole_store(const std::vector<std::string>& trees)
{
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(std::string(kStore) + "/layers")) {
        const std::string name = entry.path().filename();
        EXPECT_EQ(name.find_first_not_of("0123456789abcdef"), std::string::npos) << name;
        found.push_back(layered_image::tree_text(entry.path()));
    }
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, trees);
}

class UnpackRace : public testing::Test {
  protected:
    void SetUp() override { ::setenv("ZNC_BASE", kStore, 1); }
    void TearDown() override
    {
        clear();
        for (int n = 0; n < kProcesses; n++)
            fs::remove_all(layout_of(n));
        ::unsetenv("ZNC_BASE");
    }

    static void clear()
    {
        for (const auto& device : fs::directory_iterator("/overlay"))
            EXPECT_EQ(zncRemoveOvlRootfsDev(device.path().c_str()), OK);
        fs::remove_all("/tmp/bundles");
        fs::remove_all(kStore);
    }

    // Image `n` has layers n, n + 1 ... of kLayers, so that all images share layers and no two are
    // equal.
    static layout::Image rotated(int n, int count, int files = 6)
    {
        layout::Image image = layered_image::image_of(kLayers, files);
        std::rotate(image.layers.begin(), image.layers.begin() + n % kLayers, image.layers.end());
        image.layers.resize(static_cast<std::size_t>(count));
        return image;
    }

    // Runs all unpacks concurrently, released by closing a pipe; returns the exit codes, 0 or an
    // error.
    static std::vector<int> unpack_all(const std::function<std::string(int)>& layout,
                                       unsigned option)
    {
        fs::create_directories("/tmp/bundles");
        int gate[2];
        EXPECT_EQ(::pipe(gate), 0);
        std::vector<pid_t> pids;
        for (int n = 0; n < kProcesses; n++)
            pids.push_back(begin_child([&] {
                char byte = 0;
                ::close(gate[1]);
                const bool open = ::read(gate[0], &byte, 1) == 0;
                if (open && zncUnpack(bundle_of(n).c_str(), layout(n).c_str(), nullptr, option,
                                      nullptr) == OK)
                    return 0;
                return errno > 0 && errno < 120 ? errno : 120;
            }));
        ::close(gate[0]);
        ::close(gate[1]);
        std::vector<int> codes;
        for (const pid_t pid : pids)
            codes.push_back(exit_code(pid));
        return codes;
    }
};

std::vector<std::string> trees_of(const layout::Image& image)
{
    std::vector<std::string> trees;
    for (const std::string& layer : image.layers) {
        const layout::TempDir dir;
        layout::write_file(dir / "layer.tar", layer);
        fs::create_directory(dir / "tree");
        EXPECT_EQ(zncTarExtract((dir / "layer.tar").c_str(), (dir / "tree").c_str(), 0, FALSE), OK);
        trees.push_back(layered_image::tree_text(dir / "tree"));
    }
    std::sort(trees.begin(), trees.end());
    return trees;
}

TEST_F(UnpackRace, OfOneLayerAllSucceedAndOneWholeCopyStays)
{
    const layout::Image image = rotated(0, 1, kFiles);
    layout::Layout(layout_of(0)).add(image);
    const std::vector<std::string> trees = trees_of(image);
    const int rounds = size_of("RACE_ROUNDS", 20);
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        EXPECT_EQ(unpack_all([](int) { return layout_of(0); }, 0), std::vector<int>(kProcesses, 0));
        expect_whole_store(trees);
        for (int n = 0; n < kProcesses; n++)
            EXPECT_TRUE(fs::exists(bundle_of(n) + "/config.json")) << n;
        clear();
    }
    std::printf("%d rounds of %d processes\n", rounds, kProcesses);
}

// An image with several layers has only one device, created by the first unpack: the others fail
// because it exists, and leave no bundle.
TEST_F(UnpackRace, OfImagesThatShareLayersOneOfEachSucceeds)
{
    for (int n = 0; n < kLayers; n++)
        layout::Layout(layout_of(n)).add(rotated(n, kLayers));
    const std::vector<std::string> trees = trees_of(rotated(0, kLayers));
    const int rounds = size_of("RACE_ROUNDS", 20);
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        const std::vector<int> codes = unpack_all([](int n) { return layout_of(n % kLayers); }, 0);
        for (int image = 0; image < kLayers; image++) {
            int whole = 0;
            for (int n = image; n < kProcesses; n += kLayers) {
                const auto code = codes[static_cast<std::size_t>(n)];
                whole += code == 0 ? 1 : 0;
                EXPECT_TRUE(code == 0 || code == EEXIST) << code;
                EXPECT_EQ(fs::exists(bundle_of(n)), code == 0) << n;
            }
            EXPECT_EQ(whole, 1) << image;
        }
        expect_whole_store(trees);
        clear();
    }
}

// In each round one process is killed; the next unpack removes what it left.
TEST_F(UnpackRace, LeftoversOfAKilledUnpackAreRemovedByTheNext)
{
    const layout::Image image = rotated(0, 1, kFiles);
    layout::Layout(layout_of(0)).add(image);
    const std::vector<std::string> trees = trees_of(image);
    const int rounds = size_of("RACE_ROUNDS", 20);
    int left = 0;
    for (int round = 0; round < rounds && !HasFailure(); round++) {
        fs::create_directories("/tmp/bundles");
        const pid_t victim = begin_child([] {
            return zncUnpack(bundle_of(99).c_str(), layout_of(0).c_str(), nullptr, 0, nullptr);
        });
        std::this_thread::sleep_for(std::chrono::microseconds(400 * (round % 20)));
        ::kill(victim, SIGKILL);
        exit_code(victim);
        if (fs::exists(kStore))
            for (const auto& entry : fs::recursive_directory_iterator(kStore))
                left += entry.path().filename().string().rfind(".unpack-", 0) == 0 ? 1 : 0;
        EXPECT_EQ(unpack_all([](int) { return layout_of(0); }, 0), std::vector<int>(kProcesses, 0));
        expect_whole_store(trees);
        clear();
    }
    std::printf("%d rounds, %d stages of killed processes\n", rounds, left);
}

} // namespace
