// The check of a layer: that it ends as extracting ends, and what it says on the way.
#include "tar_fixture.hpp"

#include "layout_builder.hpp"

#include <algorithm>
#include <random>

using tarforge::Archive;
using tarforge::Header;

namespace {

namespace fs = std::filesystem;
using Said = std::vector<std::pair<int, std::string>>; // finding and member

void note(const ZNC_LAYER_REPORT* report, void* context)
{
    errno = ENOTTY; // which is nobody's reason
    static_cast<Said*>(context)->emplace_back(report->finding, report->member);
}

std::string sha256(const std::string& bytes)
{
    return "sha256:" + layout::sha256_hex(bytes);
}

class LayerCheck : public TarTest {
  protected:
    struct Result {
        STATUS status;
        int error;
        Said said;
    };
    Result check(const std::string& bytes, const char* diff_id = nullptr,
                 const std::string& digest = "")
    {
        layout::write_file(archive_, bytes);
        Result result = {};
        const std::string name = digest.empty() ? sha256(bytes) : digest;
        errno = 0;
        result.status = zncLayerCheck(archive_.c_str(), name.c_str(), diff_id, note, &result.said);
        result.error = result.status == OK ? 0 : errno;
        return result;
    }
    Result check(const Archive& archive) { return check(archive.bytes()); }
    Said said(const Archive& archive) { return check(archive).said; }

    // Extracts the same into the empty target.
    void expect_like_extracting(const std::string& bytes)
    {
        fs::remove_all(target_);
        fs::create_directory(target_);
        const Result checked = check(bytes);
        const STATUS status = extract(bytes);
        const int error = status == OK ? 0 : errno;
        EXPECT_EQ(checked.status, status);
        EXPECT_EQ(checked.error, error);
        const bool refused =
            std::any_of(checked.said.begin(), checked.said.end(), [](const auto& finding) {
                return finding.first >= ZNC_LAYER_COMPRESSION || finding.first == ZNC_LAYER_LENGTH;
            });
        EXPECT_EQ(refused, status != OK);
    }
};

} // namespace

TEST_F(LayerCheck, EndsAsExtractingDoesWhateverTheMembers)
{
    const std::vector<std::string> names = {
        "a",   "a/",    "a/b",    "a/b/", "a/b/c", "l",      "l/", "l/x", "./", ".",
        "//a", "a\\b/", "a//b//", "/a/.", "..",    "a/../b", ".a", "a\\", "",   "b/"};
    std::mt19937 random(7);
    const auto pick = [&](const auto& from) { return from[random() % from.size()]; };
    int good = 0;
    for (int round = 0; round < 3000; ++round) {
        Archive archive;
        archive.dir("a/");
        for (int n = 0; n < 4; ++n) {
            const std::string inner = random() % 4 == 0 ? Header("inner").block() : "";
            const std::string data = random() % 3 != 0 ? "" : inner.empty() ? "data" : inner;
            Header header(pick(names), "00025512Lx"[random() % 10]);
            header.size(data.size()).mode(static_cast<unsigned>(random() % 010000));
            header.target(pick(std::vector<std::string>{"a", "b", "..", ""}));
            if (random() % 8 == 0)
                header.prefix(pick(std::vector<std::string>{"a", "a/", "./", "b", "l"}));
            if (random() % 40 == 0)
                header.base256(tarforge::Field::kSize, 4);
            archive.member(header, data);
        }
        if (random() % 20 != 0)
            archive.end(1 + random() % 2);
        std::string bytes = archive.bytes();
        if (random() % 20 == 0)
            bytes.resize(bytes.size() - random() % 600);
        expect_like_extracting(random() % 4 == 0 ? layout::gzip(bytes) : bytes);
        ASSERT_FALSE(HasFailure()) << "round " << round;
        good += zncLayerCheck(archive_.c_str(), sha256(layout::read_file(archive_)).c_str(),
                              nullptr, note, std::make_unique<Said>().get()) == OK;
    }
    EXPECT_GT(good, 100);
    EXPECT_LT(good, 2900);
}

TEST_F(LayerCheck, DataLongerThanTheBufferIsNotTakenForTheHeader)
{
    const std::string data(300 * 1024, '\xff');
    EXPECT_TRUE(said(Archive().file("f", data).file("g", "x").end()).empty());
}

TEST_F(LayerCheck, CreatesNothing)
{
    const Tree before = snapshot(target_);
    EXPECT_EQ(check(Archive().dir("a/").file("a/f", "x").symlink("l", "a").end()).status, OK);
    EXPECT_EQ(snapshot(target_), before);
}

