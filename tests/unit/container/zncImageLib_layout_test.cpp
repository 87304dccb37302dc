// Tests of reading valid image layouts, and layouts with a single error.
#include "zncImageLib.hpp"

#include "alloc_fault.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <functional>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using layout::Image;
using layout::kConfigType;
using layout::kLayerType;
using layout::kManifestType;
using layout::write_file;

std::string hex_text(const std::uint8_t (&bytes)[32])
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

std::string replaced(std::string text, const std::string& what, const std::string& with)
{
    const std::size_t at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what << " is not in " << text;
    return at == std::string::npos ? text : text.replace(at, what.size(), with);
}

class LayoutReader : public ::testing::Test {
  protected:
    void SetUp() override { read_new(); }

    void read_new()
    {
        image_.reset(zncImageInfoCreate());
        image_->ociPath = layout_.c_str();
    }
    STATUS parse()
    {
        read_new();
        errno = 0;
        return zncImageParse(image_.get());
    }
    void expect_failure(int code)
    {
        EXPECT_EQ(parse(), ERROR);
        EXPECT_EQ(errno, code);
        EXPECT_EQ(image_->manifestsCount, 0);
        EXPECT_EQ(image_->manifests, nullptr);
    }
    int find(const char* os, const char* arch, const char* tag)
    {
        return zncImageFindManifest(image_.get(), os, arch, tag);
    }

    // A valid image whose manifest is modified before it is stored.
    void add_with_manifest(const std::function<std::string(std::string)>& change)
    {
        const Image image;
        layout_.add_manifest(change(
            layout_.manifest_json(layout_.add_described(layout_.config_json(image), kConfigType),
                                  {layout_.add_described(image.layers[0], kLayerType)})));
    }
    // The same for the configuration.
    void add_with_config(const std::function<std::string(std::string)>& change)
    {
        const Image image;
        layout_.add_manifest(layout_.manifest_json(
            layout_.add_described(change(layout_.config_json(image)), kConfigType),
            {layout_.add_described(image.layers[0], kLayerType)}));
    }
    // The same for the index entry. The function is called with the text of the entry.
    void add_with_entry(const std::function<std::string(std::string)>& change)
    {
        const std::string manifest = right_manifest();
        layout_.add_entry(
            change(layout::descriptor(kManifestType, layout_.add_blob(manifest), manifest.size())));
    }
    std::string right_manifest()
    {
        const Image image;
        return layout_.manifest_json(layout_.add_described(layout_.config_json(image), kConfigType),
                                     {layout_.add_described(image.layers[0], kLayerType)});
    }
    // An image with these diff identifiers.
    void add_with_ids(const std::vector<std::string>& ids)
    {
        Image image;
        image.diff_ids = ids;
        layout_.add(image);
    }

    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "img"};
    znc::OciImagePtr image_;
};

// ------------------------------------------------------------------ a right layout

TEST_F(LayoutReader, ANewRecordIsEmptyAndHasNoManifestChosen)
{
    const znc::OciImagePtr image(zncImageInfoCreate());
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->manifestsIndex, -1);
    EXPECT_EQ(image->manifestsCount, 0);
    EXPECT_EQ(image->manifests, nullptr);
    zncImageInfoDelete(nullptr);
}

