// Feeds the hostile archives and images of the other corpus tests to the importer, as a root
// filesystem, as the layers of an image, and as a layout with a single error. The importer must
// always exit soon by itself, use little memory, change nothing but the target layout, and that
// only if it reports success. The library must accept everything that it produces.
#include "corpus_images.hpp"
#include "sentinel.hpp"
#include "tarforge_table.hpp"
#include "test_tree.hpp"

#include "zncontainer.h"

#include <gtest/gtest.h>

#include <cJSON.h>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/owned.hpp"

namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

constexpr char kOutside[] = "/tmp/znc-outside"; // named by members of the tables
constexpr int kSecondsAtMost = 60;
#ifdef ZNC_SANITIZED
constexpr long kMiBAtMost = 4096;
#else
constexpr long kMiBAtMost = 512;
#endif

struct Ended {
    int status = -1; // as returned by wait()
    long peak_kib = 0;
    std::string error;

    [[nodiscard]] bool good() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

// Waits for a process, and kills it if it takes too long.
Ended wait_for(pid_t pid)
{
    const znc::UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd ready = {process.get(), POLLIN, 0};
    if (poll(&ready, 1, kSecondsAtMost * 1000) != 1)
        kill(pid, SIGKILL);
    Ended ended;
    rusage usage = {};
    if (wait4(pid, &ended.status, 0, &usage) != pid)
        throw std::runtime_error("wait4");
    ended.peak_kib = usage.ru_maxrss; // includes its children
    return ended;
}

// A source, a layout that already contains one image, and surrounding files that must not change.
class Place {
  public:
    Place() : source_(dir_ / "source"), target_(dir_ / "target")
    {
        fs::remove_all(kOutside); // left over if an earlier test threw
        sentinel::make(kOutside);
        sentinel::make(dir_ / "outside");
        sentinel::make(dir_ / "bundle/outside");
        for (const char* name : {"spool", "base", "said"})
            fs::create_directory(dir_ / name);
        fs::remove("/overlay");
        target_.add(layout::Image());
        setenv("ZNC_BASE", (dir_ / "base").c_str(), 1);
    }
    ~Place()
    {
        unsetenv("ZNC_BASE");
        fs::remove_all(kOutside);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    [[nodiscard]] layout::Layout& source() { return source_; }
    [[nodiscard]] std::string path(const std::string& name) const { return dir_ / name; }

    // Runs the import of `source`, and checks what must hold for every result.
    Ended import(const std::string& source, const Words& options);
    // Unpacks the imported image next to files that must not change.
    void unpack();

  private:
    // A snapshot of everything that must not change.
    struct View {
        sentinel::Snapshot bait;
        std::set<std::string> places;
        bool operator==(const View&) const = default;
    };
    [[nodiscard]] View look() const;
    void expect_untouched(const View& before) const;
    // Returns the name and content of every file of the layout.
    [[nodiscard]] std::map<std::string, std::string> target_files() const;
    [[nodiscard]] Ended run(Words words) const;

    test_tree::TempDir dir_;
    layout::Layout source_;
    layout::Layout target_;
};

Place::View Place::look() const
{
    View view;
    for (const std::string& root : {std::string(kOutside), path("outside"), path("bundle/outside")})
        for (const auto& [name, state] : sentinel::look(root))
            view.bait[(root + "/").append(name)] = state;
    for (const std::string& place : {std::string("/"), std::string("/tmp"), std::string("/run"),
                                     std::string("/dev"), dir_.path(), path("spool")})
        for (const std::string& name : sentinel::names_in(place))
            view.places.insert((place + "/").append(name));
    return view;
}

void Place::expect_untouched(const View& before) const
{
    const View after = look();
    EXPECT_EQ(sentinel::difference(before.bait, after.bait), "");
    EXPECT_EQ(before.places, after.places);
}

std::map<std::string, std::string> Place::target_files() const
{
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(target_.dir()))
        if (!entry.is_directory())
            files[entry.path()] = test_tree::read_file(entry.path());
    return files;
}

Ended Place::run(Words words) const
{
    words.insert(words.begin(), ZNC_IMPORT_PROGRAM);
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    setenv("TMPDIR", path("spool").c_str(), 1);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, path("said/out").c_str(), flags, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, path("said/error").c_str(), flags, 0600);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    unsetenv("TMPDIR");
    if (rc != 0)
        throw std::system_error(rc, std::generic_category(), argv[0]);
    Ended ended = wait_for(pid);
    ended.error = test_tree::read_file(path("said/error"));
    return ended;
}

