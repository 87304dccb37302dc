// Tests of zncctl's checks of documents and archives, and of its small files.
#include "cli/containers/config_check.hpp"
#include "cli/containers/log_file.hpp"
#include "cli/images/layer_check.hpp"
#include "front/files.hpp"
#include "front/layout.hpp"
#include "front/words.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>

using namespace zncctl;

TEST(ReplaceFile, LeavesNothingAfterAFailure)
{
    const layout::TempDir dir;
    const znc::UniqueFd fd(::open((dir / "").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::mkdirat(fd.get(), "name", 0700), 0); // which a file cannot replace
    EXPECT_FALSE(replace_file(fd.get(), "name", "text"));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(::faccessat(fd.get(), "name.new", F_OK, 0), -1);
    EXPECT_TRUE(replace_file(fd.get(), "other", "text", true));
    EXPECT_EQ(read_file("other", fd.get()), "text");
}

namespace {

constexpr const char* kGood =
    R"({"ociVersion": "1.0.0", "process": {"args": ["/a"], "cwd": "/"}, "root": {"path": "r"}})";

// Returns the findings as "refused process.cwd" or "ignored linux", in order.
std::vector<std::string> findings(std::string_view text)
{
    std::string problem;
    std::vector<std::string> result;
    const auto found = check_config(text, problem);
    for (const ConfigFinding& finding : found.value())
        result.push_back((finding.refused ? "refused " : "ignored ") + finding.path);
    return result;
}

using Texts = std::vector<std::string>;

// Returns the findings for an archive: "refused: ..." or the loss.
Texts of_archive(const std::string& bytes, const std::string& diff_id = "")
{
    const layout::TempDir dir;
    const std::string path = dir / "layer";
    layout::write_file(path, bytes);
    Texts texts;
    for (const Finding& finding : check_layer(path, "sha256:" + layout::sha256_hex(bytes), diff_id))
        texts.push_back((finding.refused ? "refused: " : "") + finding.what);
    return texts;
}

Texts of_members(const std::vector<layout::Member>& members)
{
    return of_archive(layout::tar(members));
}

} // namespace

TEST(ConfigCheck, FindsNothingInAValidDocument)
{
    EXPECT_EQ(findings(kGood), Texts{});
    EXPECT_EQ(findings(R"({"ociVersion": "1", "process": {"args": ["/a", "b"], "cwd": "/",
                           "env": ["A=b"]}, "root": {"path": "/r"}, "annotations": {"a": "b"},
                           "mounts": [{"source": "a", "destination": "/b", "type": "bind",
                           "options": ["ro"]}], "zarnel": {"rtp": {"rtpPriority": "0x10"}}})"),
              Texts{});
}

TEST(ConfigCheck, NamesWhatCreateRefuses)
{
    EXPECT_EQ(findings("[]"), Texts{"refused ."});
    EXPECT_EQ(findings("{}"), (Texts{"refused ociVersion", "refused process", "refused root"}));
    EXPECT_EQ(findings(R"({"ociVersion": "", "process": {"args": [], "cwd": "here"},
                           "root": {"path": ""}})"),
              (Texts{"refused ociVersion", "refused process.args", "refused process.cwd",
                     "refused root.path"}));
    EXPECT_EQ(findings(R"({"ociVersion": 1, "process": {"args": "/a"}, "root": []})"),
              (Texts{"refused ociVersion", "refused process.args", "refused process.cwd",
                     "refused root"}));
    EXPECT_EQ(findings(R"({"ociVersion": "1", "process": {"args": [7], "cwd": "/"},
                           "root": {"path": "r"}})"),
              (Texts{"refused process.args", "refused process.args[0]"}));
}

TEST(ConfigCheck, NamesWhatCreateIgnores)
{
    EXPECT_EQ(findings(R"({"ociVersion": "1", "process": {"args": ["/a"], "cwd": "/",
                           "user": {"uid": 1, "gid": 1}, "terminal": true, "env": {}},
                           "root": {"path": "r", "readonly": true}, "linux": {}, "mounts": [
                           {"source": 1, "options": []}], "annotations": {"a": 1}, "zarnel": {"rtp":
                           {"rtpPriority": 50, "rtpStackSize": "64k"}, "resources": {}}})"),
              (Texts{"ignored annotations.a", "ignored process.env", "ignored process.terminal",
                     "ignored mounts[0].source", "ignored zarnel.rtp.rtpPriority",
                     "refused zarnel.rtp.rtpStackSize", "ignored zarnel.resources"}));
}

