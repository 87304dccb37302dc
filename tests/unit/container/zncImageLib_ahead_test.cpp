// Tests of extracting layers while their digests are still being computed: nothing is visible
// before the digest has been verified, and nothing is left if verification fails.
#include "zncImageLib.hpp"
#include "zncLayerStage.hpp"
#include "zncTarLib.hpp"

#include "alloc_fault.hpp"
#include "fake_platform.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

#include <pthread.h>
#include <sys/wait.h>

extern "C" {
bool __real_znc_sha256_finish(znc::ShaContext* context, unsigned char* out);
bool __wrap_znc_sha256_finish(znc::ShaContext* context, unsigned char* out);
int __real_pthread_create(pthread_t* task, const pthread_attr_t* attr, void* (*main)(void*),
                          void* arg);
int __wrap_pthread_create(pthread_t* task, const pthread_attr_t* attr, void* (*main)(void*),
                          void* arg);
}

namespace {

// Called when a blob has been read completely and its digest has not been compared yet.
std::function<void()> before_verdict;
bool no_tasks = false;

namespace fs = std::filesystem;
using layout::Image;
using layout::tar;

constexpr int kFiles = 100;
constexpr std::size_t kFileSize = 20'000;
constexpr char kLastName[] = "last";

std::set<std::string> names_in(const fs::path& dir)
{
    std::set<std::string> names;
    std::error_code gone;
    for (fs::directory_iterator it(dir, gone), end; !gone && it != end; it.increment(gone))
        names.insert(it->path().filename());
    return names;
}

// Large enough to be processed by a separate thread.
std::string large_layer(const std::vector<layout::Member>& more = {})
{
    std::vector<layout::Member> members(kFiles);
    for (std::size_t i = 0; i < members.size(); ++i)
        members[i] = {"f" + std::to_string(i), std::string(kFileSize, 'x')};
    members.insert(members.end(), more.begin(), more.end());
    members.push_back({kLastName, "content"});
    return tar(members);
}

class Ahead : public ::testing::Test {
  protected:
    void SetUp() override
    {
        fake::reset();
        fs::create_directory("/overlay");
        ASSERT_EQ(::setenv("ZNC_BASE", base_.c_str(), 1), 0);
    }
    void TearDown() override
    {
        before_verdict = nullptr;
        no_tasks = false;
        ::unsetenv("ZNC_BASE");
    }

    void add(const std::string& layer, const std::string& name = "latest")
    {
        Image image;
        image.layers = {layer};
        image.name = name;
        layout_.add(image);
    }
    STATUS unpack(const char* tag = nullptr)
    {
        errno = 0;
        return zncImageUnpack(bundle_.c_str(), layout_.c_str(), tag, 0, nullptr);
    }
    [[nodiscard]] fs::path stored(const std::string& layer) const
    {
        return store_ / layout::sha256_hex(layer);
    }
    // Changes a byte in the content of the last file: the archive remains valid.
    void damage(const std::string& layer) const
    {
        std::string bytes = layer;
        bytes.at(bytes.rfind("content")) = 'C';
        layout::write_file(layout_.blob("sha256:" + layout::sha256_hex(layer)), bytes);
    }
    using Told = std::vector<std::pair<std::string, unsigned>>;
    // What an unpack into a new bundle says of the directories.
    Told told_of(unsigned option)
    {
        fake::reset();
        fs::remove_all(bundle_);
        Told told;
        const auto note = [](const char* path, std::uint32_t mode, void* context) {
            static_cast<Told*>(context)->emplace_back(path, mode);
        };
        errno = 0;
        unpacked_ =
            zncUnpackDirs(bundle_.c_str(), layout_.c_str(), nullptr, option, nullptr, note, &told);
        return told;
    }
    // Returns the temporary directory of a layer, once the last file exists in it.
    [[nodiscard]] fs::path wait_for_stage() const
    {
        for (int round = 0; round < 100'000; ++round) {
            for (const std::string& name : names_in(store_))
                if (name.starts_with(".unpack-") && fs::exists(store_ / name / kLastName))
                    return store_ / name;
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        return {};
    }
    // Makes sure that the layer has been extracted before its digest is compared.
    void extract_before_verdict()
    {
        before_verdict = [this] {
            if (++verdicts_ == kLayerVerdict)
                stage_ = wait_for_stage();
        };
    }
    void expect_untouched() const
    {
        EXPECT_FALSE(fs::exists(base_)) << *names_in(base_).begin();
        EXPECT_FALSE(fs::exists(bundle_));
    }

    // The digests of the manifest, the configuration and the chain of identifiers are computed
    // before that of the layer.
    static constexpr int kLayerVerdict = 4;

    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "img"};
    fs::path base_ = dir_ / "base";
    fs::path store_ = base_ / "layers";
    std::string bundle_ = dir_ / "bundle";
    const std::string layer_ = large_layer();
    int verdicts_ = 0;
    STATUS unpacked_ = ERROR;
    fs::path stage_;
};

// Tests that observe the parallel work need a second processor.
class EarlyExtraction : public Ahead {
  protected:
    void SetUp() override
    {
        Ahead::SetUp();
        if (std::thread::hardware_concurrency() < 2)
            GTEST_SKIP() << "one processor: nothing is done ahead";
    }
};

} // namespace

