// Tests names of images, the store that holds them, and what its lists show.
#include "cli/images/image_list.hpp"
#include "cli/images/image_lookup.hpp"
#include "cli/images/image_source.hpp"
#include "cli/images/image_store.hpp"
#include "cli/images/reference.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>

using namespace zncctl;

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

std::string full(std::string_view text, const char* host = kDefaultRegistry)
{
    const auto reference = parse_reference(text, host);
    return reference ? reference->text() : "none";
}

Texts possible(std::string_view text)
{
    Texts texts;
    for (const Reference& reference : possible_references(text))
        texts.push_back(reference.text());
    return texts;
}

const std::string kDigest = "sha256:" + std::string(64, 'a');

// A storage base of its own for each test.
class ImageStoreTest : public testing::Test {
  protected:
    void SetUp() override { ::setenv("ZNC_BASE", (dir_ / "base").c_str(), 1); }
    void TearDown() override { ::unsetenv("ZNC_BASE"); }

    // Adds an image, which differs from others by its text, in the way of the commands.
    StoredImage add(const std::string& text, const std::string& name,
                    const std::string& source = "")
    {
        const ImageStage stage;
        const std::string layout = stage.path() + "/made";
        layout::Image image;
        image.layers = {layout::tar({{"file", text}})};
        layout::Layout(layout).add(image);
        std::string problem;
        const auto images = read_layout(layout, problem);
        EXPECT_EQ(problem, "");
        StoredImage stored = {name, images->front().manifest, "linux", "amd64", source};
        StoreChange change;
        change.adopt(layout, images->front());
        change.put(stored);
        change.save();
        return stored;
    }

    static Texts names()
    {
        Texts names;
        for (const StoredImage& image : stored_images())
            names.push_back(image.name);
        return names;
    }

    static std::size_t blobs()
    {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(image_area() + "/blobs/sha256"))
            count += entry.is_regular_file() ? 1 : 0;
        return count;
    }

    static std::vector<std::size_t> found(const std::string& text)
    {
        std::string problem;
        return find_stored(stored_images(), text, problem);
    }

    layout::TempDir dir_;
};

} // namespace

TEST(Reference, GetsRegistryAndTagThatAreMissing)
{
    EXPECT_EQ(full("busybox"), "docker.io/library/busybox:latest");
    EXPECT_EQ(full("busybox:1.36"), "docker.io/library/busybox:1.36");
    EXPECT_EQ(full("team/app"), "docker.io/team/app:latest");
    EXPECT_EQ(full("docker.io/busybox"), "docker.io/library/busybox:latest");
    EXPECT_EQ(full("quay.io/team/app:v1"), "quay.io/team/app:v1");
    EXPECT_EQ(full("localhost:5000/app"), "localhost:5000/app:latest");
    EXPECT_EQ(full("[::1]:5000/app"), "[::1]:5000/app:latest");
    EXPECT_EQ(full("busybox", kLocalHost), "localhost/busybox:latest");
    EXPECT_EQ(full("f/a.b_c__d---e:T.a_g-1"), "docker.io/f/a.b_c__d---e:T.a_g-1");
}

TEST(Reference, KeepsADigestAndDropsTheTagBesideIt)
{
    EXPECT_EQ(full("busybox@" + kDigest), "docker.io/library/busybox@" + kDigest);
    EXPECT_EQ(full("busybox:1.36@" + kDigest), "docker.io/library/busybox@" + kDigest);
}

TEST(Reference, RefusesWhatIsNoName)
{
    for (const char* text :
         {"",       "/",         ".",          "..",       "../x",         "a/../b",   "/a",
          "a/",     "a//b",      "A",          "a b",      "a\nb",         "a\x1b[2J", "-a",
          "a-",     "a..b",      "a___b",      "a:",       "a:-t",         "a:.t",     "a:t u",
          "a:t/",   "a@",        "a@sha256:1", "a@sha256", "x:99999999/a", ":5000/a",  "a\xff",
          "h..x/a", "localhost/"})
        EXPECT_EQ(full(text), "none") << text;
    EXPECT_EQ(full(std::string("a\0b", 3)), "none");
    EXPECT_EQ(full(std::string(300, 'a')), "none");
    EXPECT_EQ(full("a:" + std::string(129, 'a')), "none");
    EXPECT_NE(full("a:" + std::string(128, 'a')), "none");
}

TEST(Reference, ShortNamesAreLookedForLocallyFirst)
{
    EXPECT_EQ(possible("app"), (Texts{"localhost/app:latest", "docker.io/library/app:latest"}));
    EXPECT_EQ(possible("t/app:1"), (Texts{"localhost/t/app:1", "docker.io/t/app:1"}));
    EXPECT_EQ(possible("quay.io/app"), (Texts{"quay.io/app:latest"}));
    EXPECT_EQ(possible("a b"), Texts{});
}