TEST(ConfigCheck, RefusesListsWithElementsOfAWrongType)
{
    EXPECT_EQ(findings(R"({"ociVersion": "1", "process": {"args": ["/a", 1], "cwd": "/",
                           "env": [2]}, "root": {"path": "r"}, "mounts": [1,
                           {"options": [5, "ro"]}]})"),
              (Texts{"refused process.args[1]", "refused process.env[0]", "refused mounts[0]",
                     "refused mounts[1].options[0]"}));
    const auto of = [](std::string_view text) { return ambiguity(text); };
    EXPECT_EQ(of(R"({"mounts": [{"options": [5, "ro"]}]})"),
              "mounts[0].options[0]: expected a string, found a number");
    EXPECT_EQ(of(R"({"process": {}})"), ""); // the library reports missing members
    EXPECT_EQ(of(R"({"annotations": {"a": "1", "a": "2"}})"), "");
}

TEST(ConfigCheck, RefusesDuplicateKeys)
{
    const std::string text = std::string(R"({"ROOT": {"path": "/"},)") + (kGood + 1);
    EXPECT_EQ(ambiguity(text), "duplicate key \"root\"");
    EXPECT_EQ(findings(text), (Texts{"refused root", "ignored root"}));
}

// What the library reads and other readers do not, or otherwise.
TEST(ConfigCheck, RefusesTextsThatParsersInterpretDifferently)
{
    const auto with = [](const char* member) {
        return ambiguity(std::string("{") + member + "," + (kGood + 1));
    };
    EXPECT_EQ(with(R"("hostname": "h")"), "");
    EXPECT_EQ(with(R"("hostname": "h\u0000x")"), "a NUL in a text at line 1, column 23");
    EXPECT_EQ(with("\"hostname\": \"\xff\""), "no JSON at line 1, column 15");
    EXPECT_EQ(with(R"("x": 1e400)"), "a number that is too large at line 1, column 12");
    EXPECT_EQ(ambiguity("{"), ""); // which the library refuses
    std::string problem;
    EXPECT_EQ(check_config("{\n]", problem), std::nullopt);
    EXPECT_EQ(problem, "no JSON at line 2, column 1");
}

TEST(ConfigCheck, MembersAreFoundWhateverTheirCase)
{
    EXPECT_EQ(findings(R"({"OCIVERSION": "1", "Process": {"Args": ["/a"], "CWD": "/"},
                           "root": {"path": "r"}})"),
              Texts{});
}

TEST(ConfigCheck, ReportsWhatIsExpectedAndWhatWasFound)
{
    const auto first = [](std::string_view text) {
        std::string problem;
        return check_config(text, problem).value().front();
    };
    EXPECT_EQ(first(R"({"ociVersion": 5})").expected, "a string");
    EXPECT_EQ(first(R"({"ociVersion": 5})").found, "a number");
    EXPECT_EQ(first(R"({"ociVersion": ""})").expected, "a version of 1 to 63 characters");
    EXPECT_EQ(first(R"({"ociVersion": ""})").found, "\"\"");
    EXPECT_EQ(first("[]").path, ".");
}

TEST(LayerCheck, AcceptsWhatTheExtractorAccepts)
{
    EXPECT_EQ(
        of_members({layout::directory("a/"), {"a/file", "content"}, layout::symlink("l", "a")}),
        Texts{});
    EXPECT_EQ(of_archive(layout::gzip(layout::tar({{"file", std::string(5000, 'x')}}))), Texts{});
}