TEST_F(LayoutReader, ARightLayoutFillsTheRecord)
{
    Image spec;
    spec.layers = {layout::tar({{"a", "1"}}), layout::tar({{"b", "2"}})};
    spec.platform = R"({"os":"zarnel","architecture":"amd64"})";
    layout_.add(spec);
    ASSERT_EQ(parse(), OK) << std::hex << errno;
    ASSERT_EQ(image_->manifestsCount, 1);
    EXPECT_EQ(std::string(image_->indexFileName), (layout_.dir() / "index.json").string());
    const ZNC_IMAGE_MANIFEST& manifest = image_->manifests[0];
    EXPECT_STREQ(cJSON_GetStringValue(manifest.mediaType), kManifestType);
    EXPECT_EQ(std::string(manifest.manifestFileName),
              layout_.blob(cJSON_GetStringValue(manifest.digest)).string());
    EXPECT_STREQ(cJSON_GetStringValue(manifest.os), "zarnel");
    EXPECT_STREQ(cJSON_GetStringValue(manifest.architecture), "amd64");
    EXPECT_TRUE(cJSON_IsObject(manifest.annotations));
    EXPECT_EQ(manifest.schemaVersion->valueint, 2);
    EXPECT_EQ(manifest.size->valueint, static_cast<int>(fs::file_size(manifest.manifestFileName)));
    ASSERT_EQ(manifest.manifestLayersCount, 2);
    for (int i = 0; i < 2; ++i) { // the bottom layer first
        EXPECT_EQ(layout::read_file(manifest.manifestLayers[i].layerFileName),
                  spec.layers[static_cast<std::size_t>(i)]);
        EXPECT_STREQ(cJSON_GetStringValue(manifest.manifestLayers[i].mediaType), kLayerType);
    }
    const ZNC_IMAGE_CONFIG& config = manifest.manifestConfig.imageConfig;
    EXPECT_STREQ(cJSON_GetStringValue(config.os), "zarnel");
    EXPECT_STREQ(cJSON_GetStringValue(config.architecture), "amd64");
    EXPECT_EQ(config.user, nullptr);
    ASSERT_EQ(config.imageCfgRootfs.diffIdCount, 2U);
    EXPECT_EQ(config.imageCfgRootfs.diffId[1], layout::sha256_hex(spec.layers[1]));
}

TEST_F(LayoutReader, AnEntryWithoutPlatformAndAnnotationsHasNone)
{
    Image spec;
    spec.name = "";
    layout_.add(spec);
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(image_->manifests[0].os, nullptr);
    EXPECT_EQ(image_->manifests[0].architecture, nullptr);
    EXPECT_EQ(image_->manifests[0].annotations, nullptr);
}

TEST_F(LayoutReader, BlobsMayBeNamedBySha512)
{
    const std::string manifest = right_manifest();
    const std::string digest = "sha512:" + layout::sha512_hex(manifest);
    fs::create_directories(layout_.dir() / "blobs" / "sha512");
    write_file(layout_.blob(digest), manifest);
    layout_.add_entry(layout::descriptor(kManifestType, digest, manifest.size()));
    EXPECT_EQ(parse(), OK) << std::hex << errno;
}

// ------------------------------------------------------------------ oci-layout

TEST_F(LayoutReader, MissingOciLayoutIsLayoutNotFound)
{
    layout_.add({});
    fs::remove(layout_.dir() / "oci-layout");
    expect_failure(S_zncLib_LAYOUT_NOT_FOUND);
}

TEST_F(LayoutReader, LayoutVersion101IsLayoutInvalid)
{
    layout_.add({});
    write_file(layout_.dir() / "oci-layout", R"({"imageLayoutVersion":"1.0.1"})");
    expect_failure(S_zncLib_LAYOUT_INVALID);
}

TEST_F(LayoutReader, UnreadableOrVersionlessOciLayoutIsLayoutInvalid)
{
    layout_.add({});
    for (const char* text : {"", "{", "{}", R"({"imageLayoutVersion":1})", R"(["1.0.0"])"}) {
        write_file(layout_.dir() / "oci-layout", text);
        expect_failure(S_zncLib_LAYOUT_INVALID);
    }
    fs::remove(layout_.dir() / "oci-layout");
    fs::create_directory(layout_.dir() / "oci-layout");
    expect_failure(S_zncLib_LAYOUT_INVALID);
}