// Checks that the message is one line, whatever names it contains, and that the process has not
// crashed.
void expect_readable(const std::string& error, bool good)
{
    for (const char c : error)
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << error;
    for (const char* word : {"by signal", "an invalid result", "Sanitizer", "runtime error"})
        EXPECT_EQ(error.find(word), error.npos) << error;
    EXPECT_EQ(error.find("zncctl: error: ") != error.npos, !good) << error;
}

Ended Place::import(const std::string& source, const Words& options)
{
    const View before = look();
    const auto files = target_files();
    Words words = {"--tag=new"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--", source, target_.dir()});
    Ended ended = run(words);
    expect_untouched(before);
    EXPECT_TRUE(WIFEXITED(ended.status)) << "signal " << WTERMSIG(ended.status);
    EXPECT_LE(WEXITSTATUS(ended.status), 2) << ended.error;
    EXPECT_LE(ended.peak_kib, kMiBAtMost * 1024);
    expect_readable(ended.error, ended.good());
    if (!ended.good()) {
        EXPECT_EQ(files, target_files()) << "an import that failed changed the layout";
    }
    return ended;
}

void Place::unpack()
{
    const std::string bundle = path("bundle");
    const View before = look();
    errno = 0;
    const STATUS status = zncImageUnpack(bundle.c_str(), target_.c_str(), "new", 0, nullptr);
    EXPECT_EQ(status, OK) << std::hex << errno;
    expect_untouched(before);
    EXPECT_TRUE(status != OK || test_tree::exists(bundle + "/rootfs"));
}

const std::vector<tarforge::Case>& archives()
{
    static const std::vector<tarforge::Case> kCases =
        tarforge::read_case_directory(std::string(ZNC_TEST_DATA) + "/corpus");
    return kCases;
}

using ImportedArchive = testing::TestWithParam<std::size_t>;

std::string archive_name(const testing::TestParamInfo<std::size_t>& info)
{
    return archives().at(info.param).name;
}

struct LayoutCase {
    corpus::ImageCase image;
    bool verified; // the error is a digest or a size: nothing may be produced
};

const std::vector<LayoutCase>& layouts()
{
    static const std::vector<LayoutCase> kCases = [] {
        std::vector<LayoutCase> all;
        for (const auto& part : {corpus::digest_cases(), corpus::size_cases()})
            for (const corpus::ImageCase& one : part)
                all.push_back({one, one.code >= 0});
        for (const auto& part : {corpus::file_cases(), corpus::json_cases(),
                                 corpus::structure_cases(), corpus::configuration_cases()})
            for (const corpus::ImageCase& one : part)
                all.push_back({one, false});
        return all;
    }();
    return kCases;
}

using ImportedLayout = testing::TestWithParam<std::size_t>;

std::string layout_name(const testing::TestParamInfo<std::size_t>& info)
{
    return layouts().at(info.param).image.name;
}

// Inputs that the library accepts and the importer refuses: links in place of documents and blobs,
// ambiguous documents, and documents that cannot be preserved exactly.
const std::set<std::string> kStricter = {"VersionIsALinkToTheRightFile",
                                         "AskingForAWritableRoot",
                                         "AskingForResources",
                                         "IndexIsALinkToTheRightFile",
                                         "ManifestIsALinkToTheRightFile",
                                         "ConfigIsALinkToTheRightFile",
                                         "LayerIsALinkToTheRightFile",
                                         "ManifestHasAListOfManifestsToo",
                                         "ManifestSaysThatItIsAnIndex",
                                         "IndexHasAConfigAndLayersToo",
                                         "EntryNamesANestedIndex",
                                         "IndexHasAManyMembers",
                                         "ManifestHasAManyMembers",
                                         "ConfigHasAManyMembers",
                                         "IndexHasTwoVersionsTheFirstRight",
                                         "IndexHasTwoListsTheFirstRight",
                                         "EntryHasTwoDigestsTheFirstRight",
                                         "ManifestHasTwoConfigsTheFirstRight",
                                         "ConfigHasTwoSystemsTheFirstRight",
                                         "DigestOfEntryEndsAtANul",
                                         "DigestOfConfigEndsAtANul",
                                         "DigestOfLayerEndsAtANul",
                                         "IndexHasADeepMember",
                                         "ManifestHasADeepMember",
                                         "ConfigHasADeepMember",
                                         "IndexHasALargeNumber",
                                         "ManifestHasALargeNumber",
                                         "ConfigHasALargeNumber",
                                         "ConfigHasALongNumber",
                                         "ConfigWithThousandsOfDiffIds",
                                         "AskingToStartInANumber",
                                         "AskingForAProgramThatIsNoList",
                                         "ExecutionSectionIsAText",
                                         "ExecutionSectionIsAList",
                                         "ExecutionSectionIsANumber"};

// Everything that can be omitted is omitted.
const Words kLenient = {"--devices=drop", "--long-links=hop", "--skip-unrepresentable"};

} // namespace