TEST(LayerCheck, NamesMembersThatBreakTheArchive)
{
    const auto of_type = [](char type) {
        layout::Member member = {"m", "data"};
        member.type = type;
        return of_members({member});
    };
    EXPECT_EQ(of_type('x'), Texts{"refused: pax header"});
    EXPECT_EQ(of_type('g'), Texts{"refused: pax header"});
    EXPECT_EQ(of_type('L'), Texts{"refused: long name (GNU)"});
    EXPECT_EQ(of_type('K'), Texts{"refused: long link (GNU)"});
    EXPECT_EQ(of_type('S'), Texts{"refused: sparse file (GNU)"});
    EXPECT_EQ(of_type('1'), Texts{"refused: a link, device or directory with data"});
    layout::Member link = layout::symlink("l", "t");
    link.content = "data";
    EXPECT_EQ(of_members({link}), Texts{"refused: a link, device or directory with data"});
    EXPECT_EQ(of_members({{"./", "data"}}),
              Texts{"refused: a link, device or directory with data"});
    EXPECT_EQ(of_members({layout::symlink("l", "")}),
              Texts{"refused: a symbolic link without a target"});
    EXPECT_EQ(of_members({{"BZh", "data"}}), Texts{});
}

TEST(LayerCheck, NamesWhatIsLeftOut)
{
    const auto of_type = [](char type) {
        layout::Member member = {"m"};
        member.type = type;
        return of_members({member});
    };
    EXPECT_EQ(of_type('1'), Texts{"hard link: left out"});
    EXPECT_EQ(of_type('3'), Texts{"device: left out"});
    EXPECT_EQ(of_type('4'), Texts{"device: left out"});
    EXPECT_EQ(of_type('6'), Texts{"FIFO: left out"});
    EXPECT_EQ(of_type('5'), Texts{"directory whose name does not end in \"/\": left out"});
    EXPECT_EQ(of_members({{".wh.gone"}}), Texts{"whiteout: extracted as a file; it hides nothing"});
    layout::Member program = {"su"};
    program.mode = 04755;
    EXPECT_EQ(of_members({program}), Texts{"set-id or sticky bit: dropped"});
    EXPECT_EQ(of_members({layout::directory("tmp/", 01777)}), Texts{}); // restored by zncctl run
    EXPECT_EQ(of_members({layout::directory("mail/", 02775)}),
              Texts{"set-id or sticky bit: dropped"});
}

TEST(LayerCheck, NamesMembersWithoutAParent)
{
    EXPECT_EQ(of_members({{"a/b"}}), Texts{"refused: no directory for the member"});
    EXPECT_EQ(of_members({{"../b"}}), Texts{"refused: \"..\" in the name"});
    EXPECT_EQ(of_members({layout::symlink("a", "b"), {"a/c"}}),
              Texts{"refused: the member's directory is a link or a file"});
    EXPECT_EQ(of_members({{"a"}, layout::symlink("a", "b")}),
              Texts{"refused: a symbolic link whose name exists already"});
    EXPECT_EQ(of_members({layout::directory("a/"), {"a"}}),
              Texts{"a file where a directory is: left out"});
}

TEST(LayerCheck, NamesArchivesThatAreDamagedOrOfAnotherKind)
{
    const std::string good = layout::tar({{"file", "content"}});
    EXPECT_EQ(of_archive(std::string("\x28\xb5\x2f\xfd", 4) + std::string(600, 'x')),
              Texts{"refused: it is compressed with zstd"});
    EXPECT_EQ(of_archive(std::string("\xfd") + "7zXZ" + std::string(600, '\0')),
              Texts{"refused: it is compressed with xz"});
    EXPECT_EQ(of_archive(std::string(1024, '7')), Texts{"refused: the header is damaged"});
    EXPECT_EQ(of_archive(good.substr(0, 512)), Texts{"refused: the archive ends within a member"});
    EXPECT_EQ(of_archive(good.substr(0, 1024)), Texts{"refused: there is no end mark"});
    EXPECT_EQ(of_archive(good, "sha256:" + std::string(64, '0')),
              Texts{"refused: its content is not what the image's configuration says"});
    EXPECT_EQ(of_archive(good, "sha256:" + layout::sha256_hex(good)), Texts{});
}

