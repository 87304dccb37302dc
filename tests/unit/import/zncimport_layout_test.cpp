// Tests of adding images to layouts: nothing is lost, even with concurrent writers and when a
// writer ends at any time.
#include "import/output/layout_writer.hpp"

#include "front/files.hpp"
#include "front/layout.hpp"
#include "front/output.hpp"
#include "import/output/image_config.hpp"
#include "layout_builder.hpp"
#include "zncImageLib.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <random>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

using namespace zncimport;

namespace {

bool no_unnamed_files = false; // makes O_TMPFILE fail, as on a file system without it

} // namespace

extern "C" {
int __real_openat(int dir, const char* path, int flags, ...);
int __wrap_openat(int dir, const char* path, int flags, ...);
}

int __wrap_openat(int dir, const char* path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    if (no_unnamed_files && (flags & O_TMPFILE) == O_TMPFILE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return __real_openat(dir, path, flags, mode);
}

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

// Returns the documents of a small image whose layer is `text`.
struct NewImage {
    explicit NewImage(const std::string& text) : layer(layout::gzip(layout::tar({{"file", text}})))
    {
        const std::vector<NewLayer> layers = {
            {"sha256:" + layout::sha256_hex(layer),
             "sha256:" + layout::sha256_hex(layout::tar({{"file", text}})), layer.size()}};
        config = finish_config(
            zncctl::parse_json(R"({"architecture":"amd64","os":"zarnel","config":{}})").value(),
            layers);
        manifest = new_manifest(SourceImage(), config, layers);
    }

    std::string layer;
    std::string config;
    std::string manifest;
};

// Performs an import up to and including the step of that number; 5 is the last.
void put(const std::string& path, const std::string& tag, const NewImage& image, bool replace,
         int steps = 5)
{
    const LayoutWriter writer(path);
    writer.check_tag(tag, "zarnel", "amd64", replace);
    if (steps < 1)
        return;
    const NewBlob blob = writer.begin_blob();
    if (!zncctl::write_all(blob.fd(), image.layer))
        throw Failure("", zncctl::error_text());
    if (steps < 2)
        return;
    writer.keep(blob, "sha256:" + layout::sha256_hex(image.layer));
    if (steps < 3)
        return;
    static_cast<void>(writer.add_blob(image.config));
    if (steps < 4)
        return;
    const std::string digest = writer.add_blob(image.manifest);
    if (steps >= 5)
        writer.add_to_index({digest, image.manifest.size(), tag, "zarnel", "amd64", ""});
}

// Returns all files with their contents, and the names of directories and links.
Texts contents(const fs::path& dir)
{
    Texts all;
    for (const auto& entry : fs::recursive_directory_iterator(dir))
        all.push_back(entry.path().string() + (entry.is_regular_file() && !entry.is_symlink()
                                                   ? "=" + layout::read_file(entry.path())
                                                   : ""));
    std::sort(all.begin(), all.end());
    return all;
}

// Returns whether the library accepts the layout and every blob of it.
bool is_valid(const std::string& path)
{
    const std::unique_ptr<OCI_IMAGE, decltype(&zncImageInfoDelete)> image(zncImageInfoCreate(),
                                                                          &zncImageInfoDelete);
    image->ociPath = path.c_str();
    return zncctl::call_library([&] { return zncImageParse(image.get()); }) == OK;
}

// Returns the manifest that unpacking would select.
std::string manifest_of(const std::string& path, const std::string& tag)
{
    std::string problem;
    const auto images = zncctl::read_layout(path, problem);
    const zncctl::Image* image =
        images ? zncctl::find_image(*images, tag, "zarnel", "amd64") : nullptr;
    return image != nullptr ? image->manifest.digest : problem;
}

std::string digest_of_text(const std::string& text)
{
    return "sha256:" + layout::sha256_hex(text);
}

// Runs the function in a child process.
pid_t in_process(const std::function<void()>& work)
{
    const pid_t pid = ::fork();
    if (pid != 0)
        return pid;
    try {
        work();
        ::_exit(0);
    } catch (const Failure& failure) {
        std::fprintf(stderr, "%s: %s\n", failure.object().c_str(), failure.what());
        ::_exit(1);
    }
}

int exit_of(pid_t pid)
{
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return status;
}

// Fills a file system except for this number of pages.
void fill(const std::string& path, int free)
{
    const znc::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const std::string page(4096, 'x');
    off_t pages = 0;
    while (zncctl::write_all(file.get(), page))
        pages++;
    ASSERT_EQ(::ftruncate(file.get(), (pages - free) * 4096), 0);
}

class LayoutWriterTest : public testing::Test {
  protected:
    void SetUp() override { no_unnamed_files = false; }

    const layout::TempDir dir_;
    const std::string path_ = dir_ / "layout";
    const NewImage one_ = NewImage("one");
    const NewImage two_ = NewImage("two");
};

} // namespace