TEST(Reference, IdsAreHexadecimalDigits)
{
    EXPECT_TRUE(is_id_prefix("3f5"));
    EXPECT_TRUE(is_id_prefix("sha256:3f5"));
    EXPECT_TRUE(is_id_prefix(std::string(64, 'a')));
    EXPECT_FALSE(is_id_prefix(std::string(65, 'a')));
    EXPECT_FALSE(is_id_prefix(""));
    EXPECT_FALSE(is_id_prefix("sha256:"));
    EXPECT_FALSE(is_id_prefix("3F"));
    EXPECT_FALSE(is_id_prefix("../3"));
}

TEST(LayoutPath, IsDistinguishedFromAName)
{
    const layout::TempDir dir;
    fs::create_directory(dir / "layout");
    for (const std::string& text : {std::string("/x"), std::string("./x"), std::string("../x:t"),
                                    std::string("."), std::string(".."), dir / "layout" + ":tag"})
        EXPECT_TRUE(is_layout_path(text)) << text;
    fs::current_path(dir / "");
    for (const char* text : {"layout", "layout:tag", "busybox", "team/app", "quay.io/app:1",
                             "oci:x", "3f57d9", ".hidden"})
        EXPECT_FALSE(is_layout_path(text)) << text;
    fs::current_path("/");
}

TEST(LayoutBelow, IsADirectoryWithALayoutInAnotherOne)
{
    const layout::TempDir dir;
    fs::create_directories(dir / "build/other");
    layout::Layout(dir / "build/image").add(layout::Image());
    fs::current_path(dir / "");
    EXPECT_TRUE(is_layout_below("build/image"));
    EXPECT_TRUE(is_layout_below("build/image:tag"));
    EXPECT_FALSE(is_layout_below("build/other"));
    EXPECT_FALSE(is_layout_below("build"));
    fs::current_path(dir / "build");
    EXPECT_FALSE(is_layout_below("image")); // looks like a name of the store
    fs::current_path("/");
}

