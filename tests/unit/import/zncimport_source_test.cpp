// Tests of sources of every kind, of the selection of an image, and of hostile sources.
#include "import/source/base64.hpp"
#include "import/source/source.hpp"
#include "zncimport_input.hpp"

#include <clocale>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace zncimport;
using namespace import_input;

namespace fs = std::filesystem;

namespace {

const std::string kOci = "application/vnd.oci.image.";
const std::string kManifestType = kOci + "manifest.v1+json";
const std::string kIndexType = kOci + "index.v1+json";
const std::string kConfigType = kOci + "config.v1+json";
const std::string kLayerType = kOci + "layer.v1.tar+gzip";

std::string descriptor(const std::string& type, const std::string& blob,
                       const std::string& more = "")
{
    return fmt::format(R"({{"mediaType":"{}","digest":"{}","size":{}{}}})", type, sha256(blob),
                       blob.size(), more);
}

std::string named(const std::string& name)
{
    return R"(,"annotations":{"org.opencontainers.image.ref.name":")" + name + R"("})";
}

std::string config_of(const std::string& arch, const std::string& layer)
{
    return fmt::format(
        R"({{"os":"linux","architecture":"{}","rootfs":{{"type":"layers","diff_ids":["{}"]}}}})",
        arch, sha256(layer));
}

std::string index_of(const std::string& entries)
{
    return R"({"schemaVersion":2,"manifests":[)" + entries + "]}";
}

// A layout written blob by blob.
struct Layout {
    test_tree::TempDir dir;

    Layout()
    {
        fs::create_directories(dir / "l/blobs/sha256");
        write("oci-layout", R"({"imageLayoutVersion":"1.0.0"})");
    }
    void write(const std::string& name, const std::string& text) const
    {
        test_tree::write_file(dir / ("l/" + name), text);
    }
    static std::string name_of(const std::string& blob)
    {
        return "blobs/sha256/" + sha256(blob).substr(7);
    }
    std::string path(const std::string& blob) const { return dir / ("l/" + name_of(blob)); }
    std::string add(const std::string& blob) const
    {
        write(name_of(blob), blob);
        return blob;
    }
    std::string manifest(const std::string& arch, const std::string& layer,
                         const std::string& layer_type = kLayerType,
                         const std::string& more = "") const
    {
        const std::string config = add(config_of(arch, layer));
        add(layer);
        return add(R"({"schemaVersion":2,"config":)" + descriptor(kConfigType, config) +
                   R"(,"layers":[)" + descriptor(layer_type, layer) + "]" + more + "}");
    }
    void index(const std::string& entries) const { write("index.json", index_of(entries)); }
    void one_image() const
    {
        index(descriptor(kManifestType, manifest("amd64", "layer"), named("v1")));
    }
};

struct Opened {
    Spool spool;
    Limits limits;
    std::unique_ptr<Budget> budget;
    OpenedSource source;
    SourcePtr reader;

    explicit Opened(const std::string& text, const Limits& with = {}) : limits(with)
    {
        std::setlocale(LC_CTYPE, "C.UTF-8"); // as zncctl-import does
        budget = std::make_unique<Budget>(limits);
        source = open_source(split_source_name(text));
        reader = read_source(source, spool, *budget);
    }
    std::vector<SourceImage> images() const { return reader->images(); }
    std::string layer(std::size_t image = 0, std::size_t at = 0) const
    {
        return content(*reader->open(images().at(image).layers.at(at)));
    }
};

std::string problem_of(const std::string& text, const Limits& limits = {})
{
    return failure_of([&] { static_cast<void>(Opened(text, limits).images()); });
}

std::string problem_of(const Layout& layout, const Limits& limits = {})
{
    return problem_of(layout.dir / "l", limits);
}

// A docker-archive with two images that share a layer through a link.
void docker_save(const test_tree::TempDir& dir, const std::string& how)
{
    const std::string config = config_of("amd64", "layer");
    const std::string other = config_of("arm64", "layer");
    const std::string name = sha256(config).substr(7) + ".json";
    fs::create_directories(dir / "d/one");
    fs::create_directories(dir / "d/two");
    test_tree::write_file(dir / ("d/" + name), config);
    test_tree::write_file(dir / "d/other.json", other);
    test_tree::write_file(dir / "d/one/layer.tar", "layer");
    test_tree::write_file(
        dir / "d/manifest.json",
        fmt::format(R"([{{"Config":"{}","RepoTags":["app:1","x.io:5000/app:1b"],)"
                    R"("Layers":["one/layer.tar"]}},)"
                    R"({{"Config":"other.json","RepoTags":null,"Layers":["two/layer.tar"]}}])",
                    name));
    shell(dir, how + "; cd d; tar -cf ../a.tar *");
}

SourceImage image_named(const std::string& name, const std::string& arch = "amd64",
                        const std::string& variant = "")
{
    SourceImage image;
    image.names = {name};
    image.os = "linux";
    image.arch = arch;
    image.variant = variant;
    return image;
}

} // namespace