TEST_F(LayoutWriterTest, MakesALayoutThatTheLibraryTakes)
{
    ::umask(022);
    put(path_, "v1", one_, false);
    EXPECT_TRUE(is_valid(path_));
    EXPECT_EQ(manifest_of(path_, "v1"), digest_of_text(one_.manifest));
    EXPECT_EQ(layout::read_file(path_ + "/oci-layout"), R"({"imageLayoutVersion": "1.0.0"})");
    EXPECT_EQ(layout::read_file(path_ + "/index.json"),
              R"({"schemaVersion":2,"manifests":[{"mediaType":)"
              R"("application/vnd.oci.image.manifest.v1+json","digest":")" +
                  digest_of_text(one_.manifest) +
                  "\",\"size\":" + std::to_string(one_.manifest.size()) +
                  R"(,"platform":{"architecture":"amd64","os":"zarnel"},)"
                  R"("annotations":{"org.opencontainers.image.ref.name":"v1"}}]})"
                  "\n");
    EXPECT_EQ(contents(path_).size(), 7U);
    for (const auto& entry : fs::recursive_directory_iterator(path_))
        EXPECT_EQ(static_cast<unsigned>(entry.status().permissions()),
                  entry.is_directory() ? 0755U : 0644U)
            << entry.path();
}

TEST_F(LayoutWriterTest, RespectsTheUmask)
{
    const mode_t before = ::umask(077);
    put(path_, "v1", one_, false);
    ::umask(before);
    for (const auto& entry : fs::recursive_directory_iterator(path_))
        EXPECT_EQ(static_cast<unsigned>(entry.status().permissions()) & 077U, 0U) << entry.path();
}

TEST_F(LayoutWriterTest, KeepsOtherImagesAndWhatItDoesNotKnow)
{
    layout::Layout built(path_);
    layout::Image other;
    other.name = "other";
    other.annotations_extra = R"("x":"y")";
    built.add(other);
    std::string index = layout::read_file(path_ + "/index.json");
    index.insert(index.find('{') + 1, R"("annotations":{"a":"\u00e4"},"n":1234567890123456789,)");
    layout::write_file(path_ + "/index.json", index);
    const zncctl::Json before = zncctl::parse_json(index).value();
    put(path_, "v1", one_, false);
    put(path_, "v2", two_, false);
    const zncctl::Json after = zncctl::parse_json(layout::read_file(path_ + "/index.json")).value();
    for (const char* key : {"annotations", "n", "schemaVersion"})
        EXPECT_EQ(zncctl::compact(*zncctl::member(after, key)),
                  zncctl::compact(*zncctl::member(before, key)));
    ASSERT_EQ(after.at("manifests").size(), 3U);
    EXPECT_EQ(zncctl::compact(after.at("manifests").at(0)),
              zncctl::compact(before.at("manifests").at(0)));
    EXPECT_TRUE(is_valid(path_));
    EXPECT_EQ(manifest_of(path_, "v2"), digest_of_text(two_.manifest));
}

TEST_F(LayoutWriterTest, ReplacesAnImageOnlyWhenItMay)
{
    put(path_, "v1", one_, false);
    put(path_, "v2", one_, false);
    const Texts before = contents(path_);
    EXPECT_THROW(put(path_, "v1", two_, false), Failure);
    EXPECT_EQ(contents(path_), before);
    put(path_, "v1", two_, true);
    EXPECT_EQ(manifest_of(path_, "v1"), digest_of_text(two_.manifest));
    EXPECT_EQ(manifest_of(path_, "v2"), digest_of_text(one_.manifest));
    std::string problem;
    EXPECT_EQ(zncctl::read_layout(path_, problem)->size(), 2U);
}

// An entry without a name counts as "latest", and one without a platform has that of its
// configuration: unpacking would select it rather than a new entry after it.
TEST_F(LayoutWriterTest, TakesEntriesForImagesAsUnpackingDoes)
{
    layout::Layout built(path_);
    layout::Image nameless;
    nameless.name = "";
    built.add(nameless);
    layout::Image foreign;
    foreign.arch = "arm64";
    built.add(foreign);
    EXPECT_THROW(put(path_, "latest", one_, false), Failure);
    put(path_, "v1", two_, false);
    put(path_, "latest", one_, true);
    EXPECT_EQ(manifest_of(path_, "latest"), digest_of_text(one_.manifest));
    std::string problem;
    EXPECT_EQ(zncctl::read_layout(path_, problem)->size(), 3U);
}