// With a different size the reader would treat content as headers, or headers as content.
TEST(LayerCheck, ReadsNumbersWithASignAsTheExtractorDoes)
{
    const std::string inner = layout::tar({{".wh.hidden"}});
    std::string archive = layout::tar({{"file", inner.substr(0, 512)}});
    archive.replace(124, 12, std::string("\v+00001000\0\0", 12));
    archive.replace(148, 8, 8, ' ');
    unsigned sum = 0;
    for (std::size_t i = 0; i < 512; ++i)
        sum += static_cast<unsigned char>(archive[i]);
    std::array<char, 8> checksum{};
    ::snprintf(checksum.data(), checksum.size(), "%07o", sum);
    archive.replace(148, checksum.size(), checksum.data(), checksum.size());
    EXPECT_EQ(of_archive(archive), Texts{});
}

TEST(LayerCheck, CountsAndNamesTheFirstMember)
{
    const layout::TempDir dir;
    const std::string bytes = layout::tar({{".wh.a"}, {".wh.b"}});
    layout::write_file(dir / "layer", bytes);
    const std::vector<Finding> found =
        check_layer(dir / "layer", "sha256:" + layout::sha256_hex(bytes), "");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].count, 2U);
    EXPECT_EQ(found[0].first, ".wh.a");
}

TEST(ImageName, IsALayoutAndAnOptionalTag)
{
    EXPECT_EQ(split_image_name("dir").layout, "dir");
    EXPECT_EQ(split_image_name("dir").tag, "latest");
    EXPECT_EQ(split_image_name("a/dir:v1").layout, "a/dir");
    EXPECT_EQ(split_image_name("a/dir:v1").tag, "v1");
    EXPECT_EQ(split_image_name("a:b/dir").layout, "a:b/dir");
    const layout::TempDir dir;
    layout::fs::create_directory(dir / "with:colon");
    EXPECT_EQ(split_image_name(dir / "with:colon").layout, dir / "with:colon");
}

TEST(BlobPath, IsEmptyForAnInvalidDigest)
{
    const std::string digits(64, 'a');
    EXPECT_EQ(blob_path("l", "sha256:" + digits), "l/blobs/sha256/" + digits);
    EXPECT_EQ(blob_path("l", "sha512:" + digits + digits), "l/blobs/sha512/" + digits + digits);
    for (const std::string& digest :
         {std::string(), std::string("sha256"), std::string("sha256:"), std::string("sha256:0af"),
          "sha256:" + digits + "/../../x", "sha256:" + digits + "a", "sha512:" + digits,
          "sha256:" + std::string(64, 'A'), "md5:" + digits, "../:" + digits,
          "sha256:" + std::string(61, 'a') + "/.."})
        EXPECT_EQ(blob_path("l", digest), "") << digest;
}