TEST(SourceName, IsSplit)
{
    const auto split = [](const std::string& text) {
        const SourceName name = split_source_name(text);
        return name.prefix + "|" + name.path + "|" + name.name;
    };
    EXPECT_EQ(split("oci:dir:tag"), "oci|dir|tag");
    EXPECT_EQ(split("oci-archive:a.tar"), "oci-archive|a.tar|");
    EXPECT_EQ(split("docker-archive:a.tar:x.io:5000/app:1"),
              "docker-archive|a.tar|x.io:5000/app:1");
    EXPECT_EQ(split("dir:a:b"), "dir|a:b|");
    EXPECT_EQ(split("tar:-"), "tar|-|");
    EXPECT_EQ(split("a:b"), "|a:b|");
    EXPECT_NE(failure_of([] { split_source_name("oci:"); }), "");
    EXPECT_NE(failure_of([] { split_source_name(""); }), "");
}

TEST(SourceName, OfALayoutMayHaveANameWithoutAPrefix)
{
    const Layout layout;
    const auto split = [](const std::string& text) {
        const SourceName name = split_source_name(text);
        return name.prefix + "|" + name.path + "|" + name.name;
    };
    const std::string path = layout.dir / "l";
    EXPECT_EQ(split(path), "|" + path + "|");
    EXPECT_EQ(split(path + ":v1"), "|" + path + "|v1");
    EXPECT_EQ(split(path + ":x.io:5000/app:1"), "|" + path + "|x.io:5000/app:1");
    const std::string other = layout.dir / "none";
    EXPECT_EQ(split(other + ":v1"), "|" + other + ":v1|");
    fs::create_directories(path + ":v1"); // a path as a whole
    EXPECT_EQ(split(path + ":v1"), "|" + path + ":v1|");
    fs::rename(path, layout.dir / "with:colon");
    EXPECT_EQ(split(std::string(layout.dir / "with:colon") + ":v2"),
              "|" + std::string(layout.dir / "with:colon") + "|v2");
}

TEST(SourceName, WithoutAPrefixSelectsTheImageOfALayout)
{
    const Layout layout;
    layout.one_image();
    EXPECT_EQ(Opened(layout.dir / "l:v1").source.name.name, "v1");
    EXPECT_EQ(Opened(layout.dir / "l:v1").images().size(), 1U);
}

TEST(Platform, IsReadOrRefused)
{
    Wanted wanted;
    read_platform("linux/arm/v7", wanted);
    EXPECT_EQ(wanted.os + wanted.arch + wanted.variant, "linuxarmv7");
    read_platform("linux/amd64", wanted);
    EXPECT_EQ(wanted.variant, "");
    for (const char* bad : {"", "amd64", "linux/", "/amd64", "a/b/c/d", "a//c"})
        EXPECT_NE(failure_of([&] { read_platform(bad, wanted); }), "") << bad;
}

TEST(Choose, PrefersAWholeNameToTheEndOfAnother)
{
    std::vector<SourceImage> images;
    images.push_back(image_named("other/app:one"));
    images.push_back(image_named("app:one"));
    images.push_back(image_named("one"));
    EXPECT_EQ(choose(images, {"app:one", "", "", ""}), 1U);
    EXPECT_EQ(choose(images, {"other/app:one", "", "", ""}), 0U);
    EXPECT_EQ(choose(images, {"one", "", "", ""}), 2U);
    // An image of another platform with the whole name is meant, too.
    images[1].arch = "arm";
    EXPECT_NE(failure_of([&] { choose(images, {"app:one", "linux", "amd64", ""}); }), "");
}