TEST_F(LayoutWriterTest, CountsAnEntryOfUnknownPlatform)
{
    put(path_, "v1", one_, false);
    const std::string none = "sha256:" + std::string(64, '0');
    layout::write_file(path_ + "/index.json",
                       R"({"schemaVersion":2,"manifests":[{"digest":")" + none +
                           R"(","annotations":{"org.opencontainers.image.ref.name":"v1"}}]})");
    EXPECT_THROW(put(path_, "v1", two_, false), Failure);
    put(path_, "v1", two_, true);
    EXPECT_TRUE(is_valid(path_));
}

TEST_F(LayoutWriterTest, LeavesTheLayoutAsItWasWhenItStopsAnywhere)
{
    for (const bool unnamed : {true, false}) {
        no_unnamed_files = !unnamed;
        for (int steps = 0; steps < 5; steps++) {
            put(path_, "v1", one_, false, steps);
            EXPECT_FALSE(fs::exists(path_)) << steps;
        }
        fs::create_directory(path_);
        for (int steps = 0; steps < 5; steps++) {
            put(path_, "v1", one_, false, steps);
            EXPECT_EQ(contents(path_), Texts{}) << steps;
        }
        put(path_, "v1", one_, false);
        const Texts before = contents(path_);
        for (int steps = 0; steps < 5; steps++) {
            put(path_, "v2", two_, false, steps);
            EXPECT_EQ(contents(path_), before) << steps;
        }
        put(path_, "v2", two_, false);
        EXPECT_TRUE(is_valid(path_));
        EXPECT_EQ(contents(path_).size(), 10U);
        fs::remove_all(path_);
    }
}

TEST_F(LayoutWriterTest, ReplacesABlobThatDoesNotMatchItsName)
{
    put(path_, "v1", one_, false);
    const fs::path blob = path_ + "/blobs/sha256/" + layout::sha256_hex(one_.layer);
    // damaged, but of the same length
    layout::write_file(blob, std::string(one_.layer.size(), 'x'));
    put(path_, "v2", one_, false);
    EXPECT_EQ(layout::read_file(blob), one_.layer);
    layout::write_file(blob, "torn");
    put(path_, "v3", one_, false);
    EXPECT_EQ(layout::read_file(blob), one_.layer);
    fs::remove(blob);
    layout::write_file(dir_ / "elsewhere", std::string(one_.layer.size(), 'x'));
    fs::create_symlink(dir_ / "elsewhere", blob);
    put(path_, "v4", one_, false);
    EXPECT_FALSE(fs::is_symlink(blob));
    EXPECT_TRUE(is_valid(path_));
}

TEST_F(LayoutWriterTest, RemovesLeftoversOfImportsThatDied)
{
    put(path_, "v1", one_, false);
    const Texts before = contents(path_);
    layout::write_file(path_ + "/.zncctl-import-document", "half");
    layout::write_file(path_ + "/blobs/sha256/.zncctl-import-0", "half");
    layout::write_file(path_ + "/blobs/sha256/.zncctl-import-blob", "half");
    {
        const LayoutWriter writer(path_);
    }
    EXPECT_EQ(contents(path_), before);
}

TEST_F(LayoutWriterTest, RefusesDirectoriesThatAreNoLayouts)
{
    fs::create_directory(path_);
    layout::write_file(path_ + "/mine", "text");
    EXPECT_THROW(LayoutWriter{path_}, Failure);
    EXPECT_EQ(contents(path_), Texts{path_ + "/mine=text"});
    layout::write_file(path_ + "/oci-layout", R"({"imageLayoutVersion": "2.0.0"})");
    EXPECT_THROW(LayoutWriter{path_}, Failure);
    layout::write_file(path_ + "/oci-layout", "none");
    EXPECT_THROW(LayoutWriter{path_}, Failure);
    EXPECT_THROW(LayoutWriter{path_ + "/mine"}, Failure);
    EXPECT_THROW(LayoutWriter{dir_ / "no/such"}, Failure);
}