TEST_F(EarlyExtraction, ALayerIsExtractedBeforeItIsVerifiedAndStoredAfterwards)
{
    add(layer_);
    extract_before_verdict();
    ASSERT_EQ(unpack(), OK) << errno;
    EXPECT_FALSE(stage_.empty());
    EXPECT_EQ(names_in(store_), std::set<std::string>{layout::sha256_hex(layer_)});
    EXPECT_EQ(names_in(stored(layer_)).size(), kFiles + 1U);
    EXPECT_EQ(layout::read_file(stored(layer_) / "f7"), std::string(kFileSize, 'x'));
    EXPECT_EQ(fs::status(stored(layer_)).permissions(), fs::perms::owner_all);
}

TEST_F(EarlyExtraction, NothingHasALayersNameBeforeItIsVerified)
{
    add(layer_);
    std::set<std::string> seen;
    before_verdict = [&] {
        if (++verdicts_ == kLayerVerdict && !wait_for_stage().empty())
            seen = names_in(store_);
    };
    ASSERT_EQ(unpack(), OK) << errno;
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_TRUE(seen.begin()->starts_with(".unpack-"));
}

TEST_F(EarlyExtraction, AWrongDigestLeavesNoStore)
{
    add(layer_);
    damage(layer_);
    extract_before_verdict();
    EXPECT_EQ(unpack(), ERROR);
    EXPECT_EQ(errno, S_zncLib_MANIFEST_INVALID);
    EXPECT_FALSE(stage_.empty());
    expect_untouched();
}

TEST_F(EarlyExtraction, AWrongDigestLeavesAStoreAsItWas)
{
    fs::create_directories(store_ / "other");
    add(layer_);
    damage(layer_);
    extract_before_verdict();
    EXPECT_EQ(unpack(), ERROR);
    EXPECT_EQ(errno, S_zncLib_MANIFEST_INVALID);
    EXPECT_EQ(names_in(store_), std::set<std::string>{"other"});
}

TEST_F(EarlyExtraction, OnlyDirectoriesOfTheStoreThatItCreatedAreRemoved)
{
    fs::create_directories(base_);
    add(layer_);
    damage(layer_);
    extract_before_verdict();
    EXPECT_EQ(unpack(), ERROR);
    EXPECT_TRUE(fs::exists(base_));
    EXPECT_FALSE(fs::exists(store_));
}

TEST_F(EarlyExtraction, AFailureInALaterManifestLeavesNothing)
{
    add(layer_);
    Image other;
    other.name = "other";
    other.layers = {tar({{"small", "content"}})};
    layout_.add(other);
    damage(other.layers[0]);
    extract_before_verdict();
    EXPECT_EQ(unpack(), ERROR);
    EXPECT_EQ(errno, S_zncLib_MANIFEST_INVALID);
    EXPECT_FALSE(stage_.empty());
    expect_untouched();
}

