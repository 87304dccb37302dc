// Tests of paths inside a layout and of checks of single items.
#include "zncImageLib.hpp"

#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include <sys/stat.h>

namespace {

using znc::CJsonPtr;

CJsonPtr text(const std::string& value)
{
    return CJsonPtr(cJSON_CreateString(value.c_str()));
}

struct Path {
    STATUS status;
    int error;
    std::string text;
};

Path compose(const std::string& image, JSON_FILE_TYPE type, cJSON* digest, UINT32 len = 1024)
{
    std::vector<char> buffer(len);
    errno = 0;
    const STATUS status = composeFileName(image.c_str(), type, digest, buffer.data(), len);
    return {status, errno, buffer.data()};
}

TEST(ComposeFileName, TheTwoFixedFilesAreBesideTheBlobs)
{
    EXPECT_EQ(compose("/img", OCILAYOUTJSON, nullptr).text, "/img/oci-layout");
    EXPECT_EQ(compose("/img", INDEXJSON, nullptr).text, "/img/index.json");
}

TEST(ComposeFileName, TheFirstColonOfADigestBecomesASeparator)
{
    const CJsonPtr digest = text("sha256:ab12:c");
    for (const JSON_FILE_TYPE type : {LAYERJSON, MANIFESTJSON, CONFIGJSON}) {
        const Path path = compose("/img", type, digest.get());
        EXPECT_EQ(path.status, OK);
        EXPECT_EQ(path.text, "/img/blobs/sha256/ab12:c");
    }
}

TEST(ComposeFileName, NullArgumentsAreEINVAL)
{
    char buffer[16];
    EXPECT_EQ(composeFileName(nullptr, INDEXJSON, nullptr, buffer, sizeof buffer), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(composeFileName("/img", INDEXJSON, nullptr, nullptr, 16), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST(ComposeFileName, AnUnknownKindIsEINVAL)
{
    const Path path = compose("/img", static_cast<JSON_FILE_TYPE>(5), nullptr);
    EXPECT_EQ(path.status, ERROR);
    EXPECT_EQ(path.error, EINVAL);
}

TEST(ComposeFileName, ADigestWithoutTextIsENAMETOOLONG)
{
    const CJsonPtr number(cJSON_CreateNumber(5));
    for (cJSON* digest : {static_cast<cJSON*>(nullptr), number.get()}) {
        const Path path = compose("/img", MANIFESTJSON, digest);
        EXPECT_EQ(path.status, ERROR);
        EXPECT_EQ(path.error, ENAMETOOLONG);
    }
}

TEST(ComposeFileName, ADigestWithoutAUsableColonIsEINVAL)
{
    for (const char* bad : {"sha256", ":sha256", ":", "", "::x"}) {
        const CJsonPtr digest = text(bad);
        const Path path = compose("/img", MANIFESTJSON, digest.get());
        EXPECT_EQ(path.status, ERROR) << bad;
        EXPECT_EQ(path.error, EINVAL) << bad;
    }
}

TEST(ComposeFileName, APathThatDoesNotFitIsENAMETOOLONG)
{
    // "/img/index.json" has 15 characters.
    EXPECT_EQ(compose("/img", INDEXJSON, nullptr, 16).status, OK);
    EXPECT_EQ(compose("/img", INDEXJSON, nullptr, 15).error, ENAMETOOLONG);
    EXPECT_EQ(compose("/img", OCILAYOUTJSON, nullptr, 15).error, ENAMETOOLONG);
    EXPECT_EQ(compose("/img", OCILAYOUTJSON, nullptr, 3).error, ENAMETOOLONG);
    const CJsonPtr digest = text("sha256:ab"); // 20 characters
    EXPECT_EQ(compose("/img", LAYERJSON, digest.get(), 21).status, OK);
    EXPECT_EQ(compose("/img", LAYERJSON, digest.get(), 20).error, ENAMETOOLONG);
    EXPECT_EQ(compose(std::string(2000, 'x'), LAYERJSON, digest.get()).error, ENAMETOOLONG);
}

TEST(StrEqual, ComparesWholeShortStrings)
{
    EXPECT_EQ(strEqual("latest", "latest"), TRUE);
    EXPECT_EQ(strEqual("", ""), TRUE);
    EXPECT_EQ(strEqual("latest", "lates"), FALSE);
    EXPECT_EQ(strEqual("latest", "Latest"), FALSE);
}

TEST(StrEqual, LooksAt256Characters)
{
    const std::string same(256, 'x');
    EXPECT_EQ(strEqual((same + "a").c_str(), (same + "bcd").c_str()), TRUE);
    EXPECT_EQ(strEqual(same.c_str(), (same + "b").c_str()), TRUE);
    EXPECT_EQ(strEqual(same.c_str(), same.substr(1).c_str()), FALSE);
}

TEST(SchemaVersion, OnlyTwoIsAccepted)
{
    const CJsonPtr two(cJSON_CreateNumber(2));
    const CJsonPtr one(cJSON_CreateNumber(1));
    const CJsonPtr word = text("2");
    EXPECT_EQ(validateJsonSchemaVersion(two.get()), OK);
    EXPECT_EQ(validateJsonSchemaVersion(one.get()), ERROR);
    EXPECT_EQ(validateJsonSchemaVersion(word.get()), ERROR);
}

TEST(MediaType, EachKindHasItsOwn)
{
    const struct {
        const char* type;
        JSON_FILE_TYPE kind;
    } rows[] = {
        {"application/vnd.oci.image.index.v1+json", INDEXJSON},
        {"application/vnd.oci.image.manifest.v1+json", INDEXJSON},
        {"application/vnd.oci.image.layer.v1.tar", LAYERJSON},
        {"application/vnd.oci.image.layer.v1.tar+gzip", LAYERJSON},
        {"application/vnd.oci.image.layer.nondistributable.v1.tar", LAYERJSON},
        {"application/vnd.oci.image.layer.nondistributable.v1.tar+gzip", LAYERJSON},
        {"application/vnd.oci.image.config.v1+json", CONFIGJSON},
    };
    for (const auto& row : rows) {
        const CJsonPtr item = text(row.type);
        for (int kind = OCILAYOUTJSON; kind <= CONFIGJSON + 1; ++kind)
            EXPECT_EQ(validateJsonMediatype(static_cast<JSON_FILE_TYPE>(kind), item.get()),
                      kind == row.kind ? OK : ERROR)
                << row.type << " as " << kind;
    }
}

TEST(MediaType, OthersAndItemsWithoutTextAreRefused)
{
    const CJsonPtr zstd = text("application/vnd.oci.image.layer.v1.tar+zstd");
    const CJsonPtr number(cJSON_CreateNumber(1));
    EXPECT_EQ(validateJsonMediatype(LAYERJSON, zstd.get()), ERROR);
    EXPECT_EQ(validateJsonMediatype(LAYERJSON, number.get()), ERROR);
    EXPECT_EQ(validateJsonMediatype(LAYERJSON, nullptr), ERROR);
}

class FileChecks : public ::testing::Test {
  protected:
    void SetUp() override { layout::write_file(file_, "abc"); }
    STATUS digest(const std::string& value)
    {
        const CJsonPtr item = text(value);
        return validateJsonDigest(file_.c_str(), item.get());
    }
    layout::TempDir dir_;
    std::string file_ = dir_ / "blob";
    std::string sha256_ = layout::sha256_hex("abc");
};

TEST_F(FileChecks, TheSizeMustBeThatOfTheFile)
{
    for (int size = 2; size <= 4; ++size) {
        const CJsonPtr item(cJSON_CreateNumber(size));
        EXPECT_EQ(validateJsonFileSize(file_.c_str(), item.get()), size == 3 ? OK : ERROR);
    }
    const CJsonPtr word = text("3");
    EXPECT_EQ(validateJsonFileSize(file_.c_str(), word.get()), ERROR);
    const CJsonPtr three(cJSON_CreateNumber(3));
    EXPECT_EQ(validateJsonFileSize((dir_ / "absent").c_str(), three.get()), ERROR);
}

TEST_F(FileChecks, TheSizeOfAFifoIsTakenWithoutBlocking)
{
    const std::string fifo = dir_ / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const CJsonPtr three(cJSON_CreateNumber(3));
    EXPECT_EQ(validateJsonFileSize(fifo.c_str(), three.get()), ERROR);
}

TEST_F(FileChecks, BothAlgorithmsAreKnown)
{
    EXPECT_EQ(digest("sha256:" + sha256_), OK);
    EXPECT_EQ(digest("sha512:" + layout::sha512_hex("abc")), OK);
    EXPECT_EQ(digest("sha384:" + sha256_), ERROR);
    EXPECT_EQ(digest("SHA256:" + sha256_), ERROR);
}

TEST_F(FileChecks, UpperCaseHexadecimalPasses)
{
    std::string digits = sha256_;
    std::transform(digits.begin(), digits.end(), digits.begin(),
                   [](unsigned char c) { return std::toupper(c); });
    EXPECT_EQ(digest("sha256:" + digits), OK);
}

TEST_F(FileChecks, TextBehindTheDigitsPasses)
{
    EXPECT_EQ(digest("sha256:" + sha256_ + "extra"), OK);
}

TEST_F(FileChecks, AFurtherColonEndsTheValue)
{
    EXPECT_EQ(digest("sha256:" + sha256_ + ":whatever"), OK);
    EXPECT_EQ(digest("sha256:" + sha256_.substr(1) + ":" + sha256_), ERROR);
}

TEST_F(FileChecks, BothPartsMustExist)
{
    for (const char* bad : {"sha256", "sha256:", ":", ""})
        EXPECT_EQ(digest(bad), ERROR) << bad;
    const CJsonPtr number(cJSON_CreateNumber(1));
    EXPECT_EQ(validateJsonDigest(file_.c_str(), number.get()), ERROR);
}

TEST_F(FileChecks, DigestWithASeparatorIsRefused)
{
    EXPECT_EQ(digest("sha256:" + sha256_ + "/../" + sha256_), ERROR);
    EXPECT_EQ(digest("sha256:" + sha256_ + ":/../x"), ERROR);
    EXPECT_EQ(digest("sha256:" + sha256_ + std::string(300, 'x') + "/y"), ERROR);
}

TEST(JsonString, MustBeTextAndEqual)
{
    const CJsonPtr item = text("1.0.0");
    const CJsonPtr number(cJSON_CreateNumber(1));
    EXPECT_EQ(validateJsonString("1.0.0", item.get()), OK);
    EXPECT_EQ(validateJsonString("1.0.1", item.get()), ERROR);
    EXPECT_EQ(validateJsonString("1", number.get()), ERROR);
    EXPECT_EQ(validateJsonString("1", nullptr), ERROR);
}

} // namespace