TEST_F(LayoutWriterTest, FollowsNoLinksInTheLayout)
{
    for (const char* name : {"blobs", "blobs/sha256", "index.json", "oci-layout"}) {
        put(path_, "v1", one_, false);
        fs::rename(path_ + "/" + name, dir_ / "moved");
        fs::create_symlink(dir_ / "moved", path_ + "/" + name);
        const Texts before = contents(dir_.path());
        EXPECT_THROW(put(path_, "v2", two_, false), Failure) << name;
        EXPECT_EQ(contents(dir_.path()), before) << name;
        fs::remove_all(path_);
        fs::remove_all(dir_ / "moved");
    }
}

TEST_F(LayoutWriterTest, WaitsForNoPipeInPlaceOfADocument)
{
    for (const char* name : {"index.json", "oci-layout"}) {
        put(path_, "v1", one_, false);
        fs::remove(path_ + "/" + name);
        ASSERT_EQ(::mkfifo((path_ + "/" + name).c_str(), 0600), 0);
        EXPECT_THROW(put(path_, "v2", two_, false), Failure) << name;
        fs::remove_all(path_);
    }
}

TEST_F(LayoutWriterTest, RefusesAnIndexThatItCouldNotWriteAgainUnchanged)
{
    put(path_, "v1", one_, false);
    for (const char* bad :
         {"", "{", "[]", R"({"manifests":{}})", R"({"manifests":[],"n":90071992547409930000})",
          R"({"manifests":[],"n":1e999})", R"({"manifests":[],"t":"a\u0000b"})"}) {
        layout::write_file(path_ + "/index.json", bad);
        EXPECT_THROW(put(path_, "v2", two_, false), Failure) << bad;
        EXPECT_EQ(layout::read_file(path_ + "/index.json"), bad);
    }
    layout::write_file(path_ + "/index.json",
                       R"({"manifests":[],"t":"\"9007199254740993\\","n":-1.5,"schemaVersion":2})");
    put(path_, "v2", two_, false);
    EXPECT_TRUE(is_valid(path_));
}

TEST_F(LayoutWriterTest, RefusesNamesOfBlobsThatAreNoDigests)
{
    const LayoutWriter writer(path_);
    const NewBlob blob = writer.begin_blob();
    for (const std::string& bad :
         {std::string(), std::string("sha256:"), "sha256:" + std::string(63, 'a'),
          "sha256:" + std::string(64, 'A'), "sha256:../" + std::string(61, 'a'),
          "sha512:" + std::string(64, 'a')})
        EXPECT_THROW(writer.keep(blob, bad), Failure) << bad;
}

TEST_F(LayoutWriterTest, LosesNoImageOfWritersAtTheSameTime)
{
    constexpr int kWriters = 8;
    constexpr int kRounds = 5;
    std::vector<pid_t> writers;
    for (int i = 0; i < kWriters; i++)
        writers.push_back(in_process([&, i] {
            for (int round = 0; round < kRounds; round++) {
                const std::string tag = "t" + std::to_string(i) + "-" + std::to_string(round);
                put(path_, tag, NewImage(tag), false);
                put(path_, "shared", NewImage(tag), true, round % 6);
            }
        }));
    for (const pid_t writer : writers)
        EXPECT_EQ(exit_of(writer), 0);
    EXPECT_TRUE(is_valid(path_));
    for (int i = 0; i < kWriters; i++)
        for (int round = 0; round < kRounds; round++) {
            const std::string tag = "t" + std::to_string(i) + "-" + std::to_string(round);
            EXPECT_EQ(manifest_of(path_, tag), digest_of_text(NewImage(tag).manifest)) << tag;
        }
}

// A writer that creates the directory and fails must not remove it from a writer that is waiting.
TEST_F(LayoutWriterTest, SurvivesWritersThatRemoveTheirNewLayout)
{
    for (int round = 0; round < 20; round++) {
        std::vector<pid_t> writers;
        for (int i = 0; i < 6; i++)
            writers.push_back(in_process(
                [&, i] { put(path_, "t" + std::to_string(i), one_, false, i < 4 ? i : 5); }));
        for (const pid_t writer : writers)
            EXPECT_EQ(exit_of(writer), 0);
        EXPECT_TRUE(is_valid(path_));
        EXPECT_EQ(manifest_of(path_, "t4"), digest_of_text(one_.manifest));
        EXPECT_EQ(manifest_of(path_, "t5"), digest_of_text(one_.manifest));
        fs::remove_all(path_);
    }
}

