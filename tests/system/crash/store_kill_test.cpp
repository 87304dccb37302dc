// Kills processes that unpack images and collect garbage at random system calls. A bundle whose
// unpack was reported as successful must keep a complete tree: immediately, after every later
// operation on the store, and after the killed operation was repeated. KILL_ROUNDS is the number of
// kills, KILL_SEED the random seed.

#include "crashat_tracer.hpp"
#include "layered_image.hpp"
#include "test_size.hpp"
#include "zncontainer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using system_world::size_of;

constexpr const char* kStore = "/tmp/store";
constexpr const char* kBundles = "/tmp/bundles";
constexpr seconds kHang(60);
constexpr int kLayers = 3;
constexpr int kFiles = 6;
constexpr int kTogether = 4;

// Describes a tree: each path with its kind, mode, time and content.
std::string manifest_of(const fs::path& root)
{
    std::vector<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat st = {};
        EXPECT_EQ(::lstat(entry.path().c_str(), &st), 0);
        std::string line = fs::path(entry.path().native().substr(root.native().size())).native();
        line += " " + std::to_string(st.st_mode);
        if (entry.is_symlink())
            line += " -> " + fs::read_symlink(entry.path()).string();
        else if (entry.is_regular_file())
            line += " " + std::to_string(st.st_mtim.tv_sec) + " " +
                    layout::sha256_hex(layout::read_file(entry.path()));
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

std::string root_of(const std::string& bundle)
{
    const std::string config = layout::read_file(bundle + "/config.json");
    constexpr std::string_view kKey = "\"path\":";
    const std::size_t from = config.find('"', config.find(kKey) + kKey.size()) + 1;
    return config.substr(from, config.find('"', from) - from);
}

// An image with a unique name, and its expected tree.
struct Sample {
    std::string layout;
    std::string manifest;

    Sample(const std::string& name, layout::Image image) : layout("/tmp/layout-" + name)
    {
        layout::Layout(layout).add(image);
        const layout::TempDir dir;
        fs::create_directory(dir / "tree");
        for (const std::string& layer : image.layers) {
            layout::write_file(dir / "layer.tar", layer);
            EXPECT_EQ(zncTarExtract((dir / "layer.tar").c_str(), (dir / "tree").c_str(), 0, FALSE),
                      OK);
        }
        manifest = manifest_of(dir.path() / "tree");
    }
};

layout::Image numbered(int number, int layers)
{
    layout::Image image = layered_image::image_of(layers, kFiles);
    image.layers.push_back(layout::tar({{"number", std::to_string(number)},
                                        layout::symlink("top", "number"),
                                        layout::directory("last/")}));
    return image;
}

class StoreKill : public testing::Test {
  protected:
    void SetUp() override
    {
        ::setenv("ZNC_BASE", kStore, 1);
        const int seed = size_of("KILL_SEED", 20);
        dice_.seed(static_cast<unsigned>(seed));
        RecordProperty("seed", seed);
    }
    void TearDown() override
    {
        forget();
        ::unsetenv("ZNC_BASE");
    }

    void forget()
    {
        told_.clear();
        for (const auto& device : fs::directory_iterator("/overlay"))
            EXPECT_EQ(zncRemoveOvlRootfsDev(device.path().c_str()), OK);
        fs::remove_all(kBundles);
        fs::remove_all(kStore);
    }

    static std::string bundle(const std::string& name) { return kBundles + ("/" + name); }

    static int unpack(const Sample& image, const std::string& name, unsigned option)
    {
        if (zncUnpack(bundle(name).c_str(), image.layout.c_str(), nullptr, option, nullptr) == OK)
            return 0;
        return errno > 0 && errno < 120 ? errno : 120;
    }
    static int collect() { return zncStoreCollect(nullptr, 0, 0, nullptr, nullptr) == OK ? 0 : 1; }

    // Runs the operation in this process and records its success.
    void expect_unpacked(const Sample& image, const std::string& name, unsigned option)
    {
        EXPECT_EQ(unpack(image, name, option), 0) << name;
        told_.push_back({name, &image});
    }

    // Checks that every bundle that was reported as successful exists and is complete.
    void expect_whole(const char* when)
    {
        for (const auto& [name, image] : told_) {
            const std::string root = root_of(bundle(name));
            ASSERT_TRUE(fs::exists(root)) << when << ": " << name << " " << root;
            ASSERT_EQ(manifest_of(root), image->manifest) << when << ": " << name;
        }
    }
    static void expect_no_leftovers()
    {
        for (const char* area : {"/layers", "/flattened", "/records"})
            if (fs::exists(kStore + std::string(area)))
                for (const auto& entry : fs::directory_iterator(kStore + std::string(area))) {
                    const std::string name = entry.path().filename();
                    EXPECT_FALSE(name.starts_with(".")) << name;
                }
    }

    // Runs the operation in a child process whose system calls are counted, and which is killed at
    // call number `point`, while others run concurrently. Returns the exit codes; -1: killed.
    std::vector<int> run(const std::function<int()>& body, std::size_t point,
                         const std::vector<std::function<int()>>& beside = {})
    {
        int gate[2];
        EXPECT_EQ(::pipe2(gate, O_CLOEXEC), 0);
        std::vector<pid_t> pids;
        const auto begin = [&](const std::function<int()>& what) {
            std::fflush(nullptr);
            const pid_t pid = ::fork();
            if (pid == 0) {
                char byte = 0;
                ::close(gate[1]);
                ::_exit(::read(gate[0], &byte, 1) == 0 ? what() : 119);
            }
            tracer_.expect(pid);
            pids.push_back(pid);
        };
        begin(body);
        for (const auto& other : beside)
            begin(other);
        EXPECT_TRUE(tracer_.adopt(pids[0], Side::kClient));
        calls_ = 0;
        tracer_.watch(Side::kClient, [&](pid_t, long) -> Fate { return {++calls_ == point, 0}; });
        ::close(gate[0]);
        ::close(gate[1]);
        std::vector<int> codes;
        for (const pid_t pid : pids) {
            EXPECT_TRUE(
                tracer_.serve_until([&] { return tracer_.status(pid).has_value(); }, kHang));
            const int status = tracer_.status(pid).value_or(0);
            codes.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        }
        tracer_.watch_nothing();
        EXPECT_EQ(tracer_.crashes(), "");
        return codes;
    }

    // A store with items that bundles need and items that none needs.
    void furnish()
    {
        fs::create_directories(kBundles);
        expect_unpacked(flat_, "old-flat", ZNC_OPT_FLATTEN);
        expect_unpacked(single_, "old-single", 0);
        expect_unpacked(layered_, "old-layered", 0);
        for (const unsigned option : {0U, ZNC_OPT_FLATTEN}) {
            EXPECT_EQ(unpack(gone_, "gone", option), 0);
            EXPECT_EQ(zncImageBundleDelete(bundle("gone").c_str()), OK);
        }
    }

    struct Operation {
        std::function<int()> act;
        std::function<void(int)> note; // called with the exit code
        std::vector<std::function<int()>> beside;
        std::function<void()> repeat;
    };

    // Kills the operation at random points, with a freshly filled store each time.
    void kill_often(const Operation& operation, int rounds)
    {
        furnish();
        EXPECT_EQ(run(operation.act, 0).front(), 0);
        const std::size_t all = calls_;
        forget();
        int killed = 0;
        for (int round = 0; round < rounds && !HasFailure(); round++) {
            furnish();
            const std::size_t point = std::uniform_int_distribution<std::size_t>(1, all)(dice_);
            SCOPED_TRACE("killed at call " + std::to_string(point) + " of " + std::to_string(all));
            const std::vector<int> codes = run(operation.act, point, operation.beside);
            killed += codes[0] == -1 ? 1 : 0;
            if (codes[0] != -1)
                operation.note(codes[0]);
            for (std::size_t i = 1; i < codes.size(); i++) {
                EXPECT_EQ(codes[i], 0) << i;
                told_.push_back({"beside" + std::to_string(i), &flat_});
            }
            expect_whole("at once");
            expect_unpacked(other_, "later", 0);
            expect_whole("after another unpack");
            EXPECT_EQ(collect(), 0);
            expect_whole("after a collection");
            // If the bundle was complete when the process was killed, it has a device, which is
            // removed later, too.
            fs::remove_all(bundle("new"));
            EXPECT_EQ(collect(), 0);
            operation.repeat();
            expect_whole("after the same again");
            EXPECT_EQ(collect(), 0);
            expect_whole("after another collection");
            expect_no_leftovers();
            forget();
        }
        EXPECT_GT(killed, rounds / 2);
        std::printf("%d of %d rounds killed it, at one of %zu calls\n", killed, rounds, all);
    }

    Operation unpacking(const Sample& image, unsigned option)
    {
        return {[&image, option] { return unpack(image, "new", option); },
                [this, &image](int code) {
                    EXPECT_EQ(code, 0);
                    told_.push_back({"new", &image});
                },
                {},
                [this, &image, option] {
                    std::erase_if(told_, [](const auto& one) { return one.first == "new"; });
                    expect_unpacked(image, "new", option);
                }};
    }

    static int rounds() { return size_of("KILL_ROUNDS", 100) / 5; }

    const Sample flat_{"flat", numbered(1, kLayers)};
    const Sample single_{"single", layered_image::image_of(1, kFiles)};
    const Sample layered_{"layered", numbered(2, kLayers)};
    const Sample gone_{"gone", numbered(3, 1)};
    const Sample other_{"other", numbered(4, 1)};
    const Sample fresh_{"fresh", numbered(5, kLayers)};
    std::vector<std::pair<std::string, const Sample*>> told_;
    std::mt19937 dice_;
    std::size_t calls_ = 0;
    Tracer tracer_{"/proc/self/exe"};
};

TEST_F(StoreKill, KilledCollectionLeavesAConsistentStore)
{
    kill_often({collect, [](int code) { EXPECT_EQ(code, 0); }, {}, [] {}}, rounds());
}

TEST_F(StoreKill, KilledFlattenedUnpackOfANewTreeLeavesAConsistentStore)
{
    kill_often(unpacking(fresh_, ZNC_OPT_FLATTEN), rounds());
}

TEST_F(StoreKill, KilledFlattenedUnpackOfAnExistingTreeLeavesAConsistentStore)
{
    kill_often(unpacking(flat_, ZNC_OPT_FLATTEN), rounds());
}

TEST_F(StoreKill, KillingOneOfSeveralFlattenedUnpacksLeavesAConsistentStore)
{
    Operation operation = unpacking(flat_, ZNC_OPT_FLATTEN);
    for (int n = 1; n < kTogether; n++)
        operation.beside.emplace_back(
            [this, n] { return unpack(flat_, "beside" + std::to_string(n), ZNC_OPT_FLATTEN); });
    kill_often(operation, rounds());
}

TEST_F(StoreKill, KilledLayeredUnpackLeavesAConsistentStore)
{
    kill_often(unpacking(fresh_, 0), rounds());
}

} // namespace