TEST_P(ImportedArchive, AsARootFilesystemStaysInside)
{
    const tarforge::Case& one = archives().at(GetParam());
    SCOPED_TRACE(one.where);
    for (const std::string& archive : one.layers) {
        Place place;
        test_tree::write_file(place.path("said/archive"), archive);
        if (place.import("tar:" + place.path("said/archive"), {}).good())
            place.unpack();
    }
}

TEST_P(ImportedArchive, AsLayersStaysInside)
{
    const tarforge::Case& one = archives().at(GetParam());
    SCOPED_TRACE(one.where);
    Place place;
    layout::Image image;
    image.layers = one.layers;
    image.layers.insert(image.layers.begin(), layout::tar({{"below", "kept"}}));
    place.source().add(image);
    if (place.import(place.source().dir(), kLenient).good())
        place.unpack();
}

INSTANTIATE_TEST_SUITE_P(Archives, ImportedArchive,
                         testing::Range(std::size_t{0}, archives().size()), archive_name);

TEST_P(ImportedLayout, IsRefusedOrImported)
{
    const LayoutCase& one = layouts().at(GetParam());
    Place place;
    corpus::Draft draft;
    draft.set = one.image.set;
    draft.write(place.source());
    if (one.image.then)
        one.image.then(draft);
    const Ended ended = place.import(place.source().dir(), {});
    if (one.image.code < 0) {
        EXPECT_EQ(ended.good(), kStricter.count(one.image.name) == 0) << ended.error;
    }
    EXPECT_FALSE(one.verified && ended.good());
    if (ended.good())
        place.unpack();
}

INSTANTIATE_TEST_SUITE_P(Layouts, ImportedLayout, testing::Range(std::size_t{0}, layouts().size()),
                         layout_name);

// Not all of them are refused for the same reason.
TEST(ImportedCorpus, AValidImageIsImported)
{
    Place place;
    place.source().add(layout::Image());
    const Ended ended = place.import(place.source().dir(), {"--strict"});
    EXPECT_TRUE(ended.good()) << ended.error;
    place.unpack();
    EXPECT_EQ(test_tree::read_file(place.path("bundle/rootfs/file")), "content");
}