TEST(Choose, TakesTheImageAtAPlace)
{
    std::vector<SourceImage> images(2, image_named("same:1"));
    EXPECT_EQ(choose(images, {"@0", "", "", ""}), 0U);
    EXPECT_EQ(choose(images, {"@1", "", "", ""}), 1U);
    for (const char* bad : {"@2", "@", "@-1", "@1x", "@99999999999999999999", "1@"})
        EXPECT_NE(failure_of([&] { choose(images, {bad, "", "", ""}); }), "") << bad;
}

TEST(Choose, TakesTheOneThatFitsAndListsOthers)
{
    std::vector<SourceImage> images;
    images.push_back(image_named("x.io/app:1"));
    images.push_back(image_named("x.io/app:1", "arm", "v7"));
    images.push_back(image_named("2"));
    EXPECT_EQ(choose(images, {"2", "", "", ""}), 2U);
    EXPECT_EQ(choose(images, {"1", "linux", "arm", "v7"}), 1U);
    EXPECT_EQ(choose(images, {"x.io/app:1", "linux", "amd64", ""}), 0U);
    try {
        choose(images, {"1", "", "", ""});
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status(), zncctl::kExitNotFound);
        EXPECT_TRUE(has(failure.what(), "x.io/app:1 linux/amd64, x.io/app:1 linux/arm/v7"));
        EXPECT_FALSE(has(failure.what(), "2 linux"));
    }
    EXPECT_TRUE(has(failure_of([&] { choose(images, {"3", "", "", ""}); }), "2 linux/amd64"));
    EXPECT_NE(failure_of([&] { choose(images, {"", "linux", "arm", "v6"}); }), "");
    EXPECT_NE(failure_of([] { choose({}, {}); }), "");
    std::vector<SourceImage> rootfs(1);
    EXPECT_EQ(choose(rootfs, {"", "linux", "arm64", "v8"}), 0U);
}

TEST(LayoutSource, DirectoryAndArchivesAreReadAlike)
{
    const Layout layout;
    layout.one_image();
    shell(layout.dir,
          "cd l; tar -cf ../a.tar .; cd ..; gzip -k a.tar; zstd -qk a.tar; xz -k a.tar");
    for (const char* name : {"l", "a.tar", "a.tar.gz", "a.tar.zst", "a.tar.xz"}) {
        const Opened opened(layout.dir / name);
        const std::vector<SourceImage> images = opened.images();
        ASSERT_EQ(images.size(), 1U) << name;
        EXPECT_EQ(images[0].names, std::vector<std::string>{"v1"});
        EXPECT_EQ(images[0].problem, "");
        EXPECT_EQ(images[0].arch, "amd64");
        EXPECT_EQ(images[0].layers.at(0).diff_id, sha256("layer"));
        EXPECT_EQ(images[0].layers.at(0).size, 5);
        EXPECT_EQ(opened.layer(), "layer") << name;
        EXPECT_EQ(opened.spool.size() != 0, std::string_view(name).size() > 5) << name;
    }
}

TEST(LayoutSource, StandardInputMayBeAPipe)
{
    const Layout layout;
    layout.one_image();
    shell(layout.dir, "cd l; tar -czf ../a.tar.gz .; mkfifo ../pipe");
    const pid_t writer = ::fork();
    if (writer == 0) {
        ::alarm(60);
        ::_exit(
            std::system(("cat " + layout.dir / "a.tar.gz" + " >" + layout.dir / "pipe").c_str()));
    }
    const Opened opened(layout.dir / "pipe");
    EXPECT_EQ(opened.layer(), "layer");
    ::waitpid(writer, nullptr, 0);
}

TEST(LayoutSource, IndexesInIndexesGiveNamesAndPlatforms)
{
    const Layout layout;
    const std::string inner = layout.add(index_of(
        descriptor(kManifestType, layout.manifest("amd64", "one")) + "," +
        descriptor("application/vnd.docker.distribution.manifest.v2+json",
                   layout.manifest("arm64", "two"),
                   R"(,"platform":{"os":"linux","architecture":"arm64","variant":"v8"})")));
    layout.index(descriptor(kIndexType, inner, named("multi")));
    const Opened opened(layout.dir / "l");
    const auto images = opened.images();
    ASSERT_EQ(images.size(), 2U);
    EXPECT_EQ(images[1].names, std::vector<std::string>{"multi"});
    EXPECT_EQ(images[1].arch + images[1].variant, "arm64v8");
    EXPECT_EQ(opened.layer(1), "two");
}

