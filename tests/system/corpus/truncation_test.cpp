// Tests with truncated layers and damaged blobs: the documented error is reported, and neither a
// layer nor a bundle is left. For manual runs: TRUNCATION_STEP=1 truncates at every byte,
// CORRUPTION_BITS=1000 flips that many bits of each blob.
#include "corpus_world.hpp"
#include "tarforge.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <random>

using corpus::tree_of;
using tarforge::Archive;

namespace {

namespace fs = std::filesystem;

std::size_t figure(const char* name, std::size_t otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoul(text, nullptr, 10) : otherwise;
}

std::string noise(std::size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string text(size, '\0');
    for (char& c : text)
        c = static_cast<char>(random());
    return text;
}

// All without the end-of-archive blocks.
Archive golden()
{
    Archive archive;
    archive.dir("d/", 0755, 1111).file("d/small", "content").file("d/empty");
    archive.file("d/large", noise(7000, 1)).symlink("link", "d/small").dir("d/e/", 0700, 2222);
    return archive.file("d/e/block", noise(512, 2)).file("d/e/last", "last");
}

// More than the extractor reads in one call.
Archive many_files()
{
    Archive archive;
    for (int i = 0; i < 120; ++i)
        archive.file("f" + std::to_string(i), "number " + std::to_string(i));
    return archive;
}

class Damaged : public testing::Test {
  protected:
    Damaged()
    {
        fs::create_directories("/overlay");
        setenv("ZNC_BASE", base_.c_str(), 1);
    }
    ~Damaged() override { unsetenv("ZNC_BASE"); }

    STATUS unpack()
    {
        errno = 0;
        return zncImageUnpack(bundle_.c_str(), layout_->c_str(), nullptr, 0, nullptr);
    }
    void start_anew()
    {
        fs::remove_all(dir_ / "image");
        fs::remove_all(base_);
        fs::remove_all(bundle_);
        layout_.emplace(fs::path(dir_ / "image"));
    }
    [[nodiscard]] std::set<std::string> stored() const
    {
        return sentinel::names_in(base_ + "/layers");
    }

    // An image with correct digests whose layer is truncated.
    STATUS unpack_cut(const std::string& whole, std::size_t cut)
    {
        start_anew();
        layout::Image image;
        image.layers = {whole.substr(0, cut)};
        layout_->add(image);
        return unpack();
    }
    [[nodiscard]] std::set<std::string> tree() const
    {
        const std::set<std::string> names = stored();
        return names.size() == 1 ? tree_of(base_ + "/layers/" + *names.begin())
                                 : std::set<std::string>{"(none or many)"};
    }
    void expect_no_trace(const std::string& what) const
    {
        EXPECT_EQ(stored(), std::set<std::string>{}) << what;
        EXPECT_FALSE(test_tree::exists(bundle_)) << what;
    }

    test_tree::TempDir dir_;
    std::string base_ = dir_ / "base";
    std::string bundle_ = dir_ / "bundle";
    std::optional<layout::Layout> layout_;
};

// Truncate around the end of every block, and at regular intervals.
std::vector<std::size_t> cuts_of(std::size_t size, std::size_t otherwise)
{
    const std::size_t step = figure("TRUNCATION_STEP", otherwise);
    std::vector<std::size_t> cuts;
    for (std::size_t cut = 0; cut < size; ++cut)
        if (cut % step == 0 || (cut + 1) % 512 <= 1 || size - cut < 16)
            cuts.push_back(cut);
    return cuts;
}

} // namespace

// ------------------------------------------------------------------ cuts

struct PlainLayer {
    const char* name;
    Archive (*make)();
};

class DamagedPlain : public Damaged, public testing::WithParamInterface<PlainLayer> {};

TEST_P(DamagedPlain, CutAnywhereIsAnErrorUnlessAnEndMarkIsLeft)
{
    Archive archive = GetParam().make();
    const std::size_t data = archive.bytes().size();
    const std::string whole = archive.end().bytes();
    ASSERT_EQ(unpack_cut(whole, whole.size()), OK);
    const std::set<std::string> right = tree();
    std::size_t tried = 0;
    for (const std::size_t cut : cuts_of(whole.size(), 97)) {
        const STATUS status = unpack_cut(whole, cut);
        const int error = errno;
        const bool ended = cut % 512 == 0 && cut >= data + 512;
        ASSERT_EQ(status, ended ? OK : ERROR) << cut;
        if (ended) {
            ASSERT_EQ(tree(), right) << cut;
        } else {
            ASSERT_EQ(error, 0) << cut;
            expect_no_trace("cut at " + std::to_string(cut));
        }
        ++tried;
    }
    std::printf("cut at %zu of %zu places\n", tried, whole.size());
    EXPECT_GE(tried, 100U);
}

INSTANTIATE_TEST_SUITE_P(Layers, DamagedPlain,
                         testing::Values(PlainLayer{"Golden", golden},
                                         PlainLayer{"ManySmallFiles", many_files}),
                         [](const auto& layer) { return std::string(layer.param.name); });

TEST_F(Damaged, GzipLayerCutAnywhereIsAnErrorUnlessAllDataIsThere)
{
    const std::string whole = tarforge::gzip(golden().end().bytes());
    ASSERT_EQ(unpack_cut(whole, whole.size()), OK);
    const std::set<std::string> right = tree();
    std::size_t tried = 0;
    std::size_t whole_trees = 0;
    for (const std::size_t cut : cuts_of(whole.size(), 5)) {
        const STATUS status = unpack_cut(whole, cut);
        const int error = errno;
        if (status == OK) {
            ASSERT_EQ(tree(), right) << cut;
            ++whole_trees;
        } else {
            ASSERT_EQ(error, 0) << cut;
            expect_no_trace("cut at " + std::to_string(cut));
        }
        ++tried;
    }
    std::printf("cut at %zu of %zu places, %zu times with all data left\n", tried, whole.size(),
                whole_trees);
    EXPECT_LE(whole_trees, 16U); // truncated in the trailer or shortly before it
}