TEST_F(EarlyExtraction, KilledDuringVerificationItLeavesNoLayerAndTheNextUnpackCleansUp)
{
    add(layer_);
    const pid_t victim = ::fork();
    if (victim == 0) {
        before_verdict = [&] {
            if (++verdicts_ == kLayerVerdict && !wait_for_stage().empty())
                ::kill(::getpid(), SIGKILL);
        };
        (void)unpack();
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(victim, &status, 0), victim);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(names_in(store_).size(), 1U);
    EXPECT_FALSE(fs::exists(stored(layer_)));
    EXPECT_FALSE(fs::exists(bundle_));

    ASSERT_EQ(unpack(), OK);
    EXPECT_EQ(names_in(store_), std::set<std::string>{layout::sha256_hex(layer_)});
}

TEST_F(EarlyExtraction, ALayerThatAnotherOneStoredMeanwhileStays)
{
    add(layer_);
    before_verdict = [&] {
        if (++verdicts_ != kLayerVerdict)
            return;
        stage_ = wait_for_stage();
        fs::create_directory(stored(layer_));
        layout::write_file(stored(layer_) / "another", "copy");
    };
    ASSERT_EQ(unpack(), OK) << errno;
    EXPECT_FALSE(stage_.empty());
    EXPECT_EQ(names_in(store_), std::set<std::string>{layout::sha256_hex(layer_)});
    EXPECT_EQ(names_in(stored(layer_)), std::set<std::string>{"another"});
}

TEST_F(EarlyExtraction, ALayerThatIsStoredIsNotExtracted)
{
    fs::create_directories(stored(layer_));
    add(layer_);
    std::set<std::string> seen;
    before_verdict = [&] { seen.merge(names_in(store_)); };
    ASSERT_EQ(unpack(), OK) << errno;
    EXPECT_EQ(seen, std::set<std::string>{layout::sha256_hex(layer_)});
    EXPECT_TRUE(names_in(stored(layer_)).empty());
}

TEST_F(EarlyExtraction, OnlyTheImageThatIsAskedForIsExtracted)
{
    const std::string wanted = large_layer({{"more", "of it"}});
    add(layer_, "first");
    add(wanted, "second");
    std::set<std::string> seen;
    before_verdict = [&] {
        // Nothing may exist until the layer of the second image is read.
        if (++verdicts_ <= 2 * kLayerVerdict - 1)
            seen.merge(names_in(store_));
        else if (stage_.empty())
            stage_ = wait_for_stage();
    };
    ASSERT_EQ(unpack("second"), OK) << errno;
    EXPECT_EQ(seen, std::set<std::string>{});
    EXPECT_FALSE(stage_.empty());
    EXPECT_EQ(names_in(store_), std::set<std::string>{layout::sha256_hex(wanted)});
}

// Exactly the verified bytes are parsed, even if the file in the layout has changed since.
TEST_F(Ahead, DocumentsThatChangeOnceTheyWereReadDoNotMatter)
{
    add(layer_);
    const std::string index = layout::read_file(layout_.dir() / "index.json");
    std::set<std::string> blobs = names_in(layout_.dir() / "blobs/sha256");
    blobs.erase(layout::sha256_hex(layer_));
    ASSERT_EQ(blobs.size(), 2U); // the manifest and the configuration
    before_verdict = [&] {
        if (++verdicts_ == 2) // both have been read
            for (const std::string& blob : blobs)
                layout::write_file(layout_.blob("sha256:" + blob), R"({"another":"document"})");
    };
    EXPECT_EQ(unpack(), OK) << errno;
    EXPECT_GE(verdicts_, kLayerVerdict);
}

// A layer named by an earlier manifest is verified only once; a layer that is extracted later is
// verified again.
TEST_F(Ahead, ALayerThatChangesAfterItWasVerifiedIsNotStored)
{
    Image image;
    image.layers = {layer_};
    image.name = "first";
    layout_.add(image);
    image.name = "second";
    image.section = R"({"Cmd":["x"]})";
    layout_.add(image);
    before_verdict = [this] {
        if (++verdicts_ == kLayerVerdict + 1)
            damage(layer_);
    };
    EXPECT_EQ(unpack("second"), ERROR);
    EXPECT_EQ(errno, S_zncLib_MANIFEST_INVALID);
    EXPECT_TRUE(names_in(store_).empty());
    EXPECT_FALSE(fs::exists(bundle_));
}