TEST(LayoutSource, AnnotationsOfManifestAndEntryAreCarried)
{
    const Layout layout;
    const std::string manifest =
        layout.manifest("amd64", "x", kLayerType, R"(,"annotations":{"a":"manifest","b":"1"})");
    layout.index(descriptor(
        kManifestType, manifest,
        R"(,"annotations":{"a":"entry","c":"2","org.opencontainers.image.ref.name":"v1"})"));
    const auto images = Opened(layout.dir / "l").images();
    EXPECT_EQ(zncctl::compact(images.at(0).annotations), R"({"a":"manifest","b":"1","c":"2"})");
    EXPECT_EQ(images[0].manifest_digest, sha256(manifest));
}

TEST(Base64, WholeGroupsOfTheAlphabetAreDecoded)
{
    const std::pair<const char*, const char*> known[] = {{"", ""},
                                                         {"Zg==", "f"},
                                                         {"Zm8=", "fo"},
                                                         {"Zm9v", "foo"},
                                                         {"Zm9vYg==", "foob"},
                                                         {"Zm9vYmE=", "fooba"},
                                                         {"Zm9vYmFy", "foobar"}};
    for (const auto& [text, bytes] : known)
        EXPECT_EQ(zncimport::decode_base64(text), bytes) << text;
    EXPECT_EQ(zncimport::decode_base64("+/+/"), "\xfb\xff\xbf");
    EXPECT_EQ(zncimport::decode_base64("AAAA"), std::string(3, '\0'));
}

TEST(Base64, AnythingElseIsNone)
{
    for (const char* text : {"Z", "Zg", "Zg=", "=", "====", "Zg=a", "Z===", "Zm9v\n", " Zm9",
                             "Zm-_", "Zg==Zg==", "Zm9vYg"})
        EXPECT_EQ(zncimport::decode_base64(text), std::nullopt) << text;
}

TEST(LayoutSource, EmbeddedDataIsTaken)
{
    const Layout layout;
    const std::string manifest = layout.manifest("amd64", "x");
    fs::remove(layout.path(manifest));
    test_tree::write_file(layout.dir / "m", manifest);
    shell(layout.dir, "base64 -w0 m >m64");
    const std::string data = test_tree::read_file(layout.dir / "m64");
    layout.index(descriptor(kManifestType, manifest, R"(,"data":")" + data + "\""));
    EXPECT_EQ(Opened(layout.dir / "l").images().at(0).problem, "");
    layout.index(descriptor(kManifestType, manifest + " ", R"(,"data":")" + data + "\""));
    EXPECT_NE(problem_of(layout), "");
    layout.index(descriptor(kManifestType, manifest, R"(,"data":"!!")"));
    EXPECT_NE(problem_of(layout), "");
}

// Builders store attestations of an image's provenance next to it, in the form of a manifest.
TEST(LayoutSource, TheOnlyImageThatCanBeImportedIsSelected)
{
    const Layout layout;
    const std::string statement =
        descriptor(kManifestType, layout.manifest("unknown", "s", "application/vnd.in-toto+json"));
    const std::string image = descriptor(kManifestType, layout.manifest("amd64", "x"));
    layout.index(statement + "," + image);
    EXPECT_EQ(choose(Opened(layout.dir / "l").images(), {}), 1U);
    layout.index(statement);
    EXPECT_EQ(choose(Opened(layout.dir / "l").images(), {}), 0U); // which reports the reason
    layout.index(statement + "," + statement);
    EXPECT_NE(failure_of([&] { choose(Opened(layout.dir / "l").images(), {}); }), "");
    layout.index(image + "," + image);
    EXPECT_NE(failure_of([&] { choose(Opened(layout.dir / "l").images(), {}); }), "");
}