TEST_F(LayoutReader, AnImagePathTooLongForOciLayoutFailsWithNumberZero)
{
    for (const std::size_t len : {1013U, 1100U}) { // 1013 and "/oci-layout" make 1024
        errno = EIO;
        EXPECT_EQ(zncImageParseLayout(std::string(len, 'x').c_str()), ERROR);
        EXPECT_EQ(errno, 0);
    }
    errno = EIO;
    EXPECT_EQ(zncImageParseLayout(std::string(1012, 'x').c_str()), ERROR);
    EXPECT_EQ(errno, S_zncLib_LAYOUT_NOT_FOUND);
    errno = EIO;
    EXPECT_EQ(zncImageParseLayout(nullptr), ERROR);
    EXPECT_EQ(errno, 0);
}

TEST_F(LayoutReader, NoMemoryForTheLayoutPathFailsWithNumberZero)
{
    alloc_fault::arm(1);
    const STATUS status = zncImageParseLayout(layout_.c_str());
    const int error = errno;
    alloc_fault::disarm();
    EXPECT_EQ(status, ERROR);
    EXPECT_EQ(error, 0);
}

// ------------------------------------------------------------------ index.json

TEST_F(LayoutReader, MissingIndexIsIndexNotFound)
{
    expect_failure(S_zncLib_INDEX_NOT_FOUND);
}

TEST_F(LayoutReader, AnIndexWithoutManifestsIsIndexInvalid)
{
    for (const char* text :
         {"", "{", R"({"schemaVersion":2})", R"({"schemaVersion":2,"manifests":[]})",
          R"({"schemaVersion":2,"manifests":5})", R"({"manifests":[1]})"}) {
        write_file(layout_.dir() / "index.json", text);
        expect_failure(S_zncLib_INDEX_INVALID);
    }
}

TEST_F(LayoutReader, IndexSchemaVersion1IsIndexInvalid)
{
    layout_.add({});
    layout_.write_index("1");
    expect_failure(S_zncLib_INDEX_INVALID);
}

TEST_F(LayoutReader, AnEntryLackingAMemberIsIndexInvalid)
{
    for (const char* member : {"mediaType", "size", "digest"}) {
        const layout::TempDir dir;
        layout_ = layout::Layout(dir.path());
        add_with_entry([&](const std::string& entry) {
            return replaced(entry, "\"" + std::string(member) + "\"", "\"other\"");
        });
        expect_failure(S_zncLib_INDEX_INVALID);
    }
}

TEST_F(LayoutReader, AnEntryOfAForeignMediaTypeIsIndexInvalid)
{
    add_with_entry([](const std::string& e) { return replaced(e, kManifestType, kConfigType); });
    expect_failure(S_zncLib_INDEX_INVALID);
}

TEST_F(LayoutReader, AnEntryWhoseSizeDiffersIsIndexInvalid)
{
    add_with_entry([](const std::string& e) { return replaced(e, "\"size\":", "\"size\":1"); });
    expect_failure(S_zncLib_INDEX_INVALID);
}

TEST_F(LayoutReader, AManifestWithOneByteChangedFailsItsDigest)
{
    std::string manifest = right_manifest();
    const std::string digest = layout_.add_blob(manifest);
    manifest[manifest.size() / 2] ^= 1;
    write_file(layout_.blob(digest), manifest);
    layout_.add_entry(layout::descriptor(kManifestType, digest, manifest.size()));
    expect_failure(S_zncLib_INDEX_INVALID);
}