TEST(LogFile, RotatesOnceAndIsReadInOrder)
{
    const layout::TempDir dir;
    const znc::UniqueFd fd(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    LogFile log(fd.get(), 10);
    LogReader early(fd.get(), true);
    log.append("0123");
    EXPECT_EQ(early.read(), "0123");
    log.append("456789abc");
    EXPECT_EQ(early.read(), "456789abc");
    EXPECT_EQ(early.read(), "");
    EXPECT_EQ(LogReader(fd.get(), false).read(), "0123456789abc");
    log.append("defghijklmno");
    EXPECT_EQ(LogReader(fd.get(), false).read(), "abcdefghijklmno");
    EXPECT_EQ(early.read(), "defghijklmno");
}

TEST(ToNumber, TakesDigitsAndNothingElse)
{
    EXPECT_EQ(to_number<unsigned>("17"), 17U);
    for (const char* text : {"", "-1", "+1", " 1", "1 ", "1x", "99999999999"})
        EXPECT_EQ(to_number<unsigned>(text), std::nullopt) << text;
}

namespace {

// Returns the problem that read_layout reports; "" if the layout is valid.
std::string layout_problem(const layout::Layout& made, bool* refused)
{
    std::string problem;
    *refused = false;
    const auto images = read_layout(made.dir(), problem, refused);
    return images ? "" : problem;
}

std::string index_with(const std::string& entry)
{
    return R"({"schemaVersion":2,"manifests":[)" + entry + "]}";
}

} // namespace

TEST(ReadLayout, RefusesDuplicateKeysInEveryDocument)
{
    const layout::TempDir dir;
    layout::Layout made(dir.path() / "l");
    made.add({});
    bool refused = false;
    EXPECT_EQ(layout_problem(made, &refused), "");
    const std::string index = layout::read_file(made.dir() / "index.json");

    layout::write_file(made.dir() / "index.json", R"({"Manifests":[],)" + index.substr(1));
    EXPECT_EQ(layout_problem(made, &refused), "index.json: duplicate key \"manifests\"");
    EXPECT_TRUE(refused);
    layout::write_file(made.dir() / "index.json", index);

    layout::write_file(made.dir() / "oci-layout",
                       R"({"imageLayoutVersion":"1.0.0","imageLayoutVersion":"2"})");
    EXPECT_EQ(layout_problem(made, &refused), "oci-layout: duplicate key \"imageLayoutVersion\"");
    layout::write_file(made.dir() / "oci-layout", R"({"imageLayoutVersion":"1.0.0"})");

    made.add_manifest(R"({"schemaVersion":2,"config":{},"layers":[],"Layers":[]})");
    EXPECT_TRUE(layout_problem(made, &refused).ends_with(": duplicate key \"Layers\""));
    EXPECT_TRUE(refused);
}

TEST(ReadLayout, RefusesInvalidDigests)
{
    const layout::TempDir dir;
    layout::Layout made(dir.path() / "l");
    made.add({});
    bool refused = false;
    for (const std::string& digest :
         {"sha256:" + std::string(64, 'a') + "/../../../../../tmp/victim", std::string("sha256:.."),
          "sha256:" + std::string(64, 'A'), std::string()}) {
        layout::write_file(made.dir() / "index.json",
                           index_with(layout::descriptor(layout::kManifestType, digest, 1)));
        EXPECT_EQ(layout_problem(made, &refused), "index.json: \"" + digest + "\" is not a digest");
        EXPECT_TRUE(refused);
    }
}

TEST(ReadLayout, FindsMembersAsTheLibraryDoes)
{
    const layout::TempDir dir;
    layout::Layout made(dir.path() / "l");
    made.add({});
    std::string index = layout::read_file(made.dir() / "index.json");
    index.replace(index.find("\"digest\""), 8, "\"DIGEST\"");
    layout::write_file(made.dir() / "index.json", index);
    std::string problem;
    const auto images = read_layout(made.dir(), problem);
    ASSERT_TRUE(images) << problem;
    EXPECT_EQ((*images)[0].problem, "");
    EXPECT_EQ((*images)[0].os, "zarnel");
}

TEST(ReadLayout, DoesNotBlockOnAFifoAndRefusesOtherContent)
{
    const layout::TempDir dir;
    layout::Layout made(dir.path() / "l");
    made.add({});
    std::string problem;
    auto images = read_layout(made.dir(), problem);
    ASSERT_TRUE(images) << problem;
    const std::string digest = (*images)[0].manifest.digest;
    const std::string blob = made.blob(digest);
    std::string content = layout::read_file(blob);
    content.back() = ' ';
    layout::write_file(blob, content);
    images = read_layout(made.dir(), problem);
    ASSERT_TRUE(images) << problem;
    EXPECT_EQ((*images)[0].problem, "blob " + digest + " does not match its digest");
    layout::fs::remove(blob);
    ASSERT_EQ(::mkfifo(blob.c_str(), 0600), 0);
    images = read_layout(made.dir(), problem);
    ASSERT_TRUE(images) << problem;
    EXPECT_EQ((*images)[0].problem, "blob " + digest + ": It is not a regular file");
}

TEST(ReadLayout, RefusesEntriesThatTheLibraryReadsDifferently)
{
    const auto problem_of = [](const layout::Image& image) {
        const layout::TempDir dir;
        layout::Layout made(dir.path() / "l");
        made.add(image);
        std::string problem;
        const auto images = read_layout(made.dir(), problem);
        return images ? (*images)[0].problem : problem;
    };
    layout::Image image;
    image.platform = R"({"os":5,"architecture":"amd64"})";
    EXPECT_EQ(problem_of(image), "index.json: the platform's \"os\" is not a text");
    image.platform = R"({"os":"zarnel","architecture":"amd64"})";
    EXPECT_EQ(problem_of(image), "");
    image.name = "";
    image.annotations_extra = R"("org.opencontainers.image.ref.name":"")";
    EXPECT_EQ(problem_of(image), "index.json: the name of an image is empty");
}