TEST(LayoutSource, AConfigurationThatCannotBeWrittenAgainIsAProblem)
{
    const auto problem_with = [](const std::string& member) {
        const Layout layout;
        layout.manifest("amd64", "x");
        std::string config = config_of("amd64", "x");
        config.insert(1, member + ",");
        layout.add(config);
        const std::string manifest =
            layout.add(R"({"schemaVersion":2,"config":)" +
                       descriptor("application/vnd.oci.image.config.v1+json", config) +
                       R"(,"layers":[)" + descriptor(kLayerType, "x") + "]}");
        layout.index(descriptor(kManifestType, manifest));
        return Opened(layout.dir / "l").images().at(0).problem;
    };
    EXPECT_EQ(problem_with(R"("a":"\\u0000","b":18446744073709551615,"c":-9223372036854775808)"),
              "");
    for (const char* lost : {R"("a":123456789012345678901)", R"("a":[0.12345678901234567])"})
        EXPECT_TRUE(has(problem_with(lost), "cannot be preserved exactly")) << lost;
    for (const char* refused : {R"("a":"x\u0000y")", R"("a":[-1e999])"})
        EXPECT_THROW(problem_with(refused), Failure) << refused;
}

TEST(LayoutSource, TwoMembersOfTheSameNameAreAnError)
{
    const Layout layout;
    layout.one_image();
    std::string index = test_tree::read_file(layout.dir / "l/index.json");
    test_tree::write_file(layout.dir / "l/index.json",
                          R"({"a":[{"b":1,"c":{"b":2}}],)" + index.substr(1));
    EXPECT_EQ(Opened(layout.dir / "l").images().size(), 1U);
    for (const char* key : {"b", "B"}) {
        test_tree::write_file(layout.dir / "l/index.json", std::string(R"({"a":[{"b":1,")") + key +
                                                               R"(":2}],)" + index.substr(1));
        EXPECT_TRUE(has(problem_of(layout), std::string("duplicate key \"") + key + "\""));
    }
}

TEST(LayoutSource, ManyImagesOfTheSameLongDocumentAreAnError)
{
    const Layout layout;
    const std::string manifest = layout.add(
        R"({"schemaVersion":2,"config":)" + descriptor("application/vnd.some.artifact", "{}") +
        R"(,"layers":[],"x":")" + std::string(1U << 20U, 'x') + "\"}");
    std::string entries = descriptor(kManifestType, manifest);
    for (int i = 1; i < 60; i++)
        entries += "," + descriptor(kManifestType, manifest);
    layout.index(entries);
    EXPECT_EQ(Opened(layout.dir / "l").images().size(), 60U);
    for (int i = 0; i < 10; i++)
        entries += "," + descriptor(kManifestType, manifest);
    layout.index(entries);
    EXPECT_TRUE(has(problem_of(layout), "all images together are too long"));
}

TEST(LayoutSource, WhatCannotBeImportedNamesItsType)
{
    for (const char* type :
         {"application/vnd.oci.image.layer.nondistributable.v1.tar+gzip",
          "application/vnd.docker.image.rootfs.foreign.diff.tar.gzip",
          "application/vnd.oci.image.layer.v1.tar+gzip+encrypted", "text/plain"}) {
        const Layout layout;
        layout.index(descriptor(kManifestType, layout.manifest("amd64", "x", type)));
        EXPECT_TRUE(has(Opened(layout.dir / "l").images().at(0).problem, type));
    }
    const Layout layout;
    const std::string artifact =
        layout.add(R"({"schemaVersion":2,"config":)" +
                   descriptor("application/vnd.some.artifact", "{}") + R"(,"layers":[]})");
    layout.index(descriptor(kManifestType, artifact) + "," + descriptor("text/html", artifact));
    const auto images = Opened(layout.dir / "l").images();
    EXPECT_TRUE(has(images.at(0).problem, "application/vnd.some.artifact"));
    EXPECT_TRUE(has(images.at(1).problem, "text/html"));
}

TEST(LayoutSource, DocumentsThatDoNotMatchTheirDigestAreErrors)
{
    const std::string config = config_of("amd64", "layer");
    for (const bool of_manifest : {true, false}) {
        const Layout layout;
        const std::string blob = layout.manifest("amd64", "layer");
        layout.index(descriptor(kManifestType, blob));
        std::string text = of_manifest ? blob : config;
        const std::string path = layout.path(text);
        text[text.size() / 2] = static_cast<char>(text[text.size() / 2] ^ 1);
        test_tree::write_file(path, text);
        EXPECT_TRUE(has(problem_of(layout), "does not match its digest"));
        test_tree::write_file(path, text + " ");
        EXPECT_TRUE(has(problem_of(layout), "bytes, not"));
        fs::remove(path);
        EXPECT_TRUE(has(Opened(layout.dir / "l").images().at(0).problem, "is missing"));
    }
}