TEST_F(ImageStoreTest, IsEmptyAtFirst)
{
    EXPECT_EQ(names(), Texts{});
    struct stat st = {};
    ASSERT_EQ(::stat(image_area().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777U, 0700U);
}

TEST_F(ImageStoreTest, FindsAnImageByNameDigestAndId)
{
    const StoredImage image = add("x", "docker.io/library/app:latest", kDigest);
    const Image documents = read_stored(image_area(), image);
    const std::string id = documents.config.digest;
    for (const std::string& text :
         {std::string("app"), std::string("app:latest"), std::string("docker.io/library/app"),
          "app@" + image.manifest.digest, "app@" + kDigest, id, id.substr(7), id.substr(7, 12),
          id.substr(7, 3), image.manifest.digest})
        EXPECT_EQ(found(text).size(), 1U) << text;
    for (const std::string& text :
         {std::string("ap"), std::string("app:other"), std::string("localhost/app"),
          "other@" + kDigest, std::string(64, '0'), std::string("sha256:")})
        EXPECT_EQ(found(text).size(), 0U) << text;
}

TEST_F(ImageStoreTest, PrefersLocalNames)
{
    add("x", "docker.io/library/app:latest");
    add("y", "localhost/app:latest");
    EXPECT_EQ(found("app"), std::vector<std::size_t>{1});
}

TEST_F(ImageStoreTest, RefusesAnAmbiguousId)
{
    for (int i = 0; i < 17; i++) // of 17 ids two begin with the same digit
        add(std::to_string(i), "localhost/app:" + std::to_string(i));
    std::string problem;
    std::size_t ambiguous = 0;
    for (const char* digit : {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "sha256:a",
                              "sha256:b", "sha256:c", "sha256:d", "sha256:e", "sha256:f"}) {
        find_stored(stored_images(), digit, problem);
        ambiguous += problem == "several images have an id that begins like this" ? 1 : 0;
    }
    EXPECT_GE(ambiguous, 1U);
}

TEST_F(ImageStoreTest, ANameMovesToTheNewImage)
{
    const StoredImage old = add("old", "localhost/app:latest");
    const StoredImage fresh = add("new", "localhost/app:latest");
    EXPECT_EQ(names(), (Texts{"", "localhost/app:latest"}));
    EXPECT_EQ(stored_images()[0].manifest.digest, old.manifest.digest);
    EXPECT_EQ(stored_images()[found("app")[0]].manifest.digest, fresh.manifest.digest);
    add("old", "localhost/old:latest"); // it has a name again
    EXPECT_EQ(names(), (Texts{"localhost/app:latest", "localhost/old:latest"}));
}

TEST_F(ImageStoreTest, AddingAnImageAgainKeepsOneEntry)
{
    add("x", "localhost/app:latest");
    add("x", "localhost/app:latest");
    EXPECT_EQ(names(), (Texts{"localhost/app:latest"}));
    add("x", "");
    EXPECT_EQ(names(), (Texts{"localhost/app:latest"}));
}

TEST_F(ImageStoreTest, TakesSeveralNamesAtOnce)
{
    const StoredImage old = add("old", "localhost/a:latest");
    add("old", "localhost/b:latest");
    StoredImage fresh = add("new", "");
    StoreChange change;
    fresh.source = kDigest;
    change.put(fresh, {"localhost/b:latest", "localhost/c:latest", "localhost/b:latest"});
    change.save();
    EXPECT_EQ(names(), (Texts{"localhost/a:latest", "localhost/b:latest", "localhost/c:latest"}));
    EXPECT_EQ(stored_images()[1].manifest.digest, fresh.manifest.digest);
    EXPECT_EQ(stored_images()[1].source, kDigest);
    change.put(fresh, {"localhost/a:latest"}); // the other image stays, without a name
    change.save();
    EXPECT_EQ(names(),
              (Texts{"", "localhost/b:latest", "localhost/c:latest", "localhost/a:latest"}));
    EXPECT_EQ(stored_images()[0].manifest.digest, old.manifest.digest);
}

TEST_F(ImageStoreTest, AddingANamedImageAgainRecordsItsSource)
{
    add("x", "localhost/x:latest");
    add("x", "", kDigest);
    EXPECT_EQ(names(), (Texts{"localhost/x:latest"}));
    EXPECT_EQ(stored_images()[0].source, kDigest);
    add("x", "", "sha256:" + std::string(64, 'b'));
    EXPECT_EQ(stored_images()[0].source, kDigest);
}

TEST_F(ImageStoreTest, RefusesMoreNamesThanItHoldsBeforeAnyIsAdded)
{
    const StoredImage image = add("x", "localhost/x:latest");
    Texts many;
    for (int i = 0; i < 10'000; i++)
        many.push_back("localhost/x:" + std::to_string(i));
    StoreChange change;
    EXPECT_THROW(change.put(image, many), std::runtime_error);
    EXPECT_EQ(change.images().size(), 1U);
    many.pop_back();
    change.put(image, many);
    change.save();
    EXPECT_EQ(names().size(), 10'000U);
    EXPECT_NO_THROW(change.put(image, {"localhost/x:0", "localhost/x:1"})); // which are there
    EXPECT_THROW(change.put({"localhost/y:latest", image.manifest, "linux", "amd64", ""}),
                 std::runtime_error);
}

TEST_F(ImageStoreTest, RemovesOnlyBlobsThatNoImageNeeds)
{
    add("x", "localhost/x:latest");
    add("y", "localhost/y:latest");
    const std::size_t both = blobs();
    StoreChange change;
    EXPECT_EQ(change.remove_unneeded_blobs(), 0U);
    EXPECT_EQ(blobs(), both);
    change.remove({0});
    change.save();
    EXPECT_GT(change.remove_unneeded_blobs(), 0U);
    EXPECT_EQ(blobs(), both / 2);
    change.remove({0});
    change.save();
    EXPECT_GT(change.remove_unneeded_blobs(), 0U);
    EXPECT_EQ(blobs(), 0U);
}

TEST_F(ImageStoreTest, KeepsBlobsWhileAnImageIsInUse)
{
    add("x", "localhost/x:latest");
    const std::size_t all = blobs();
    StoreChange change;
    change.remove({0});
    change.save();
    {
        const BundlesInUse in_use(image_area());
        EXPECT_EQ(change.remove_unneeded_blobs(), 0U);
        EXPECT_EQ(blobs(), all);
    }
    EXPECT_GT(change.remove_unneeded_blobs(), 0U);
}

TEST_F(ImageStoreTest, KeepsAllBlobsIfAManifestCannotBeRead)
{
    const StoredImage damaged = add("x", "localhost/x:latest");
    add("y", "localhost/y:latest");
    layout::write_file(blob_path(image_area(), damaged.manifest.digest), "{}");
    const std::size_t all = blobs();
    StoreChange change;
    change.remove({1});
    change.save();
    testing::internal::CaptureStderr();
    EXPECT_EQ(change.remove_unneeded_blobs(), 0U);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("localhost/x:latest: it is damaged: "),
              std::string::npos);
    EXPECT_EQ(blobs(), all);
}

TEST_F(ImageStoreTest, KeepsOnlyTheBlobsOfAnImageWhoseConfigurationIsDamaged)
{
    const StoredImage damaged = add("x", "localhost/x:latest");
    add("y", "localhost/y:latest");
    const std::size_t all = blobs();
    const Image image = read_stored(image_area(), damaged);
    layout::write_file(blob_path(image_area(), image.config.digest), "{}");
    StoreChange change;
    change.remove({1});
    change.save();
    testing::internal::CaptureStderr();
    EXPECT_GT(change.remove_unneeded_blobs(), 0U);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("localhost/x:latest: it is damaged: "),
              std::string::npos);
    EXPECT_EQ(blobs(), all / 2);
}

TEST_F(ImageStoreTest, RefusesADamagedIndex)
{
    add("x", "localhost/x:latest");
    for (const char* text : {"", "[]", "{", R"({"manifests":{}})",
                             R"({"manifests":[{"digest":"../../../etc/passwd"}]})",
                             R"({"manifests":[],"Manifests":[]})"}) {
        layout::write_file(image_area() + "/index.json", text);
        EXPECT_THROW(stored_images(), std::runtime_error) << text;
        EXPECT_THROW(StoreChange(), std::runtime_error) << text;
    }
}

TEST_F(ImageStoreTest, AStageOfAProcessThatWasKilledIsRemovedByTheNext)
{
    const std::string left = image_area() + "/.new-left";
    fs::create_directories(left + "/made/blobs");
    const ImageStage first;
    EXPECT_FALSE(fs::exists(left));
    const ImageStage second;
    EXPECT_TRUE(fs::exists(first.path())); // it is in use
}

TEST_F(ImageStoreTest, ListsNameIdAndSize)
{
    const StoredImage image = add("x", "quay.io/team/app:v1");
    const auto list = listed_images();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].repository, "quay.io/team/app");
    EXPECT_EQ(list[0].tag, "v1");
    EXPECT_EQ(list[0].id, read_stored(image_area(), image).config.digest);
    EXPECT_GT(list[0].size, 1024);
}