TEST_F(Ahead, ARawRootOfALayerThatChangesAfterItWasVerifiedIsRefused)
{
    fs::remove("/overlay");
    add(layer_);
    before_verdict = [this] {
        if (++verdicts_ == kLayerVerdict)
            damage(layer_);
    };
    EXPECT_EQ(unpack(), ERROR);
    EXPECT_EQ(errno, S_zncLib_MANIFEST_INVALID);
    EXPECT_FALSE(fs::exists(bundle_));
}

TEST_F(Ahead, ATagThatNothingHasMakesNoStore)
{
    add(layer_);
    before_verdict = [this] { EXPECT_FALSE(fs::exists(base_)); };
    EXPECT_EQ(unpack("absent"), ERROR);
    EXPECT_EQ(errno, S_zncLib_INDEX_INVALID);
    expect_untouched();
}

TEST_F(Ahead, AnExistingBundleLeavesNoStore)
{
    add(layer_);
    fs::create_directories(bundle_ + "/rootfs");
    EXPECT_EQ(unpack(), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_ROOTFS_EXISTS);
    EXPECT_FALSE(fs::exists(base_));
}

TEST_F(Ahead, ALayerThatCannotBeExtractedFailsWithItsUsualNumber)
{
    add(large_layer({{"../out", "x"}}), "outside");
    std::string damaged = layer_;
    damaged[0] ^= 1; // a byte of the first header
    add(damaged, "damaged");
    EXPECT_EQ(unpack("outside"), ERROR);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(unpack("damaged"), ERROR);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(fs::exists(store_)); // the unpack has come this far
    EXPECT_TRUE(names_in(store_).empty());
    EXPECT_FALSE(fs::exists(bundle_));
}

TEST_F(Ahead, WithoutAnotherTaskTheLayerIsStoredAllTheSame)
{
    add(layer_);
    no_tasks = true;
    ASSERT_EQ(unpack(), OK) << errno;
    EXPECT_EQ(names_in(stored(layer_)).size(), kFiles + 1U);
}

TEST_F(Ahead, WithoutOverlayNothingGoesThroughTheStore)
{
    fs::remove("/overlay");
    add(layer_);
    before_verdict = [this] { EXPECT_FALSE(fs::exists(base_)); };
    ASSERT_EQ(unpack(), OK) << errno;
    EXPECT_FALSE(fs::exists(base_));
    EXPECT_TRUE(fs::exists(bundle_ + "/rootfs/" + kLastName));
}

TEST_F(Ahead, ALayerNamedTwiceIsStoredOnce)
{
    Image image;
    image.layers = {layer_, layer_};
    layout_.add(image);
    ASSERT_EQ(unpack(), OK) << errno;
    EXPECT_EQ(names_in(store_), std::set<std::string>{layout::sha256_hex(layer_)});
}

// Not once for each time that it is named, beside one another, until all but one are thrown away.
TEST_F(Ahead, ALayerNamedAgainAndAgainIsExtractedOnce)
{
    Image image;
    image.layers.assign(6, layer_);
    image.layers.insert(image.layers.begin() + 3, tar({{"other", "content"}}));
    layout_.add(image);
    std::mutex mutex; // several layers are verified at a time
    std::size_t most = 0;
    before_verdict = [&] {
        const std::scoped_lock lock(mutex);
        std::size_t stages = 0;
        for (const std::string& name : names_in(store_))
            stages += name.starts_with(".unpack-") ? 1 : 0;
        most = std::max(most, stages);
    };
    ASSERT_EQ(unpack(), OK) << errno;
    EXPECT_LE(most, 2U);
    EXPECT_EQ(names_in(store_).size(), 2U);
}

TEST_F(Ahead, DirectoriesAreReportedWithTheirModesFromTheBottomUp)
{
    const std::string lower =
        tar({layout::directory("tmp/", 01777), layout::directory("a/", 0755)});
    const std::string upper = tar({layout::directory("./a/", 07700), {"file"}});
    Image image;
    image.layers = {lower, upper, lower};
    layout_.add(image);
    const Told all = {{"/tmp", 01777}, {"/a", 0755}, {"/a", 07700}, {"/tmp", 01777}, {"/a", 0755}};
    EXPECT_EQ(told_of(0), all);
    EXPECT_EQ(told_of(0), all); // the store has the layers
    EXPECT_EQ(told_of(ZNC_OPT_FLATTEN), all);
    fs::remove("/overlay");
    EXPECT_EQ(told_of(0), all);
}