TEST_F(LayoutWriterTest, HoldsTheOldOrTheNewImageWheneverAWriterIsKilled)
{
    put(path_, "v1", one_, false);
    std::mt19937 random(20260101);
    int killed = 0;
    for (int round = 0; round < 200; round++) {
        no_unnamed_files = round % 2 == 1;
        const NewImage& image = round % 4 < 2 ? two_ : one_;
        const pid_t writer = in_process([&] {
            for (;;)
                put(path_, "v1", image, true);
        });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        ASSERT_EQ(::kill(writer, SIGKILL), 0);
        const int status = exit_of(writer);
        killed += WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL ? 1 : 0;
        ASSERT_TRUE(is_valid(path_)) << round;
        const std::string manifest = manifest_of(path_, "v1");
        ASSERT_TRUE(manifest == digest_of_text(one_.manifest) ||
                    manifest == digest_of_text(two_.manifest))
            << round;
    }
    EXPECT_EQ(killed, 200);
    put(path_, "v1", one_, true);
    put(path_, "v2", two_, true);
    EXPECT_EQ(contents(path_).size(), 10U); // the blobs of both images, and nothing else
}

// Other users may read a layout, and can lock any file that they can open for reading.
TEST_F(LayoutWriterTest, DoesNotWaitForALockThatEveryReaderOfTheLayoutCanTake)
{
    constexpr unsigned kSecondsToHang = 30;
    put(path_, "v1", one_, false);
    const std::size_t files = contents(path_).size();
    std::vector<znc::UniqueFd> held;
    for (const char* name : {"", "/blobs", "/blobs/sha256", "/oci-layout", "/index.json"}) {
        held.emplace_back(::open((path_ + name).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::flock(held.back().get(), LOCK_EX), 0) << name;
    }
    const pid_t writer = in_process([&] {
        ::alarm(kSecondsToHang);
        put(path_, "v1", one_, true);
    });
    EXPECT_EQ(exit_of(writer), 0);
    EXPECT_EQ(contents(path_).size(), files);
}

TEST_F(LayoutWriterTest, HoldsALockThatNoOtherUserCanOpenAndThatGoesWithIt)
{
    fs::path lock;
    {
        const LayoutWriter writer(path_);
        for (const auto& entry : fs::directory_iterator(path_))
            if (entry.path().filename().string().ends_with("-lock"))
                lock = entry.path();
        ASSERT_FALSE(lock.empty());
        struct stat st = {};
        ASSERT_EQ(::lstat(lock.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode, S_IFREG | 0600U);
        const znc::UniqueFd again(::open(lock.c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_NE(::flock(again.get(), LOCK_EX | LOCK_NB), 0);
    }
    EXPECT_FALSE(fs::exists(lock));
}

// A new layout is created completely or not at all, and a later import can continue.
TEST_F(LayoutWriterTest, CanBeContinuedWheneverTheFirstWriterIsKilled)
{
    std::mt19937 random(20260102);
    for (int round = 0; round < 100; round++) {
        const pid_t writer = in_process([&] { put(path_, "v1", one_, false); });
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        ::kill(writer, SIGKILL);
        exit_of(writer);
        put(path_, "v1", two_, true);
        ASSERT_TRUE(is_valid(path_)) << round;
        ASSERT_EQ(manifest_of(path_, "v1"), digest_of_text(two_.manifest));
        fs::remove_all(path_);
    }
}

TEST_F(LayoutWriterTest, LeavesTheLayoutAsItWasWhenTheDiskIsFull)
{
    const std::string disk = dir_ / "disk";
    fs::create_directory(disk);
    ASSERT_EQ(::mount("none", disk.c_str(), "tmpfs", 0, "size=64k"), 0);
    const std::string path = disk + "/layout";
    const NewImage large{[] {
        std::mt19937 random(1);
        std::string text(200000, '\0');
        for (char& c : text)
            c = static_cast<char>(random());
        return text;
    }()};
    EXPECT_THROW(put(path, "v1", large, false), Failure);
    EXPECT_FALSE(fs::exists(path));
    put(path, "v1", one_, false);
    const Texts before = contents(path);
    // Each round has one more free page, so that each step fails once.
    int failed = 0;
    bool done = false;
    for (int free = 0; free < 12 && !done; free++) {
        fill(disk + "/filler", free);
        try {
            put(path, "v2", two_, false);
            done = true;
        } catch (const Failure&) {
            failed++;
            EXPECT_TRUE(contents(path) == before) << free;
        }
        EXPECT_TRUE(is_valid(path));
        fs::remove(disk + "/filler");
    }
    EXPECT_TRUE(done);
    EXPECT_GE(failed, 4); // a layer, two documents, the index
    EXPECT_EQ(manifest_of(path, "v2"), digest_of_text(two_.manifest));
    EXPECT_EQ(::umount(disk.c_str()), 0);
}