TEST(ImageList, ReadsTimes)
{
    EXPECT_EQ(time_of("1970-01-02T00:00:00Z"), 86400);
    EXPECT_EQ(time_of("1970-01-02T00:00:00.123456789Z"), 86400);
    EXPECT_EQ(time_of("1970-01-02T01:30:00+01:30"), 86400);
    EXPECT_EQ(time_of("1970-01-01T23:00:00-01:00"), 86400);
    for (const char* text : {"", "yesterday", "1970-01-02", "1970-01-02T00:00:00",
                             "1970-01-02T00:00:00+1", "1970-01-02T00:00:00Zx"})
        EXPECT_EQ(time_of(text), std::nullopt) << text;
}

TEST(ImageList, ShowsAgesAndSizesInOneUnit)
{
    const char* const epoch = "1970-01-01T00:00:00Z";
    EXPECT_EQ(age_text(epoch, 0), "now");
    EXPECT_EQ(age_text(epoch, 1), "1 second ago");
    EXPECT_EQ(age_text(epoch, 7200), "2 hours ago");
    EXPECT_EQ(age_text(epoch, 86400 * 20), "2 weeks ago");
    EXPECT_EQ(age_text(epoch, 86400L * 800), "2 years ago");
    EXPECT_EQ(age_text(epoch, -5), "now");
    EXPECT_EQ(age_text("", 0), "-");
    EXPECT_EQ(size_text(0), "0 B");
    EXPECT_EQ(size_text(999), "999 B");
    EXPECT_EQ(size_text(4170000), "4.17 MB");
    EXPECT_EQ(size_text(INT64_MAX), "9.22 EB");
}

TEST(ImageList, SumsOfHostileSizesStayInRange)
{
    Image image;
    image.layers = {{"", "", INT64_MAX}, {"", "", INT64_MAX}, {"", "", -5}};
    EXPECT_EQ(layers_size(image), INT64_MAX);
}

TEST(FindImage, WithoutAnOperatingSystemTakesTheOnlyImageElseTheOneForLinux)
{
    const auto image = [](const char* tag, const char* os, const char* arch) {
        Image made;
        made.tag = tag;
        made.os = os;
        made.arch = arch;
        return made;
    };
    const std::vector<Image> images = {
        image("one", "zarnel", "amd64"), image("two", "zarnel", "amd64"),
        image("two", "linux", "amd64"), image("arm", "linux", "arm64")};
    EXPECT_EQ(find_image(images, "one", "", "amd64"), &images[0]);
    EXPECT_EQ(find_image(images, "two", "", "amd64"), &images[2]);
    EXPECT_EQ(find_image(images, "two", "zarnel", "amd64"), &images[1]);
    EXPECT_EQ(find_image(images, "one", "linux", "amd64"), nullptr);
    EXPECT_EQ(find_image(images, "arm", "", "amd64"), nullptr);
    EXPECT_EQ(find_image(images, "arm", "", "arm64"), &images[3]);
}