TEST_F(LayerCheck, ReportsTheMemberOfEachLoss)
{
    EXPECT_EQ(said(Archive().file("su", "", 04755).end()), (Said{{ZNC_LAYER_MODE, "su"}}));
    EXPECT_EQ(said(Archive().member(Header("f").octal(tarforge::Field::kGid, 5)).end()),
              (Said{{ZNC_LAYER_OWNER, "f"}}));
    EXPECT_EQ(said(Archive().dir("d/").file("d/.wh.f").dir(".wh.d/").end()),
              (Said{{ZNC_LAYER_WHITEOUT, "d/.wh.f"}}));
    EXPECT_EQ(said(Archive().member(Header("p/f", '1').prefix("x")).dir("x/").end()),
              (Said{{ZNC_LAYER_NO_PARENT, "x/p/f"}}));
    EXPECT_EQ(said(Archive().member(Header("f", '1')).end()), (Said{{ZNC_LAYER_NOT_MADE, "f"}}));
    EXPECT_EQ(said(Archive().dir("d/").file("d").end()), (Said{{ZNC_LAYER_NO_FILE, "d"}}));
    EXPECT_EQ(said(Archive().symlink("l", "x").symlink("l", "x").end()),
              (Said{{ZNC_LAYER_LINK_EXISTS, "l"}}));
    EXPECT_EQ(said(Archive().symlink("l", "").end()), (Said{{ZNC_LAYER_LINK_EMPTY, "l"}}));
    EXPECT_EQ(said(Archive().file("BZh").end()), Said{}); // the name of a file, no compression
}

// What other programs take for a member's data and this one for members.
TEST_F(LayerCheck, DataThatIsReadAsMembersIsNamedAndRead)
{
    const std::string hidden = Header("hidden").block();
    for (const char type : {'1', '2', 'x', 'L', '7'})
        EXPECT_EQ(
            said(Archive().member(Header("m", type).target("t").size(hidden.size()), hidden).end()),
            (Said{{ZNC_LAYER_DATA_AS_MEMBERS, "m"}}))
            << type;
    EXPECT_EQ(said(Archive().member(Header("./").size(512), hidden).end()),
              (Said{{ZNC_LAYER_DATA_AS_MEMBERS, "./"}}));
    EXPECT_EQ(said(Archive()
                       .member(Header("m", 'x').size(512), hidden)
                       .member(Header("m").base256(tarforge::Field::kSize, 512), hidden)
                       .end()),
              (Said{{ZNC_LAYER_DATA_AS_MEMBERS, "m"}, {ZNC_LAYER_SIZE_FORM, "m"}}));
}

TEST_F(LayerCheck, ComparesDigestAndDiffId)
{
    const std::string plain = Archive().file("f", "content").end().bytes();
    const std::string packed = layout::gzip(plain);
    EXPECT_EQ(check(packed, sha256(plain).c_str()).status, OK);
    EXPECT_EQ(check(plain, ("sha512:" + layout::sha512_hex(plain)).c_str()).status, OK);
    for (const std::string& other : {sha256(packed), std::string("md5:0"), std::string()}) {
        const Result result = check(packed, other.c_str());
        EXPECT_EQ(result.error, S_zncLib_CONFIG_INVALID) << other;
        EXPECT_EQ(result.said, (Said{{ZNC_LAYER_DIFF_ID, ""}})) << other;
    }
    const Result result = check(packed, nullptr, sha256(plain));
    EXPECT_EQ(result.error, S_zncLib_MANIFEST_INVALID);
    EXPECT_EQ(result.said, (Said{{ZNC_LAYER_DIGEST, ""}}));
    EXPECT_EQ(check(packed, nullptr, "sha256:0").error, S_zncLib_MANIFEST_INVALID);
}

TEST_F(LayerCheck, ArgumentsAreChecked)
{
    const std::string digest = sha256("");
    EXPECT_EQ(zncLayerCheck(nullptr, digest.c_str(), nullptr, note, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zncLayerCheck("/dev/null", digest.c_str(), nullptr, nullptr, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zncLayerCheck("/dev/null", digest.c_str(), nullptr, note, nullptr), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zncLayerCheck(at("none").c_str(), digest.c_str(), nullptr, note, nullptr), ERROR);
    EXPECT_EQ(errno, ENOENT);
    layout::write_file(archive_, "x");
    EXPECT_EQ(zncLayerCheck(archive_.c_str(), nullptr, nullptr, note, nullptr), ERROR);
    EXPECT_EQ(errno, S_zncLib_MANIFEST_INVALID);
}

TEST_F(LayerCheck, WorksWithManyMembers)
{
    Archive archive;
    for (int i = 0; i < 20'000; ++i)
        archive.dir(std::to_string(i) + "/").file(std::to_string(i) + "/f");
    EXPECT_EQ(check(archive.end()).status, OK);
}