TEST(LayoutSource, LayersOfAnotherSizeAreErrors)
{
    const Layout layout;
    layout.one_image();
    test_tree::write_file(layout.path("layer"), "layers");
    const Opened opened(layout.dir / "l");
    EXPECT_TRUE(has(failure_of([&] { static_cast<void>(opened.layer()); }), "6 bytes, not 5"));
}

TEST(LayoutSource, WrongDescriptorsAreErrors)
{
    const std::string digest = sha256("x");
    const auto with = [](const std::string& member) {
        const Layout layout;
        layout.index(R"({"mediaType":")" + kManifestType + "\"," + member + "}");
        return problem_of(layout);
    };
    for (const char* size : {"-1", "1.5", "1e300", "\"5\"", "null", "9223372036854775808"})
        EXPECT_TRUE(has(with(R"("digest":")" + digest + R"(","size":)" + size), "is invalid"))
            << size;
    for (const std::string& bad :
         {std::string("sha256:../../../etc/passwd"), digest + "0", digest.substr(0, 70),
          "md5:" + std::string(32, 'a'), "sha256:" + std::string(64, 'A'), std::string()})
        EXPECT_TRUE(has(with(R"("size":1,"digest":")" + bad + "\""), "an invalid digest")) << bad;
}

TEST(LayoutSource, AmbiguousDocumentsAreErrors)
{
    const Layout layout;
    layout.index(
        descriptor(kManifestType, layout.manifest("amd64", "x", kLayerType, R"(,"manifests":[])")));
    EXPECT_NE(problem_of(layout), "");
    layout.index(descriptor(
        kManifestType, layout.manifest("amd64", "x", kLayerType, R"(,"mediaType":"text/plain")")));
    EXPECT_NE(problem_of(layout), "");
    layout.write("index.json", R"({"manifests":[],"layers":[]})");
    EXPECT_NE(problem_of(layout), "");
}

TEST(LayoutSource, DeepAndEndlessIndexesAreErrors)
{
    const Layout layout;
    std::string index = layout.add(index_of(descriptor(kManifestType, layout.manifest("a", "x"))));
    for (int depth = 2; depth < 6; depth++) {
        layout.index(descriptor(kIndexType, index));
        EXPECT_EQ(problem_of(layout).empty(), depth < 5) << depth;
        index = layout.add(index_of(descriptor(kIndexType, index)));
    }
    // An index that contains itself can only exist under a digest that does not match.
    const std::string claimed = sha256("cycle");
    const std::string self = index_of(R"({"mediaType":")" + kIndexType + R"(","digest":")" +
                                      claimed + R"(","size":180})");
    layout.write("blobs/sha256/" + claimed.substr(7),
                 self + std::string(180 - std::min<std::size_t>(self.size(), 180), ' '));
    layout.write("index.json", self);
    EXPECT_NE(problem_of(layout), "");
}