// Who listens is told of the bytes that have the digest, or of nothing.
TEST_F(Ahead, DirectoriesOfALayerThatIsNotTheOneThatIsNamedAreNotTold)
{
    for (const bool stored : {false, true}) {
        const std::string good = large_layer({layout::directory("tmp/", 01777)});
        const std::string bad = large_layer({layout::directory("etc/", 01777)});
        add(good);
        if (stored) {
            EXPECT_EQ(told_of(0), (Told{{"/tmp", 01777}}));
        }
        layout::write_file(layout_.blob("sha256:" + layout::sha256_hex(good)), bad);
        EXPECT_EQ(told_of(0), Told{});
        EXPECT_FALSE(fs::exists(bundle_));
        EXPECT_EQ(fs::exists(this->stored(good)), stored);
    }
}

// Enough layers for two threads to reach already extracted layers at the same time.
TEST_F(Ahead, ALayerNamedThousandsOfTimesIsStoredOnce)
{
    Image image;
    image.layers.assign(4000, tar({{"file", "content"}}));
    layout_.add(image);
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(unpack(), OK) << errno;
        EXPECT_EQ(names_in(store_),
                  std::set<std::string>{layout::sha256_hex(image.layers.front())});
        fs::remove_all(base_);
        fs::remove_all(bundle_);
    }
}

TEST_F(Ahead, ProgressIsReportedFromTheLayersBeginToItsEnd)
{
    add(layer_);
    std::vector<std::uint64_t> heard;
    zncUnpackProgressSet(
        [](const ZNC_PROGRESS* progress, void* context) {
            static_cast<std::vector<std::uint64_t>*>(context)->push_back(progress->done);
        },
        &heard);
    const STATUS status = unpack();
    zncUnpackProgressSet(nullptr, nullptr);
    ASSERT_EQ(status, OK);
    ASSERT_GE(heard.size(), 2U);
    EXPECT_EQ(heard.front(), 0U);
    EXPECT_EQ(heard.back(), layer_.size());
    for (std::size_t i = 1; i < heard.size(); ++i)
        EXPECT_GT(heard[i], heard[i - 1]);
}

TEST_F(Ahead, EveryAllocationThatFailsFailsTheUnpackAtMost)
{
    add(layer_);
    unsigned nth = 1;
    for (bool whole = false; !whole; ++nth) {
        std::error_code ignored;
        fs::remove_all(base_, ignored);
        alloc_fault::arm(nth);
        const STATUS status = unpack();
        const int error = errno;
        whole = alloc_fault::disarm() < nth;
        ASSERT_EQ(status == OK, fs::exists(bundle_)) << nth;
        ASSERT_TRUE(!whole || status == OK) << nth;
        if (status != OK) {
            EXPECT_TRUE(error == ENOMEM || error == 0 ||
                        error == S_zncLib_BUNDLE_CONFIG_PARAM_INVALID)
                << nth << ": " << error;
        }
        for (const std::string& name : names_in(store_))
            EXPECT_FALSE(name.starts_with(".")) << nth << ": " << name;
        fs::remove_all(bundle_);
        ASSERT_LT(nth, 1000U);
    }
    EXPECT_GT(nth, 30U);
}

TEST_F(Ahead, ACancelledExtractionEndsEarly)
{
    const std::string archive = dir_ / "archive";
    layout::write_file(archive, layer_);
    fs::create_directories(store_);
    const std::string digest = "sha256:" + layout::sha256_hex(layer_);
    const std::atomic<bool> cancel = true;
    znc::LayerStage stage;
    EXPECT_EQ(stage.fill(archive.c_str(), digest.c_str(), store_.native(), &cancel), ERROR);
    for (const std::string& name : names_in(store_))
        EXPECT_FALSE(fs::exists(store_ / name / "f0"));
    stage.discard();
    EXPECT_TRUE(names_in(store_).empty());
}

bool __wrap_znc_sha256_finish(znc::ShaContext* context, unsigned char* out)
{
    if (before_verdict)
        before_verdict();
    return __real_znc_sha256_finish(context, out);
}

int __wrap_pthread_create(pthread_t* task, const pthread_attr_t* attr, void* (*main)(void*),
                          void* arg)
{
    return no_tasks ? EAGAIN : __real_pthread_create(task, attr, main, arg);
}
