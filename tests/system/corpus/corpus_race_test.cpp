// Tests with trees and blobs that another process modifies while they are used. For manual runs,
// set CORPUS_FLIPS and CORPUS_REWRITES.
#include "corpus_world.hpp"
#include "tarforge.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

using tarforge::Archive;

namespace {

namespace fs = std::filesystem;

std::uint64_t figure(const char* name, std::uint64_t otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// Repeats an action until it goes out of scope.
class Meanwhile {
  public:
    explicit Meanwhile(std::function<void()> step)
        : thread_([this, step = std::move(step)] {
              while (!stop_)
                  step();
          })
    {
    }
    ~Meanwhile()
    {
        stop_ = true;
        thread_.join();
    }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

  private:
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

bool is_link(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

// Exchanges a directory and a link to the outside. Returns true on success. Otherwise both exist
// again in the next round: extraction removes the link and recreates the directory.
bool exchange(const std::string& one, const std::string& other)
{
    std::error_code ignored;
    if (is_link(one) != is_link(other))
        return renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
    if (symlink("../outside", other.c_str()) != 0 && test_tree::exists(one))
        fs::remove_all(other, ignored);
    else if (!test_tree::exists(one))
        fs::rename(other, one, ignored);
    return false;
}

class Race : public testing::Test {
  protected:
    Race()
    {
        fs::create_directories("/overlay");
        setenv("ZNC_BASE", base_.c_str(), 1);
        sentinel::make(dir_ / "outside");
        sentinel::make(base_ + "/flattened/outside");
        sentinel::make(base_ + "/layers/outside");
    }
    ~Race() override { unsetenv("ZNC_BASE"); }

    [[nodiscard]] std::array<sentinel::Snapshot, 3> look() const
    {
        return {sentinel::look(dir_ / "outside"), sentinel::look(base_ + "/flattened/outside"),
                sentinel::look(base_ + "/layers/outside")};
    }
    void expect_untouched(const std::array<sentinel::Snapshot, 3>& before) const
    {
        const auto after = look();
        for (std::size_t i = 0; i < before.size(); ++i)
            EXPECT_EQ(sentinel::difference(before.at(i), after.at(i)), "");
    }
    STATUS unpack(unsigned option)
    {
        errno = 0;
        const STATUS status =
            zncImageUnpack(bundle_.c_str(), layout_.c_str(), nullptr, option, nullptr);
        const int error = errno;
        if (status == OK) {
            EXPECT_EQ(zncImageBundleDelete(bundle_.c_str()), OK);
        }
        EXPECT_FALSE(test_tree::exists(bundle_));
        errno = error;
        return status;
    }

    test_tree::TempDir dir_;
    std::string base_ = dir_ / "base";
    std::string bundle_ = dir_ / "bundle";
    layout::Layout layout_{fs::path(dir_ / "image")};
};

} // namespace

// A flattened tree is extracted again while a container that uses it as its root replaces
// directories by links to the outside.
TEST_F(Race, DirectoriesAndLinksThatChangePlacesLeadNowhere)
{
    Archive archive;
    archive.dir("a/", 0755, 5).dir("a/dir/", 0755, 5);
    for (int i = 0; i < 40; ++i)
        archive.file("a/f" + std::to_string(i), "x", 0777, 99)
            .dir("a/dir/d" + std::to_string(i) + "/", 0777, 99)
            .file("a/secret", "overwritten", 0777, 99)
            .file("a/dir/file", "overwritten", 0777, 99);
    layout::Image image;
    image.layers = {std::string(1024, '\0'), archive.end().bytes()};
    layout_.add(image);
    ASSERT_EQ(unpack(ZNC_OPT_FLATTEN), OK);
    std::string root;
    for (const std::string& name : sentinel::names_in(base_ + "/flattened"))
        if (name != "outside")
            root = base_ + "/flattened/" + name;
    ASSERT_TRUE(test_tree::exists(root + "/a/f0"));

    const auto before = look();
    constexpr std::uint64_t kUsual = 5000;
    // limit for a machine that is too busy for that many exchanges
    constexpr std::uint64_t kUnpacks = 3000;
    const std::uint64_t wanted = figure("CORPUS_FLIPS", kUsual);
    std::atomic<std::uint64_t> flips = 0;
    std::uint64_t unpacks = 0;
    std::uint64_t refused = 0;
    {
        const Meanwhile flipper([&] { flips += exchange(root + "/a", root + "/link") ? 1 : 0; });
        for (; flips < wanted && (wanted > kUsual || unpacks < kUnpacks); ++unpacks)
            refused += unpack(ZNC_OPT_FLATTEN) != OK ? 1 : 0;
    }
    std::printf("%llu exchanges during %llu unpacks, of which %llu were refused\n",
                static_cast<unsigned long long>(flips), static_cast<unsigned long long>(unpacks),
                static_cast<unsigned long long>(refused));
    expect_untouched(before);
}

namespace {

struct Layers {
    std::string good;
    std::string hostile; // at least as long
};

Layers two_layers()
{
    Archive good;
    Archive hostile;
    for (int i = 0; i < 400; ++i) {
        const std::string number = std::to_string(i);
        good.file("f" + number, "good");
        hostile.symlink("l" + number, "../outside").file("secret", "hostile");
        hostile.file("l" + number, "hostile", 04777).file("f", "hostile");
    }
    hostile.symlink("l", "../outside").file("l/secret", "hostile");
    return {good.end().bytes(), hostile.end().bytes()};
}

std::string result_of(STATUS status, int error)
{
    if (status == OK)
        return "unpacked";
    if (error == S_zncLib_MANIFEST_INVALID)
        return "refused by the digest";
    return error == ENOTDIR || error == 0 ? "failed in extraction" : std::to_string(error);
}

} // namespace

// A layer is verified and then extracted; a process that can write to the layout can replace it in
// between. The replacement is then extracted under the same restrictions as any archive, and
// nothing is published if it is not valid.
TEST_F(Race, ABlobRewrittenDuringTheUnpackIsConfined)
{
    const Layers layers = two_layers();
    layout::Image image;
    image.layers = {layers.good};
    layout_.add(image);
    const std::string digits = layout::sha256_hex(layers.good);
    const std::string blob = layout_.blob("sha256:" + digits);
    const std::string stored = base_ + "/layers/" + digits;

    const auto before = look();
    std::map<std::string, int> results = {
        {"unpacked", 0}, {"refused by the digest", 0}, {"failed in extraction", 0}};
    const std::size_t kinds = results.size();
    {
        // The layer is hostile while it is extracted, and valid while it is verified.
        const Meanwhile writer([&] {
            bool extracting = false;
            for (const std::string& name : sentinel::names_in(base_ + "/layers"))
                extracting = extracting || name.starts_with(".unpack-");
            const int fd = open(blob.c_str(), O_WRONLY | O_CLOEXEC);
            EXPECT_GT(pwrite(fd, (extracting ? layers.hostile : layers.good).data(),
                             layers.good.size(), 0),
                      0);
            close(fd);
        });
        for (std::uint64_t round = figure("CORPUS_REWRITES", 150); round > 0; --round) {
            const STATUS status = unpack(0);
            ++results[result_of(status, errno)];
            ASSERT_EQ(test_tree::exists(stored), status == OK);
            ASSERT_EQ(corpus::forbidden_in(stored), "");
            fs::remove_all(stored);
        }
    }
    for (const auto& [result, count] : results)
        std::printf("%s: %d\n", result.c_str(), count);
    EXPECT_EQ(results.size(), kinds) << "an error that is not described";
    expect_untouched(before);
    EXPECT_EQ(sentinel::names_in(base_ + "/layers"), std::set<std::string>{"outside"});
}

TEST_F(Race, ManyProcessesUnpackOneImageAndOneCopyStays)
{
    constexpr int kProcesses = 16;
    Archive archive;
    for (int i = 0; i < 50; ++i)
        archive.file("f" + std::to_string(i), std::string(3000, 'x'));
    layout::Image image;
    image.layers = {archive.end().bytes()};
    layout_.add(image);
    const std::string digits = layout::sha256_hex(image.layers[0]);
    const std::uint64_t rounds = figure("CORPUS_ROUNDS", 10);
    for (std::uint64_t round = 0; round < rounds; ++round) {
        std::vector<pid_t> children;
        for (int i = 0; i < kProcesses; ++i)
            if (children.push_back(fork()); children.back() == 0)
                _exit(zncImageUnpack((bundle_ + std::to_string(i)).c_str(), layout_.c_str(),
                                     nullptr, 0, nullptr) == OK
                          ? 0
                          : 1);
        for (const pid_t child : children) {
            int status = -1;
            ASSERT_EQ(waitpid(child, &status, 0), child);
            ASSERT_EQ(status, 0);
        }
        ASSERT_EQ(sentinel::names_in(base_ + "/layers"),
                  (std::set<std::string>{digits, "outside"}));
        ASSERT_EQ(corpus::tree_of(base_ + "/layers/" + digits).size(), 50U);
        for (int i = 0; i < kProcesses; ++i) {
            ASSERT_TRUE(test_tree::exists(bundle_ + std::to_string(i) + "/config.json"));
            ASSERT_EQ(zncImageBundleDelete((bundle_ + std::to_string(i)).c_str()), OK);
        }
        fs::remove_all(base_ + "/layers/" + digits);
    }
    std::printf("%llu rounds of %d processes\n", static_cast<unsigned long long>(rounds),
                kProcesses);
}