// ------------------------------------------------------------------ damage

namespace {

struct Blob {
    std::string name;
    fs::path file;
    int error;
};

class DamagedBlobs : public Damaged {
  protected:
    // One layer of each kind, the configuration and the manifest.
    std::vector<Blob> make()
    {
        start_anew();
        layout::Image image;
        image.layers = {golden().end().bytes(), tarforge::gzip(many_files().end().bytes())};
        layout_->add(image);
        const std::string config = layout_->config_json(image);
        std::vector<Blob> blobs;
        for (const auto& [name, bytes] :
             {std::pair("plain layer", image.layers[0]), std::pair("gzip layer", image.layers[1]),
              std::pair("configuration", config)})
            blobs.push_back({name, layout_->blob("sha256:" + layout::sha256_hex(bytes)),
                             S_zncLib_MANIFEST_INVALID});
        for (const auto& entry : fs::directory_iterator(layout_->dir() / "blobs/sha256")) {
            bool known = false;
            for (const Blob& blob : blobs)
                known = known || blob.file == entry.path();
            if (!known)
                blobs.push_back({"manifest", entry.path(), S_zncLib_INDEX_INVALID});
        }
        return blobs;
    }
    void expect_refused(const std::string& what, int error)
    {
        EXPECT_EQ(unpack(), ERROR) << what;
        EXPECT_EQ(errno, error) << what;
        EXPECT_FALSE(test_tree::exists(base_)) << what;
        EXPECT_FALSE(test_tree::exists(bundle_)) << what;
    }
    void expect_right()
    {
        fs::remove("/overlay"); // so that no device has to be removed
        EXPECT_EQ(unpack(), OK);
    }
};

} // namespace

TEST_F(DamagedBlobs, OneBitChangedInAnyBlobIsNoticed)
{
    const std::vector<Blob> blobs = make();
    ASSERT_EQ(blobs.size(), 4U);
    const std::size_t bits = figure("CORRUPTION_BITS", 64);
    std::size_t tried = 0;
    for (const Blob& blob : blobs) {
        const std::string right = test_tree::read_file(blob.file);
        for (std::size_t i = 0; i < bits; ++i, ++tried) {
            const std::size_t bit = i * (right.size() * 8 - 1) / (bits - 1);
            std::string wrong = right;
            wrong[bit / 8] = static_cast<char>(wrong[bit / 8] ^ (1 << bit % 8));
            test_tree::write_file(blob.file, wrong);
            expect_refused("bit " + std::to_string(bit) + " of the " + blob.name, blob.error);
        }
        test_tree::write_file(blob.file, right);
    }
    std::printf("%zu bits\n", tried);
    expect_right();
}

TEST_F(DamagedBlobs, OneByteMoreOrLessInAnyBlobIsNoticed)
{
    for (const Blob& blob : make()) {
        const std::string right = test_tree::read_file(blob.file);
        const std::string with_end = right + '\0';
        for (const std::string& wrong :
             {right.substr(1), right.substr(0, right.size() - 1), right + ' ', with_end,
              right + std::string(512, '\0'), right + right, right.substr(0, right.size() / 2),
              std::string()}) {
            test_tree::write_file(blob.file, wrong);
            expect_refused(blob.name + " of " + std::to_string(wrong.size()) + " bytes",
                           blob.error);
        }
        test_tree::write_file(blob.file, right);
    }
    expect_right();
}

TEST_F(DamagedBlobs, BlobsThatChangedPlacesAreNoticed)
{
    const std::vector<Blob> blobs = make();
    for (const Blob& one : blobs)
        for (const Blob& other : blobs) {
            if (one.file == other.file)
                continue;
            const std::string right = test_tree::read_file(one.file);
            test_tree::write_file(one.file, test_tree::read_file(other.file));
            expect_refused(other.name + " for " + one.name, one.error);
            test_tree::write_file(one.file, right);
        }
}

// These documents have no digest: a change is either an error or does not change the result.
TEST_F(DamagedBlobs, ABitChangedInTheIndexOrTheVersionIsAnErrorOrWithoutEffect)
{
    make();
    fs::remove("/overlay");
    const std::set<int> described = {S_zncLib_LAYOUT_INVALID, S_zncLib_INDEX_INVALID,
                                     S_zncLib_MANIFEST_NOT_FOUND, EINVAL, ENAMETOOLONG};
    std::map<std::string, int> counts;
    for (const char* name : {"oci-layout", "index.json"}) {
        const fs::path file = layout_->dir() / name;
        const std::string right = test_tree::read_file(file);
        for (std::size_t bit = 0; bit < right.size() * 8; ++bit) {
            std::string wrong = right;
            wrong[bit / 8] = static_cast<char>(wrong[bit / 8] ^ (1 << bit % 8));
            test_tree::write_file(file, wrong);
            const STATUS status = unpack();
            const int error = errno;
            ASSERT_TRUE(status == OK || described.count(error) == 1) << name << bit << ' ' << error;
            ASSERT_FALSE(test_tree::exists(base_)) << name << bit;
            ASSERT_EQ(test_tree::exists(bundle_), status == OK) << name << bit;
            fs::remove_all(bundle_);
            ++counts[status == OK ? "without effect" : "refused"];
        }
        test_tree::write_file(file, right);
    }
    for (const auto& [result, count] : counts)
        std::printf("%s: %d\n", result.c_str(), count);
    EXPECT_GT(counts["refused"], counts["without effect"]);
}