TEST(LayoutSource, TooManyDescriptorsAreAnError)
{
    const Layout layout;
    const std::string entry = descriptor("text/plain", "x");
    std::string entries = entry;
    for (int i = 1; i < 10'000; i++)
        entries += "," + entry;
    layout.index(entries);
    EXPECT_EQ(problem_of(layout), "");
    layout.index(entries + "," + entry);
    EXPECT_TRUE(has(problem_of(layout), "more than 10000"));
    for (int i = 0; i < 90'000; i++)
        entries += "," + entry;
    layout.index(entries);
    Limits limits;
    limits.json = UINT64_C(1) << 30U;
    EXPECT_TRUE(has(problem_of(layout, limits), "more than 10000"));
}

TEST(LayoutSource, DeepLongAndBrokenJsonIsAnError)
{
    const Layout layout;
    layout.write("index.json", std::string(1'000'000, '['));
    EXPECT_TRUE(has(problem_of(layout), "more than 200 levels at line 1, column 201"));
    layout.write("index.json", "");
    fs::resize_file(layout.dir / "l/index.json", std::uint64_t{1} << 30U);
    EXPECT_TRUE(has(problem_of(layout), "--max-json"));
    for (const char* text :
         {"", "[]", "{}", "{\"manifests\":{}}", "{\"manifests\":[]} x", "null"}) {
        layout.write("index.json", text);
        EXPECT_NE(problem_of(layout), "") << text;
    }
}

TEST(LayoutSource, LayersThatTheConfigurationDoesNotKnowCannotBeImported)
{
    const Layout layout;
    const std::string config = layout.add(R"({"rootfs":{"diff_ids":[]}})");
    layout.add("x");
    layout.index(descriptor(kManifestType,
                            layout.add(R"({"config":)" + descriptor(kConfigType, config) +
                                       R"(,"layers":[)" + descriptor(kLayerType, "x") + "]}")));
    EXPECT_NE(Opened(layout.dir / "l").images().at(0).problem, "");
}

TEST(LayoutSource, OnlyRegularFilesAreRead)
{
    const std::string text = config_of("amd64", "layer");
    const std::function<void(const std::string&)> kinds[] = {
        [](const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); },
        [](const std::string& path) { fs::create_directory(path); },
        [](const std::string& path) { fs::create_symlink("/etc/passwd", path); },
    };
    for (const auto& make : kinds) {
        const Layout layout;
        layout.one_image();
        for (const std::string& path : {layout.path("layer"), layout.path(text)}) {
            fs::remove(path);
            make(path);
            EXPECT_NE(failure_of([&] { Opened(layout.dir / "l").layer(); }), "") << path;
        }
        fs::remove(layout.dir / "l/index.json");
        make(layout.dir / "l/index.json");
        EXPECT_NE(problem_of(layout), "");
    }
    const Layout layout;
    layout.one_image();
    fs::rename(layout.dir / "l/blobs", layout.dir / "blobs");
    fs::create_symlink("../blobs", layout.dir / "l/blobs");
    EXPECT_NE(problem_of(layout), "") << "a directory on the way";
}

TEST(DockerSource, LayersMayBeLinksToOtherMembers)
{
    for (const char* how : {"ln -s ../one/layer.tar d/two/layer.tar", "ln d/one/layer.tar d/two"}) {
        const test_tree::TempDir dir;
        docker_save(dir, how);
        const Opened opened(dir / "a.tar");
        const auto images = opened.images();
        ASSERT_EQ(images.size(), 2U);
        EXPECT_EQ(images[0].names, (std::vector<std::string>{"app:1", "x.io:5000/app:1b"}));
        EXPECT_EQ(images[1].arch, "arm64");
        EXPECT_EQ(images[1].problem, "");
        EXPECT_EQ(images[1].layers.at(0).diff_id, sha256("layer"));
        EXPECT_EQ(opened.layer(0), "layer");
        EXPECT_EQ(opened.layer(1), "layer");
        EXPECT_EQ(choose(images, {"1b", "", "", ""}), 0U);
    }
}

TEST(DockerSource, LinksThatLeadOutOrInCirclesAreErrors)
{
    for (const char* target : {"../../../etc/passwd", "/etc/passwd", "layer.tar"}) {
        const test_tree::TempDir dir;
        docker_save(dir, std::string("ln -s ") + target + " d/two/layer.tar");
        EXPECT_NE(problem_of(dir / "a.tar"), "") << target;
    }
}

TEST(DockerSource, AMissingLayerIsReported)
{
    const test_tree::TempDir dir;
    docker_save(dir, "true");
    EXPECT_TRUE(has(Opened(dir / "a.tar").images().at(1).problem, "two/layer.tar is missing"));
}

TEST(DockerSource, AConfigurationMustMatchTheDigestInItsName)
{
    const test_tree::TempDir dir;
    docker_save(dir, "ln -s ../one/layer.tar d/two/layer.tar; "
                     "for f in d/[0-9a-f]*.json; do [ ${#f} -lt 60 ] || echo >>$f; done");
    EXPECT_TRUE(has(problem_of(dir / "a.tar"), "does not match its digest"));
}

TEST(Detection, AnArchiveWithBothIsALayout)
{
    const Layout layout;
    layout.one_image();
    layout.write("manifest.json", "no JSON");
    shell(layout.dir, "cd l; tar -cf ../a.tar *");
    EXPECT_EQ(problem_of(layout.dir / "a.tar"), "");
    EXPECT_EQ(problem_of("oci-archive:" + layout.dir / "a.tar"), "");
    EXPECT_NE(problem_of("docker-archive:" + layout.dir / "a.tar"), "");
}

TEST(Detection, OtherDirectoriesAndArchivesAreRootFilesystems)
{
    const test_tree::TempDir dir;
    shell(dir, "mkdir -p r/etc; echo x >r/etc/f; tar -C r -cf r.tar etc; gzip -k r.tar");
    const Opened tree(dir / "r");
    EXPECT_TRUE(tree.reader->is_tree());
    EXPECT_EQ(tree.images().size(), 1U);
    const std::string plain_tar = test_tree::read_file(dir / "r.tar");
    for (const char* name : {"r.tar", "r.tar.gz"}) {
        const Opened opened(dir / name);
        EXPECT_FALSE(opened.reader->is_tree());
        EXPECT_TRUE(opened.layer() == plain_tar) << name;
    }
    const Layout layout;
    layout.one_image();
    EXPECT_TRUE(Opened("dir:" + layout.dir / "l").reader->is_tree());
    shell(layout.dir, "tar -C l -cf a.tar .");
    EXPECT_TRUE(has(Opened("tar:" + layout.dir / "a.tar").layer(), "imageLayoutVersion"));
}

TEST(Detection, PrefixesThatDoNotFitAreErrors)
{
    const test_tree::TempDir dir;
    shell(dir, "mkdir d; tar -cf a.tar d");
    for (const char* prefix : {"oci:", "dir:", "oci-archive:", "docker-archive:"})
        EXPECT_NE(problem_of(prefix + dir / "a.tar"), "") << prefix;
    for (const char* prefix : {"oci:", "oci-archive:", "docker-archive:", "tar:"})
        EXPECT_NE(problem_of(prefix + dir / "d"), "") << prefix;
    EXPECT_NE(problem_of(dir / "nothing"), "");
}

TEST(Detection, ArchivesOfImagesHoldNothingOutside)
{
    const Layout layout;
    layout.one_image();
    for (const char* name : {"../up", "/absolute", "a/../../up"}) {
        shell(layout.dir, std::string("cd l; tar -P --transform 's,^oci-layout$,") + name +
                              ",' -cf ../a.tar * oci-layout; tar -rf ../a.tar oci-layout");
        EXPECT_TRUE(has(problem_of(layout.dir / "a.tar"), "a member outside of it")) << name;
    }
}

TEST(Detection, AnArchivesMembersAreCounted)
{
    const Layout layout;
    layout.one_image();
    shell(layout.dir, "tar -C l -cf a.tar .");
    Limits limits;
    limits.entries = 4;
    EXPECT_TRUE(has(problem_of(layout.dir / "a.tar", limits), "--max-entries"));
}

TEST(Detection, ADecompressionBombAroundAnImageIsAnError)
{
    const test_tree::TempDir dir;
    shell(dir, "head -c 64M /dev/zero | gzip -9 >bomb");
    Limits limits;
    limits.ratio = 100;
    EXPECT_TRUE(has(problem_of(dir / "bomb", limits), "--max-ratio"));
    limits = Limits();
    limits.bytes = 1U << 20U;
    EXPECT_TRUE(has(problem_of(dir / "bomb", limits), "--max-bytes"));
}

TEST(Detection, ADeviceIsNoSource)
{
    for (const char* device : {"/dev/zero", "tar:/dev/null"}) {
        try {
            static_cast<void>(open_source(split_source_name(device)));
            FAIL() << device;
        } catch (const Failure& failure) {
            EXPECT_STREQ(failure.what(), "is a device");
        }
    }
}

TEST(Detection, AnEmptyFileIsNotAnArchive)
{
    const test_tree::TempDir dir;
    shell(dir, ": >empty; gzip -k empty");
    EXPECT_TRUE(has(problem_of(dir / "empty"), "is empty"));
    EXPECT_TRUE(has(problem_of(dir / "empty.gz"), "is empty"));
}