TEST_F(LayoutReader, AnUpperCaseDigestPasses)
{
    const std::string manifest = right_manifest();
    std::string digits = layout::sha256_hex(manifest);
    std::transform(digits.begin(), digits.end(), digits.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    write_file(layout_.blob("sha256:" + digits), manifest);
    layout_.add_entry(layout::descriptor(kManifestType, "sha256:" + digits, manifest.size()));
    EXPECT_EQ(parse(), OK);
}

TEST_F(LayoutReader, ADigestWithoutColonIsEINVAL)
{
    layout_.add_entry(layout::descriptor(kManifestType, "sha256", 5));
    expect_failure(EINVAL);
}

TEST_F(LayoutReader, ADigestWithTextBehindItsDigitsPasses)
{
    const std::string manifest = right_manifest();
    const std::string digest = "sha256:" + layout::sha256_hex(manifest) + "extra";
    write_file(layout_.blob(digest), manifest);
    layout_.add_entry(layout::descriptor(kManifestType, digest, manifest.size()));
    EXPECT_EQ(parse(), OK);
}

TEST_F(LayoutReader, ADigestThatIsNoTextOrTooLongIsENAMETOOLONG)
{
    add_with_entry(
        [](const std::string& e) { return replaced(e, "\"digest\":", "\"digest\":5,\"d\":"); });
    expect_failure(ENAMETOOLONG);
    layout_ = layout::Layout(dir_.path() / "long");
    layout_.add_entry(layout::descriptor(kManifestType, "sha256:" + std::string(1100, 'a'), 5));
    expect_failure(ENAMETOOLONG);
}

TEST_F(LayoutReader, ADigestThatClimbsOutIsIndexInvalid)
{
    const std::string manifest = right_manifest();
    write_file(dir_ / "outside", manifest);
    const std::string digits = layout::sha256_hex(manifest);
    fs::create_directories(layout_.dir() / "blobs" / "sha256" / digits);
    layout_.add_entry(layout::descriptor(kManifestType, "sha256:" + digits + "/../../../../outside",
                                         manifest.size()));
    expect_failure(S_zncLib_INDEX_INVALID);
}

TEST_F(LayoutReader, ABlobThatIsNoFileIsRefusedWithoutBlocking)
{
    const std::string empty_digest = "sha256:" + layout::sha256_hex("");
    ASSERT_EQ(::mkfifo(layout_.blob(empty_digest).c_str(), 0600), 0);
    layout_.add_entry(layout::descriptor(kManifestType, empty_digest, 0));
    expect_failure(S_zncLib_INDEX_INVALID);
}

TEST_F(LayoutReader, WhatIsNoFileIsNotEvenOpened)
{
    // a FIFO, representing a device that has side effects when it is opened
    const std::string device = dir_ / "device";
    ASSERT_EQ(::mkfifo(device.c_str(), 0600), 0);
    const znc::UniqueFd watch(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(::inotify_add_watch(watch.get(), device.c_str(), IN_OPEN), 0);
    const std::string digest = "sha256:" + layout::sha256_hex("");
    fs::create_symlink(device, layout_.blob(digest));
    layout_.add_entry(layout::descriptor(kManifestType, digest, 0));
    expect_failure(S_zncLib_INDEX_INVALID);
    layout_ = layout::Layout(dir_.path() / "climbing");
    layout_.add_entry(layout::descriptor(kManifestType, "sha256:../../../device", 0));
    expect_failure(S_zncLib_INDEX_INVALID);
    EXPECT_EQ(validateSha256(device.c_str(), layout::sha256_hex("").c_str()), ERROR);
    for (const auto& [file, code] : {std::pair("index.json", S_zncLib_INDEX_INVALID),
                                     std::pair("oci-layout", S_zncLib_LAYOUT_INVALID)}) {
        fs::remove(layout_.dir() / file);
        fs::create_symlink(device, layout_.dir() / file);
        expect_failure(code);
    }
    char event[512];
    EXPECT_EQ(::read(watch.get(), event, sizeof event), -1);
    EXPECT_EQ(errno, EAGAIN);
    const znc::UniqueFd opened(::open(device.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_GT(::read(watch.get(), event, sizeof event), 0); // verifies that the watch works
}

TEST_F(LayoutReader, ALaterBadEntryReleasesTheManifestsBeforeIt)
{
    layout_.add({});
    layout_.add_entry("{}");
    expect_failure(S_zncLib_INDEX_INVALID); // the sanitizer build detects a leak
}

TEST_F(LayoutReader, ANestedIndexIsReadAsAManifest)
{
    const std::string manifest = right_manifest();
    layout_.add_entry(
        layout::descriptor(layout::kIndexType, layout_.add_blob(manifest), manifest.size()));
    EXPECT_EQ(parse(), OK);
    const std::string nested = R"({"schemaVersion":2,"manifests":[]})";
    layout_.add_entry(
        layout::descriptor(layout::kIndexType, layout_.add_blob(nested), nested.size()));
    expect_failure(S_zncLib_MANIFEST_INVALID);
}

// ------------------------------------------------------------------ manifests

TEST_F(LayoutReader, MissingManifestBlobIsManifestNotFound)
{
    layout_.add_entry(layout::descriptor(kManifestType, "sha256:" + layout::sha256_hex("x"), 1));
    expect_failure(S_zncLib_MANIFEST_NOT_FOUND);
}

TEST_F(LayoutReader, AManifestThatIsNoJsonIsManifestInvalid)
{
    layout_.add_manifest("{");
    expect_failure(S_zncLib_MANIFEST_INVALID);
}

TEST_F(LayoutReader, AManifestWithAnyCheckFailingIsManifestInvalid)
{
    const struct {
        const char* what;
        const char* with;
    } rows[] = {
        {"\"schemaVersion\":2", "\"schemaVersion\":1"},
        {"\"schemaVersion\":2,", ""},
        {"\"config\":", "\"other\":"},
        {kConfigType, kLayerType},
        {"\"layers\":", "\"other\":"},
        {"\"layers\":[", "\"layers\":[],\"other\":["},
        {"\"layers\":[", "\"layers\":[{},"},
        {"\"layers\":[", "\"layers\":[5,"},
        {kLayerType, "application/vnd.oci.image.layer.v1.tar+zstd"},
    };
    for (const auto& row : rows) {
        const layout::TempDir dir;
        layout_ = layout::Layout(dir.path());
        add_with_manifest([&](const std::string& m) { return replaced(m, row.what, row.with); });
        SCOPED_TRACE(row.what);
        expect_failure(S_zncLib_MANIFEST_INVALID);
    }
}

TEST_F(LayoutReader, ADescriptorLackingAMemberOrWithAWrongSizeIsManifestInvalid)
{
    const Image image;
    const std::string config = layout_.add_described(layout_.config_json(image), kConfigType);
    const std::string layer = layout_.add_described(image.layers[0], kLayerType);
    for (const char* member : {"mediaType", "digest", "size"}) {
        const std::string name = "\"" + std::string(member) + "\"";
        for (const bool of_config : {true, false}) {
            layout_ = layout::Layout(layout_.dir());
            layout_.add_manifest(
                layout_.manifest_json(of_config ? replaced(config, name, "\"other\"") : config,
                                      {of_config ? layer : replaced(layer, name, "\"other\"")}));
            expect_failure(S_zncLib_MANIFEST_INVALID);
            layout_ = layout::Layout(layout_.dir());
            layout_.add_manifest(layout_.manifest_json(
                of_config ? replaced(config, "\"size\":", "\"size\":1") : config,
                {of_config ? layer : replaced(layer, "\"size\":", "\"size\":1")}));
            expect_failure(S_zncLib_MANIFEST_INVALID);
        }
    }
}

TEST_F(LayoutReader, AConfigOrLayerWithOneByteChangedIsManifestInvalid)
{
    const Image image;
    for (const bool of_config : {true, false}) {
        const layout::TempDir dir;
        layout_ = layout::Layout(dir.path());
        std::string config = layout_.config_json(image);
        std::string layer = image.layers[0];
        const std::string config_item = layout_.add_described(config, kConfigType);
        const std::string layer_item = layout_.add_described(layer, kLayerType);
        std::string& changed = of_config ? config : layer;
        const fs::path file = layout_.blob("sha256:" + layout::sha256_hex(changed));
        changed[changed.size() / 2] ^= 1;
        write_file(file, changed);
        layout_.add_manifest(layout_.manifest_json(config_item, {layer_item}));
        expect_failure(S_zncLib_MANIFEST_INVALID);
    }
}

TEST_F(LayoutReader, AMissingLayerBlobIsManifestInvalid)
{
    const Image image;
    layout_.add(image);
    fs::remove(layout_.blob("sha256:" + layout::sha256_hex(image.layers[0])));
    expect_failure(S_zncLib_MANIFEST_INVALID);
}

TEST_F(LayoutReader, ADigestInAManifestWithoutColonIsEINVAL)
{
    const Image image;
    const std::string config = layout_.add_described(layout_.config_json(image), kConfigType);
    layout_.add_manifest(
        layout_.manifest_json(config, {layout::descriptor(kLayerType, "sha256", 1)}));
    expect_failure(EINVAL);
    layout_ = layout::Layout(layout_.dir());
    layout_.add_manifest(layout_.manifest_json(layout::descriptor(kConfigType, ":x", 1), {}));
    expect_failure(EINVAL);
}

// Layers of this size are verified by several threads at once.
TEST_F(LayoutReader, OfLargeLayersTheFirstThatIsWrongIsReported)
{
    const std::string bytes(700 * 1024, 'x');
    const std::string good = layout_.add_blob(bytes + "1");
    const std::string changed = layout_.add_blob(bytes + "2");
    write_file(layout_.blob(changed), bytes + "3");
    const auto described = [&](const std::string& digest) {
        return layout::descriptor(kLayerType, digest, bytes.size() + 1);
    };
    const auto read = [&](const std::vector<std::string>& layers) {
        const std::string config = layout_.add_described(layout_.config_json(Image{}), kConfigType);
        layout_.add_manifest(layout_.manifest_json(config, layers));
        return parse();
    };
    EXPECT_EQ(read({described(good), described(good), described(good)}), OK);
    EXPECT_EQ(read({described(good), described("sha256"), described(changed)}), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(LayoutReader, ALargeLayerThatIsWrongIsReportedBeforeWhatComesAfterIt)
{
    const std::string bytes(700 * 1024, 'x');
    const std::string changed = layout_.add_blob(bytes + "2");
    write_file(layout_.blob(changed), bytes + "3");
    const auto described = [&](const std::string& digest) {
        return layout::descriptor(kLayerType, digest, bytes.size() + 1);
    };
    const std::string config = layout_.add_described(layout_.config_json(Image{}), kConfigType);
    layout_.add_manifest(layout_.manifest_json(config, {described(changed), described("sha256")}));
    expect_failure(S_zncLib_MANIFEST_INVALID);
}

TEST_F(LayoutReader, ALayerThatTwoManifestsNameMustHaveTheSizeThatEachSays)
{
    const std::string bytes(2048, 'x');
    const std::string digest = layout_.add_blob(bytes);
    const std::string config = layout_.add_described(layout_.config_json(Image{}), kConfigType);
    const auto manifest = [&](std::size_t size) {
        const std::string layer = layout::descriptor(kLayerType, digest, size);
        return layout_.manifest_json(config, {layer});
    };
    layout_.add_manifest(manifest(bytes.size()));
    EXPECT_EQ(parse(), OK);
    layout_.add_manifest(manifest(bytes.size()), ",\"annotations\":{}");
    EXPECT_EQ(parse(), OK);
    layout_.add_manifest(manifest(bytes.size() + 1));
    expect_failure(S_zncLib_MANIFEST_INVALID);
}

TEST_F(LayoutReader, EveryManifestIsReadNotOnlyTheOneWanted)
{
    Image other;
    other.name = "other";
    other.layers = {layout::tar({{"other", "x"}})};
    layout_.add({});
    layout_.add(other);
    ASSERT_EQ(parse(), OK);
    fs::remove(layout_.blob("sha256:" + layout::sha256_hex(other.layers[0])));
    expect_failure(S_zncLib_MANIFEST_INVALID);
}

// ------------------------------------------------------------------ configurations

TEST_F(LayoutReader, MissingConfigurationBlobIsConfigNotFound)
{
    const Image image;
    layout_.add(image);
    fs::remove(layout_.blob("sha256:" + layout::sha256_hex(layout_.config_json(image))));
    expect_failure(S_zncLib_CONFIG_NOT_FOUND);
}

TEST_F(LayoutReader, NoConfigurationRecordFailsWithoutANumber)
{
    errno = 0;
    EXPECT_EQ(zncImageParseImageConfig(nullptr), ERROR);
    EXPECT_EQ(errno, 0);
}

TEST_F(LayoutReader, AConfigurationLackingAMemberIsConfigInvalid)
{
    for (const char* member : {"architecture", "os", "rootfs", "diff_ids"}) {
        const layout::TempDir dir;
        layout_ = layout::Layout(dir.path());
        add_with_config([&](const std::string& config) {
            return replaced(config, "\"" + std::string(member) + "\"", "\"other\"");
        });
        expect_failure(S_zncLib_CONFIG_INVALID);
    }
}

TEST_F(LayoutReader, AConfigurationThatIsNoJsonIsConfigInvalid)
{
    add_with_config([](const std::string&) { return "nonsense"; });
    expect_failure(S_zncLib_CONFIG_INVALID);
}

TEST_F(LayoutReader, ASha512DiffIdHas192DigitsAndNot128)
{
    add_with_ids({"sha512:" + std::string(128, 'a')});
    expect_failure(S_zncLib_CONFIG_INVALID);
    layout_ = layout::Layout(dir_.path() / "good");
    add_with_ids({"sha512:" + std::string(192, 'a')});
    EXPECT_EQ(parse(), OK);
}

TEST_F(LayoutReader, OtherDiffIdsAreConfigInvalid)
{
    const std::string digits(64, 'a');
    for (const std::string& id :
         {std::string(), std::string("sha256"), digits, "sha256:" + digits.substr(1),
          "sha256:" + digits + "a", "sha384:" + digits, "sha25:" + digits, "Sha256:" + digits,
          "sha512:" + std::string(193, 'a'), ":" + digits, "sha256::" + digits.substr(1) + "aa"}) {
        const layout::TempDir dir;
        layout_ = layout::Layout(dir.path());
        add_with_ids({"sha256:" + digits, id});
        SCOPED_TRACE(id);
        expect_failure(S_zncLib_CONFIG_INVALID);
    }
}

TEST_F(LayoutReader, ADiffIdThatIsNoTextOrNoneAtAllIsConfigInvalid)
{
    for (const char* ids : {"[5]", "[]", "7"}) {
        const layout::TempDir dir;
        layout_ = layout::Layout(dir.path());
        add_with_config([&](const std::string& config) {
            return replaced(config,
                            "\"diff_ids\":", "\"diff_ids\":" + std::string(ids) + ",\"x\":");
        });
        expect_failure(S_zncLib_CONFIG_INVALID);
    }
}

TEST_F(LayoutReader, TheChainOfOneLayerIsTheHashOfItsDigits)
{
    const std::string digits = layout::sha256_hex("layer");
    add_with_ids({"sha256:" + digits});
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(hex_text(image_->manifests[0].manifestConfig.imageConfig.imageCfgRootfs.chainId),
              layout::sha256_hex(digits));
}

TEST_F(LayoutReader, TheChainOfMoreLayersHashesTheValueBeforeAndTheDigits)
{
    const std::string first = layout::sha256_hex("one");
    const std::string second(192, 'b');
    const std::string third = layout::sha256_hex("three");
    add_with_ids({"sha256:" + first, "sha512:" + second, "sha256:" + third});
    ASSERT_EQ(parse(), OK);
    std::string chain = layout::sha256_hex(first);
    for (const std::string& digits : {second, third})
        chain = layout::sha256_hex(layout::raw_bytes(chain) + digits);
    EXPECT_EQ(hex_text(image_->manifests[0].manifestConfig.imageConfig.imageCfgRootfs.chainId),
              chain);
}

// ------------------------------------------------------------------ the choice

class Choice : public LayoutReader {
  protected:
    void add_named(const std::string& name, const std::string& os = "zarnel",
                   const std::string& platform = "", const std::string& arch = "amd64")
    {
        Image image;
        image.name = name;
        image.os = os;
        image.arch = arch;
        image.platform = platform;
        layout_.add(image);
    }
};

TEST_F(Choice, AnUnnamedEntryIsTheLatestAndNothingElse)
{
    add_named("");
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(find("zarnel", "amd64", "latest"), 0);
    EXPECT_EQ(find("zarnel", "amd64", "v1"), -1);
    EXPECT_EQ(errno, S_zncLib_INDEX_INVALID);
}

TEST_F(Choice, AnEntryWithAnotherNameIsNotTheLatest)
{
    add_named("v1");
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(find("zarnel", "amd64", "latest"), -1);
    EXPECT_EQ(find("zarnel", "amd64", "v1"), 0);
}

TEST_F(Choice, ANameThatIsNoTextCountsAsNone)
{
    Image image;
    image.name = "";
    image.annotations_extra = R"("org.opencontainers.image.ref.name":7)";
    layout_.add(image);
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(find("zarnel", "amd64", "latest"), 0);
    EXPECT_EQ(find("zarnel", "amd64", "7"), -1);
}

TEST_F(Choice, AnEntryWithoutPlatformIsRefusedByItsConfiguration)
{
    add_named("latest", "linux");
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(find("zarnel", "amd64", "latest"), -1);
    EXPECT_EQ(errno, S_zncLib_INDEX_INVALID);
    EXPECT_EQ(find("linux", "arm64", "latest"), -1);
    EXPECT_EQ(find("linux", "amd64", "latest"), 0);
}

TEST_F(Choice, ThePlatformOfAnEntryMustMatchToo)
{
    add_named("latest", "zarnel", R"({"os":"linux"})");
    add_named("latest", "zarnel", R"({"architecture":"arm64"})");
    add_named("latest", "zarnel", R"({"os":5})");
    add_named("latest", "zarnel", R"({"architecture":"amd64"})");
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(find("zarnel", "amd64", "latest"), 3);
}

TEST_F(Choice, OfTwoThatMatchTheEarlierWins)
{
    add_named("v1");
    add_named("latest");
    add_named("latest");
    ASSERT_EQ(parse(), OK);
    EXPECT_EQ(find("zarnel", "amd64", "latest"), 1);
}

// ------------------------------------------------------------------ memory

TEST_F(LayoutReader, EveryAllocationThatFailsIsReportedAndNothingLeaks)
{
    Image image;
    image.layers.push_back(layout::tar({{"b", "2"}}));
    layout_.add(image);
    unsigned nth = 1;
    for (;; ++nth) {
        alloc_fault::arm(nth);
        znc::OciImagePtr record(zncImageInfoCreate());
        STATUS status = ERROR;
        if (record) {
            record->ociPath = layout_.c_str();
            errno = EIO;
            status = zncImageParse(record.get());
        }
        const int error = errno;
        const bool untouched = alloc_fault::disarm() < nth;
        if (status == OK) {
            EXPECT_TRUE(untouched) << "allocation " << nth << " failed unnoticed";
            break;
        }
        EXPECT_NE(error, EIO) << "allocation " << nth;
        if (record) {
            EXPECT_EQ(record->manifestsCount, 0);
        }
        ASSERT_LT(nth, 10000U);
    }
    EXPECT_GT(nth, 10U);
}

TEST_F(LayoutReader, ShortMemoryInAHashOrAnArrayIsENOMEM)
{
    layout_.add({});
    ASSERT_EQ(parse(), OK);
    ZNC_IMAGE_CFG_ROOTFS rootfs = {};
    const znc::CJsonPtr ids(
        cJSON_Parse((R"({"diff_ids":["sha256:)" + std::string(64, 'a') + "\"]}").c_str()));
    errno = 0;
    alloc_fault::arm(1);
    EXPECT_EQ(zncImageParseImageConfigRootfs(&rootfs, ids.get()), ERROR);
    EXPECT_EQ(errno, ENOMEM);
    alloc_fault::disarm();
    EXPECT_EQ(rootfs.diffId, nullptr);
}

} // namespace
