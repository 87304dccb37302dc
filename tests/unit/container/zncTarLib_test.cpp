// Tests of the tar extractor: its operations, rules and failures.
#include "tar_fixture.hpp"

#include "alloc_fault.hpp"
#include "zncBlob.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

using tarforge::Archive;
using tarforge::Field;
using tarforge::Header;

using TarExtract = TarTest;
using namespace std::literals;

namespace {

constexpr uid_t kNobody = 65534;

std::string bytes_of(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>((i * 2654435761U) >> 13);
    return text;
}

// Extracts as a layer of an image, without a digest.
STATUS extract_whole(const std::string& archive, const std::string& target)
{
    const std::string digest = "sha256:" + std::string(64, '0');
    znc::BlobReader blob;
    return blob.open(archive.c_str(), digest.c_str())
               ? znc::tar_extract_whole(blob, target.c_str(), 200)
               : ERROR;
}

} // namespace

// ------------------------------------------------------------------ operations

TEST(TarOctal, ReadsLikeScanf)
{
    const struct {
        std::string_view field;
        bool parsed;
        unsigned long value;
    } rows[] = {
        {"0000644", true, 0644},
        {"644", true, 0644},
        {"   644 ", true, 0644},
        {"\t\n\v\f\r7", true, 7},
        {"644\0"
         "777"sv,
         true, 0644},
        {"12345678", true, 01234567}, // 8 is not an octal digit
        {"00000017", true, 017},      // a NUL is not required
        {"+17", true, 017},
        {"-1", true, ULONG_MAX},
        {"777777777777", true, 0777777777777},
        {"", false, 0},
        {"        ", false, 0},
        {"\0\0\0"sv, false, 0},
        {"-", false, 0},
        {"- 1", false, 0},
        {"9", false, 0},
        {"x7", false, 0},
        {"\x80\0\0\0\0\0\0\1"sv, false, 0},
    };
    for (const auto& row : rows) {
        unsigned long value = 99;
        EXPECT_EQ(znc::tar_octal(row.field, value), row.parsed) << row.field;
        EXPECT_EQ(value, row.parsed ? row.value : 99) << row.field;
    }
}

TEST(TarChecksum, SumsBytesAsUnsigned)
{
    char bytes[] = "\x01\xff\x80";
    EXPECT_EQ(mtChecksum(bytes, 3), 0x180U);
    EXPECT_EQ(mtChecksum(bytes, 0), 0U);
}

TEST(TarBlockIsZero, LooksAtAll512Bytes)
{
    MT_HBLOCK block{};
    EXPECT_EQ(zncTarBlockIsZero(&block), TRUE);
    for (const std::size_t at : {0UL, 1UL, 255UL, 511UL}) {
        block.dummy[at] = 1;
        EXPECT_EQ(zncTarBlockIsZero(&block), FALSE) << at;
        block.dummy[at] = 0;
    }
}

TEST(TarPath, BothSlashesSeparate)
{
    EXPECT_TRUE(pathIsSep('/'));
    EXPECT_TRUE(pathIsSep('\\'));
    EXPECT_FALSE(pathIsSep('.'));
    EXPECT_FALSE(pathIsSep('\0'));
}

TEST(TarPath, CondenseCleansAName)
{
    const std::pair<const char*, const char*> rows[] = {
        {"a", "/a"},
        {"a/b", "/a/b"},
        {"a/", "/a/"},
        {"/etc/passwd", "/etc/passwd"},
        {"///a//b///", "/a/b/"},
        {"a\\b\\", "/a/b/"},
        {"./a/./b", "/a/b"},
        {"./", "/"},
        {"/", "/"},
        {".", ""},
        {"", ""},
        {"a/.", "/a"},
        {"a/./", "/a/"},
        {".profile", "/.profile"},
        {"..a/...", "/..a/..."},
        {"a../b", "/a../b"},
    };
    for (const auto& [in, wanted] : rows) {
        char buf[64] = "unterminated";
        char* out = buf;
        EXPECT_EQ(tarCopyCondense(&out, sizeof buf, in, std::strlen(in)), OK) << in;
        EXPECT_STREQ(buf, wanted) << in;
        EXPECT_EQ(out, buf + std::strlen(wanted)) << in;
    }
}

TEST(TarPath, CondenseRefusesDotDotWhereverItStands)
{
    for (const char* in :
         {"..", "../a", "/..", "a/..", "a/../b", "..\\a", "a\\..", "./..", "//..//"}) {
        char buf[64];
        char* out = buf;
        errno = 0;
        EXPECT_EQ(tarCopyCondense(&out, sizeof buf, in, std::strlen(in)), ERROR) << in;
        EXPECT_EQ(errno, EPERM) << in;
    }
}

TEST(TarPath, CondenseStopsWhereTheRoomEnds)
{
    for (std::size_t room = 0; room <= 8; ++room) {
        char buf[] = "##########";
        char* out = buf;
        EXPECT_EQ(tarCopyCondense(&out, room, "ab/cd/", 6), OK);
        EXPECT_EQ(out, buf + std::min<std::size_t>(room, 7));
        const std::string full = std::string("/ab/cd/") + (room > 7 ? std::string(1, '\0') : "");
        EXPECT_EQ(std::string(buf, 10), full.substr(0, room) + std::string(10 - room, '#')) << room;
    }
}

TEST(TarPath, CondenseReadsNoFurtherThanItsInput)
{
    char buf[16];
    char* out = buf;
    EXPECT_EQ(tarCopyCondense(&out, sizeof buf, "abc/..", 3), OK);
    EXPECT_STREQ(buf, "/abc");
}

TEST_F(TarExtract, SetMtimeChangesNothingButTheModificationTime)
{
    test_tree::write_file(at("f"), "x");
    const timespec old[2] = {{1000, 5}, {2000, 5}};
    ASSERT_EQ(utimensat(AT_FDCWD, at("f").c_str(), old, 0), 0);
    EXPECT_EQ(tarSetMtime(at("f").data(), 3333), OK);
    struct stat st;
    ASSERT_EQ(lstat(at("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_atim.tv_sec, 1000);
    EXPECT_EQ(st.st_atim.tv_nsec, 5);
    EXPECT_EQ(mtime("f"), 3333);
}

TEST_F(TarExtract, SetMtimeOfAMissingPathFailsAndALinkIsNotFollowed)
{
    EXPECT_EQ(tarSetMtime(at("missing").data(), 1), ERROR);
    EXPECT_EQ(errno, ENOENT);
    std::filesystem::create_symlink("../outside/secret", at("l"));
    EXPECT_EQ(tarSetMtime(at("l").data(), 3333), OK);
    EXPECT_EQ(mtime("l"), 3333);
}

namespace {

// A source with predefined results of its reads: sizes in bytes, 0 for the end, -1 for an error.
struct Script {
    TAR_COMPRESS tc;
    std::vector<ssize_t> results;
    std::vector<std::size_t> asked;
};

ssize_t script_read(void* handle, void* buffer, size_t maxbytes)
{
    auto& script = *static_cast<Script*>(handle);
    const std::size_t n = script.asked.size();
    script.asked.push_back(maxbytes);
    const ssize_t result = script.results.at(n);
    if (result > 0)
        std::memset(buffer, static_cast<int>('a' + n), static_cast<std::size_t>(result));
    return result;
}

class TarReadBlocks : public testing::Test {
  protected:
    int take(unsigned int n) { return tarRdBlks(&ctrl_, &block_, n); }
    void play(std::vector<ssize_t> results)
    {
        script_ = {{script_read}, std::move(results), {}};
        ctrl_.tc = &script_.tc;
        ctrl_.bFactor = 4;
        ctrl_.pBuf = buffer_;
        ctrl_.bValid = 0;
    }
    Script script_{};
    MT_HBLOCK buffer_[4]{};
    MT_TAR_SOFT ctrl_{};
    MT_HBLOCK* block_ = nullptr;
};

} // namespace

TEST_F(TarReadBlocks, GivesBlocksInPlaceAndNoMoreThanTheBufferHolds)
{
    play({2048, 1024, 0});
    EXPECT_EQ(take(1), 1);
    EXPECT_EQ(block_, buffer_);
    EXPECT_EQ(take(2), 2);
    EXPECT_EQ(block_, buffer_ + 1);
    EXPECT_EQ(take(100), 1);
    EXPECT_EQ(block_, buffer_ + 3);
    EXPECT_EQ(take(3), 2);
    EXPECT_EQ(block_, buffer_);
    EXPECT_EQ(block_->dummy[0], 'b');
    EXPECT_EQ(take(1), 0);
    EXPECT_EQ(script_.asked, (std::vector<std::size_t>{2048, 2048, 2048}));
}

TEST_F(TarReadBlocks, ErrorAndOddCountAreErrors)
{
    play({-1});
    EXPECT_EQ(take(1), -1);
    play({513});
    EXPECT_EQ(take(1), -1);
    play({0});
    EXPECT_EQ(take(1), 0);
}

// ------------------------------------------------------------------ members

TEST_F(TarExtract, RegularFilesOfAllSizesKeepContentModeAndTime)
{
    Archive archive;
    const std::size_t sizes[] = {0, 1, 511, 512, 513, 1024, 10239, 10240, 10241, 102400, 300001};
    for (const std::size_t size : sizes)
        archive.file(std::string("f") + std::to_string(size), bytes_of(size), 0640, 1000000 + size);
    archive.end();
    for (const std::size_t bfactor : {1UL, 2UL, 20UL, 200UL, 0UL}) {
        ASSERT_EQ(extract(archive.bytes(), bfactor), OK) << bfactor;
        for (const std::size_t size : sizes) {
            const std::string name = std::string("f") + std::to_string(size);
            EXPECT_EQ(content(name), bytes_of(size));
            EXPECT_EQ(mode(name), 0640U);
            EXPECT_EQ(mtime(name), static_cast<time_t>(1000000 + size));
            unlink(at(name).c_str());
        }
    }
}

TEST_F(TarExtract, GzipArchiveIsRecognisedByItself)
{
    const Archive archive = Archive().dir("d/").file("d/f", bytes_of(200000)).end();
    ASSERT_EQ(extract(tarforge::gzip(archive.bytes())), OK);
    EXPECT_EQ(content("d/f"), bytes_of(200000));
}

TEST_F(TarExtract, ModesAreTheLowNineBitsWhateverTheUmask)
{
    const test_tree::Umask mask(0777);
    ASSERT_EQ(extract(Archive()
                          .dir("d/", 07777)
                          .file("d/f", "x", 07777)
                          .dir("none/", 0)
                          .file("none/f", "x", 0)
                          .end()),
              OK);
    EXPECT_EQ(mode("d"), 0777U);
    EXPECT_EQ(mode("d/f"), 0777U);
    EXPECT_EQ(mode("none"), 0U);
    EXPECT_EQ(mode("none/f"), 0U);
}

TEST_F(TarExtract, RegularTypesAreNulSpaceAndZero)
{
    const std::string types("\0 0", 3);
    Archive archive;
    for (std::size_t i = 0; i < types.size(); ++i)
        archive.member(Header(std::string("f") + std::to_string(i), types[i]).size(3), "abc");
    ASSERT_EQ(extract(archive.end()), OK);
    for (std::size_t i = 0; i < types.size(); ++i)
        EXPECT_EQ(content(std::string("f") + std::to_string(i)), "abc");
}

TEST_F(TarExtract, OtherTypesMakeNothing)
{
    Archive archive;
    for (const char type : std::string("13456789SVMKDXANz"))
        archive.member(Header(std::string("f") + type, type).target("x").octal(Field::kMajor, 1));
    ASSERT_EQ(extract(archive.file("last", "x").end()), OK);
    EXPECT_EQ(snapshot(target_).size(), 1U);
}

TEST_F(TarExtract, AccessTimeIsLeftAlone)
{
    const time_t before = time(nullptr);
    ASSERT_EQ(extract(Archive().file("f", "x", 0644, 1000).end()), OK);
    struct stat st;
    ASSERT_EQ(lstat(at("f").c_str(), &st), 0);
    EXPECT_GE(st.st_atim.tv_sec, before - 1);
}

TEST_F(TarExtract, SymlinkKeepsItsTarget)
{
    ASSERT_EQ(extract(Archive().symlink("l", "../../anywhere").symlink("abs", "/etc/passwd").end()),
              OK);
    EXPECT_EQ(std::filesystem::read_symlink(at("l")), "../../anywhere");
    EXPECT_EQ(std::filesystem::read_symlink(at("abs")), "/etc/passwd");
}

TEST_F(TarExtract, SymlinkTargetThatFillsItsFieldRunsOnIntoTheMagic)
{
    ASSERT_EQ(extract(Archive().symlink("l", std::string(100, 't')).symlink("s", "t").end()), OK);
    EXPECT_EQ(std::filesystem::read_symlink(at("l")), std::string(100, 't') + "ustar");
}

TEST_F(TarExtract, SymlinkTargetWithoutAnyNulEndsWithTheBlock)
{
    Header header("l", '2');
    for (const Field field :
         {Field::kLinkname, Field::kMagic, Field::kVersion, Field::kUname, Field::kGname,
          Field::kMajor, Field::kMinor, Field::kPrefix, Field::kPadding})
        header.raw(field, "", 't');
    ASSERT_EQ(extract(Archive().member(header).end()), OK);
    EXPECT_EQ(std::filesystem::read_symlink(at("l")), std::string(512 - 157, 't'));
}

TEST_F(TarExtract, PrefixCountsOnlyWithThePosixMagic)
{
    Archive archive;
    archive.dir("p/");
    archive.member(Header("posix").prefix("p"));
    archive.member(Header("gnu").prefix("p").raw(Field::kMagic, "ustar "));
    archive.member(Header("old").prefix("p").raw(Field::kMagic, ""));
    ASSERT_EQ(extract(archive.end()), OK);
    EXPECT_TRUE(exists("p/posix"));
    EXPECT_TRUE(exists("gnu"));
    EXPECT_TRUE(exists("old"));
}

TEST_F(TarExtract, PrefixThatEndsWithASlashDoesNoHarm)
{
    Archive archive;
    archive.dir("p/");
    archive.member(Header("f").prefix("p/"));
    archive.member(Header("d/", '5').prefix("p/").mtime(5000));
    archive.member(Header("d/f").prefix("p/").size(1), "x");
    ASSERT_EQ(extract(archive.end()), OK);
    EXPECT_TRUE(exists("p/f"));
    EXPECT_TRUE(exists("p/d/f"));
    EXPECT_EQ(mtime("p/d"), 5000);
}

TEST_F(TarExtract, LongestNamesThatAHeaderHoldsWork)
{
    const std::string prefix(155, 'p');
    const std::string dir = std::string(99, 'd') + "/";
    const std::string file(100, 'f');
    Archive archive;
    archive.dir("first/");
    archive.member(Header(dir, '5').prefix(prefix).mtime(4000));
    std::filesystem::create_directory(at(prefix));
    archive.member(Header(file).prefix(prefix).size(1).mtime(6000), "x");
    ASSERT_EQ(extract(archive.end()), OK);
    EXPECT_EQ(mtime(prefix + "/" + std::string(99, 'd')), 4000);
    EXPECT_EQ(content(prefix + "/" + file), "x");
}

TEST_F(TarExtract, NumbersNeedNoTerminator)
{
    Header header("f");
    header.octal_unterminated(Field::kMode, 0600)
        .octal_unterminated(Field::kSize, 3)
        .octal_unterminated(Field::kMtime, 7000)
        .octal_unterminated(Field::kUid, 0)
        .octal_unterminated(Field::kGid, 0);
    ASSERT_EQ(extract(Archive().member(header, "abc").end()), OK);
    EXPECT_EQ(content("f"), "abc");
    EXPECT_EQ(mode("f"), 0600U);
    EXPECT_EQ(mtime("f"), 7000);
}

TEST_F(TarExtract, DirectoryTimesAreSetAfterTheirMembersWereMade)
{
    ASSERT_EQ(extract(Archive()
                          .dir("a/", 0755, 1111)
                          .dir("a/b/", 0755, 2222)
                          .file("a/b/f", "x")
                          .dir("c/", 0755, 3333)
                          .file("a/late", "x")
                          .file("c/f", "x")
                          .end()),
              OK);
    EXPECT_EQ(mtime("a"), 1111);
    EXPECT_EQ(mtime("a/b"), 2222);
    EXPECT_EQ(mtime("c"), 3333);
}

TEST_F(TarExtract, RecordFileIsGoneAndTheFirstDirectoryHasItsTime)
{
    ASSERT_EQ(extract(Archive().dir("only/", 0755, 1234).end()), OK);
    EXPECT_EQ(mtime("only"), 1234);
    EXPECT_TRUE(std::filesystem::is_empty(at("only")));
}

TEST_F(TarExtract, RecordFileIsNamedByTheClockAndLivesInTheFirstDirectory)
{
    mayLeaveRecordFile_ = true;
    tarFaults.nanoseconds = 0x3ab00ef;
    tarFaults.failWrite = 1;
    ASSERT_EQ(extract(Archive().dir("first/").end()), ERROR);
    EXPECT_EQ(record_files(target_), std::vector{at("first/.tard@#00ef.sto")});
}

// The path buffer contains what the last member left after the target directory: a separator. A
// name that condenses to nothing leaves none.
TEST_F(TarExtract, DotAsLastMemberSetsTheTimeOfTheTargetDirectory)
{
    ASSERT_EQ(extract(Archive().dir("a/", 0755, 1111).dir("b/", 0755, 2222).dir("./").end()), OK);
    struct stat st;
    ASSERT_EQ(lstat(target_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 1111);
    ASSERT_EQ(lstat(at("a").c_str(), &st), 0);
    EXPECT_NE(st.st_mtim.tv_sec, 1111);
}

TEST_F(TarExtract, FirstMemberThatNamesTheTargetIsNoDirectoryRecord)
{
    ASSERT_EQ(extract(Archive().dir("./", 0700, 99).dir("./a/", 0755, 1111).end()), OK);
    EXPECT_EQ(mtime("a"), 1111);
    EXPECT_EQ(test_tree::mode_of(target_), 0755U);
}

TEST_F(TarExtract, TargetMayEndWithASlash)
{
    target_ += "/";
    ASSERT_EQ(extract(Archive().dir("./").dir("a/", 0755, 1111).file("a/f", "x").end()), OK);
    EXPECT_EQ(content("a/f"), "x");
    EXPECT_EQ(mtime("a"), 1111);
}

TEST_F(TarExtract, TargetMayBeALinkToADirectory)
{
    const std::string real = at("real");
    std::filesystem::create_directory(real);
    std::filesystem::create_directory_symlink("real", at("link"));
    test_tree::write_file(archive_, Archive().dir("a/", 0755, 1111).file("a/f", "x").end().bytes());
    EXPECT_EQ(zncTarExtract(archive_.c_str(), at("link").c_str(), 200, FALSE), OK);
    EXPECT_EQ(content("real/a/f"), "x");
}

TEST_F(TarExtract, VerboseChangesNothing)
{
    test_tree::write_file(archive_, Archive().file("f", "x").end().bytes());
    testing::internal::CaptureStdout();
    EXPECT_EQ(zncTarExtract(archive_.c_str(), target_.c_str(), 200, TRUE), OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(content("f"), "x");
}

// ------------------------------------------------------------------ the archive's frame

TEST_F(TarExtract, ArchiveOfOnlyZeroBlocksExtractsNothing)
{
    for (const unsigned blocks : {1U, 2U, 20U, 500U})
        EXPECT_EQ(extract(Archive().end(blocks)), OK) << blocks;
    EXPECT_TRUE(std::filesystem::is_empty(target_));
}

TEST_F(TarExtract, ArchiveWithoutAZeroBlockFailsThoughEveryMemberIsMade)
{
    EXPECT_EQ(extract(Archive().dir("d/", 0755, 1111).file("d/f", "content")), ERROR);
    EXPECT_EQ(content("d/f"), "content");
    EXPECT_EQ(mtime("d"), 1111);
}

TEST_F(TarExtract, OneZeroBlockEndsTheArchiveAndTheRestIsNotLookedAt)
{
    EXPECT_EQ(extract(Archive().file("f", "x").end(1)), OK);
    EXPECT_EQ(extract(Archive().file("f", "x").end(1).file("g", "x")), OK);
    EXPECT_EQ(extract(Archive().file("f", "x").end(1).raw(std::string(5120, 'j'))), OK);
    EXPECT_FALSE(exists("g"));
}

TEST_F(TarExtract, RestIsDrainedWhateverItHolds)
{
    std::vector<std::size_t> sizes;
    tarFaults.readSizes = &sizes;
    // The end mark is in the first buffer; three more buffers follow, the last one incomplete.
    EXPECT_EQ(
        extract(Archive().file("f", "x").end(1).raw(std::string(512 * 9 + 100, 'j')).bytes(), 4),
        OK);
    tarFaults.readSizes = nullptr;
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 4U * 512), 4);
}

TEST_F(TarExtract, ShortFirstReadLowersTheBlockingFactor)
{
    const Archive archive = Archive().file("f", "x").end(1); // 3 blocks
    std::vector<std::size_t> sizes;
    tarFaults.readSizes = &sizes;
    EXPECT_EQ(extract(archive.bytes(), 200), OK);
    tarFaults.readSizes = nullptr;
    // The gzip reader first reads the trailer of the file, then its header.
    ASSERT_GE(sizes.size(), 4U);
    EXPECT_EQ(sizes[2], 200U * 512);
    EXPECT_EQ(sizes[3], 3U * 512);
}

TEST_F(TarExtract, DefaultBlockingFactorIs20)
{
    std::vector<std::size_t> sizes;
    tarFaults.readSizes = &sizes;
    EXPECT_EQ(extract(Archive().end(60).bytes(), 0), OK);
    tarFaults.readSizes = nullptr;
    EXPECT_EQ(sizes.at(2), 20U * 512);
}

TEST_F(TarExtract, EmptyArchiveFails)
{
    EXPECT_EQ(extract(std::string()), ERROR);
}

TEST_F(TarExtract, ArchiveThatIsNotWholeBlocksFails)
{
    const std::string bytes = Archive().file("f", bytes_of(1000)).end().bytes();
    EXPECT_EQ(extract(bytes + "x"), ERROR); // fails in the first read
    EXPECT_FALSE(exists("f"));
    EXPECT_EQ(extract(bytes.substr(0, 1024 + 100), 2), ERROR); // fails in a later read
    EXPECT_TRUE(exists("f"));
}

TEST_F(TarExtract, ReadErrorFails)
{
    // The first two reads are those of the gzip reader.
    const std::string bytes = Archive().file("f", bytes_of(5000)).end().bytes();
    for (int nth = 3; nth <= 5; ++nth) {
        tarFaults.failRead = nth;
        EXPECT_EQ(extract(bytes, 2), ERROR) << nth;
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(tarFaults.failRead, 0);
    }
}

TEST_F(TarExtract, DataThatEndsInsideAMemberFails)
{
    const std::string bytes = Archive().file("f", bytes_of(5000)).bytes();
    EXPECT_EQ(extract(bytes.substr(0, 512 * 4)), ERROR);
    EXPECT_EQ(content("f"), bytes_of(5000).substr(0, 512 * 3));
}

TEST_F(TarExtract, GzipDataDamagedInsideIsAnError)
{
    const std::string plain = Archive().file("f", bytes_of(300000)).file("g", "x").end().bytes();
    std::string packed = tarforge::gzip(plain);
    for (std::size_t at = 5000; at < 5100; ++at)
        packed[at] = '\xff';
    EXPECT_EQ(extract(packed), ERROR);
    tarforge::Gzip promising; // the length in the trailer exceeds that of the data
    promising.size = static_cast<std::uint32_t>(plain.size() + 512 * 100);
    const std::string unended = Archive().file("f", "x").bytes();
    promising.size = static_cast<std::uint32_t>(unended.size() + 512 * 100);
    EXPECT_EQ(extract(tarforge::gzip(unended, promising)), ERROR);
}

// The last four bytes of the file are used as the length, whatever they contain.
TEST_F(TarExtract, GzipArchiveWithZerosBehindItIsAnEmptyArchive)
{
    tarforge::Gzip padded;
    padded.behind = std::string(512, '\0');
    EXPECT_EQ(extract(tarforge::gzip(Archive().file("f", "x").end().bytes(), padded)), ERROR);
    EXPECT_FALSE(exists("f"));
}

TEST_F(TarExtract, ChecksumMismatchFails)
{
    EXPECT_EQ(extract(Archive().member(Header("f").checksum_off_by(1)).end()), ERROR);
    EXPECT_EQ(extract(Archive().member(Header("f").checksum_off_by(-1)).end()), ERROR);
    EXPECT_FALSE(exists("f"));
}

TEST_F(TarExtract, ErrnoOfASkippedMemberIsNotReportedForALaterFailure)
{
    std::filesystem::create_directory(at("d"));
    errno = 0;
    EXPECT_EQ(extract(Archive().dir("d/").file("d", "x").member(Header("f").checksum_off_by(1))),
              ERROR);
    EXPECT_EQ(errno, 0);
}

TEST_F(TarExtract, OnlyTheUnsignedChecksumIsAccepted)
{
    EXPECT_EQ(extract(Archive().member(Header("f\xfc").checksum_signed()).end()), ERROR);
    EXPECT_EQ(extract(Archive().member(Header("f\xfc")).end()), OK);
    EXPECT_TRUE(exists("f\xfc"));
}

TEST_F(TarExtract, ChecksumOfAllSpacesDoesNotParse)
{
    EXPECT_EQ(extract(Archive().member(Header("f").checksum("        ")).end()), ERROR);
    // Nor is the number read from the following fields: here type and link name would make it
    // correct.
    Header header("f", '0');
    header.target("12345").checksum("        ");
    std::string block = header.block();
    tar_size_t missing = 012345 - mtChecksum(block.data(), 512);
    std::string filler;
    for (; missing > 255; missing -= 255)
        filler.push_back('\xff');
    filler.push_back(static_cast<char>(missing));
    block = header.raw(Field::kUname, filler).block();
    ASSERT_EQ(mtChecksum(block.data(), 512), 012345U);
    EXPECT_EQ(extract(Archive().member(header).end()), ERROR);
    EXPECT_FALSE(exists("f"));
}

TEST_F(TarExtract, ChecksumMayBeWrittenInAnyOfTheUsualForms)
{
    Header header("f");
    std::string block = header.checksum("        ").block();
    const unsigned sum = mtChecksum(block.data(), 512);
    for (const char* format : {"%06o%c ", "%07o%c", " %5o%c", "%08o%c", "%o%c"}) {
        char text[16];
        snprintf(text, sizeof text, format, sum, '\0');
        header.raw(Field::kChksum, std::string_view(text, 8));
        EXPECT_EQ(extract(Archive().member(header).end()), OK) << format;
    }
}

// ------------------------------------------------------------------ names

TEST_F(TarExtract, AbsoluteNameLandsInsideTheTarget)
{
    ASSERT_EQ(extract(Archive().dir("/etc/").file("/etc/passwd", "mine").end()), OK);
    EXPECT_EQ(content("etc/passwd"), "mine");
}

TEST_F(TarExtract, DotDotFailsWithEPERM)
{
    for (const char* name : {"a/../b", "../x", "..", "a/..", "/../x", "..\\x", "a/../"}) {
        EXPECT_EQ(extract(Archive().dir("a/").file(name, "x").end()), ERROR) << name;
        EXPECT_EQ(errno, EPERM) << name;
    }
    EXPECT_EQ(extract(Archive().member(Header("x").prefix("a/..")).end()), ERROR);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(TarExtract, DotComponentsVanish)
{
    ASSERT_EQ(extract(Archive().dir("./a/").file("./a/./b", "x").end()), OK);
    EXPECT_EQ(content("a/b"), "x");
}

TEST_F(TarExtract, BackslashesAreSlashes)
{
    ASSERT_EQ(extract(Archive().dir("a\\").file("a\\b", "x").end()), OK);
    EXPECT_EQ(content("a/b"), "x");
}

TEST_F(TarExtract, DirectoryTypeWithoutTrailingSlashIsIgnored)
{
    ASSERT_EQ(extract(Archive().dir("d").end()), OK);
    EXPECT_FALSE(exists("d"));
}

TEST_F(TarExtract, EmptyMemberNamedWithATrailingSlashIsADirectoryWhateverItsType)
{
    for (const char type : std::string("0125x")) {
        const std::string name = std::string("d") + type;
        ASSERT_EQ(extract(Archive().member(Header(name + "/", type).target("x")).end()), OK);
        EXPECT_TRUE(is_dir(name)) << type;
    }
}

TEST_F(TarExtract, FileWithDataAndATrailingSlashIsAFile)
{
    ASSERT_EQ(extract(Archive().file("f/", "data").end()), OK);
    EXPECT_EQ(content("f"), "data");
}

TEST_F(TarExtract, HardLinkMemberCreatesNothing)
{
    ASSERT_EQ(extract(Archive().file("f", "x").member(Header("l", '1').target("f")).end()), OK);
    EXPECT_FALSE(exists("l"));
    struct stat st;
    ASSERT_EQ(lstat(at("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_nlink, 1U);
}

TEST_F(TarExtract, ExtendedHeadersAreIgnoredAndTheirDataIsReadAsAHeader)
{
    for (const char type : std::string("xgLK")) {
        const Header header = Header("././@LongLink", type).size(30);
        EXPECT_EQ(extract(Archive().member(header, "30 path=somewhere/else/thirty\n").end()), ERROR)
            << type;
        // Data that form a valid header are treated as one.
        const std::string inner = Header(std::string("inner") + std::string(1, type)).block();
        EXPECT_EQ(extract(Archive().member(Header("p", type).size(512), inner).end()), OK);
        EXPECT_TRUE(exists(std::string("inner") + std::string(1, type)));
        EXPECT_FALSE(exists("p"));
    }
}

// Creates a target directory whose path has exactly `length` bytes, in components that a filesystem
// accepts.
static std::string deep_target(const std::string& root, std::size_t length)
{
    std::string path = root;
    while (length - path.size() > 200)
        path += std::string("/") + std::string(99, 'd');
    path += std::string("/") + std::string(length - path.size() - 1, 'e');
    std::filesystem::create_directories(path);
    return path;
}

TEST_F(TarExtract, MemberThatFillsThePathBufferIsSkippedAndItsDataReadAsHeaders)
{
    const std::string deep = deep_target(target_, 1010);
    const auto run = [&](const Archive& archive) {
        test_tree::write_file(archive_, archive.bytes());
        return zncTarExtract(archive_.c_str(), deep.c_str(), 200, FALSE);
    };
    // 1010 + "/" + 12 + NUL fill the buffer.
    EXPECT_EQ(run(Archive().file(std::string(12, 'f'), "x").file(std::string(13, 'g')).end()), OK);
    EXPECT_TRUE(test_tree::exists(deep + "/" + std::string(12, 'f')));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(deep), {}), 1);
    EXPECT_EQ(run(Archive().file(std::string(13, 'g'), "data").end()), ERROR);
}

TEST_F(TarExtract, RecordFileThatDoesNotFitBehindTheFirstDirectoryFails)
{
    const std::string deep = deep_target(target_, 1000);
    test_tree::write_file(archive_, Archive().dir("12345678/").end().bytes());
    EXPECT_EQ(zncTarExtract(archive_.c_str(), deep.c_str(), 200, FALSE), ERROR);
    test_tree::write_file(archive_, Archive().dir("1234567/", 0755, 1111).end().bytes());
    EXPECT_EQ(zncTarExtract(archive_.c_str(), deep.c_str(), 200, FALSE), OK);
    // 16 bytes suffice, but the name then loses its last letter.
    EXPECT_TRUE(std::filesystem::is_empty(deep + "/1234567"));
}

// ------------------------------------------------------------------ what is there already

TEST_F(TarExtract, ExistingDirectoryKeepsItsModeAndTime)
{
    ASSERT_EQ(mkdir(at("d").c_str(), 0700), 0);
    const timespec old[2] = {{1000, 0}, {2000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, at("d").c_str(), old, 0), 0);
    ASSERT_EQ(extract(Archive().dir("d/", 0755, 5555).end()), OK);
    EXPECT_EQ(mode("d"), 0700U);
    EXPECT_EQ(mtime("d"), 2000);
}

TEST_F(TarExtract, ExistingFileIsTruncatedAndRewritten)
{
    test_tree::write_file(at("f"), std::string(10000, 'o'));
    ASSERT_EQ(extract(Archive().file("f", "new", 0600, 1111).end()), OK);
    EXPECT_EQ(content("f"), "new");
    EXPECT_EQ(mode("f"), 0600U);
    EXPECT_EQ(mtime("f"), 1111);
}

TEST_F(TarExtract, ExistingLinkIsReplacedByAFileAndNotWrittenThrough)
{
    std::filesystem::create_symlink("../outside/secret", at("f"));
    ASSERT_EQ(extract(Archive().file("f", "new").end()), OK);
    EXPECT_EQ(content("f"), "new");
}

TEST_F(TarExtract, ExistingPathFailsASymlinkMember)
{
    test_tree::write_file(at("file"), "x");
    std::filesystem::create_directory(at("dir"));
    std::filesystem::create_symlink("nowhere", at("link"));
    for (const char* name : {"file", "dir", "link"}) {
        EXPECT_EQ(extract(Archive().symlink(name, "x").end()), ERROR) << name;
        EXPECT_EQ(errno, EEXIST) << name;
    }
}

TEST_F(TarExtract, RegularFileThatCannotBeMadeHasItsDataPassedOver)
{
    ASSERT_EQ(mkdir(at("d").c_str(), 0755), 0);
    const timespec old[2] = {{1000, 0}, {2000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, at("d").c_str(), old, 0), 0);
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    ASSERT_EQ(extract(Archive()
                          .file("d", bytes_of(5000), 0644, 5555)
                          .file("fifo", bytes_of(300000))
                          .file("next", "next")
                          .end()),
              OK);
    EXPECT_TRUE(is_dir("d"));
    EXPECT_EQ(mtime("d"), 2000);
    EXPECT_EQ(content("next"), "next");
}

TEST_F(TarExtract, ExistingDeviceIsNotWrittenTo)
{
    constexpr unsigned kMemory = 1;
    constexpr unsigned kFull = 7;
    if (mknod(at("full").c_str(), S_IFCHR | 0666, makedev(kMemory, kFull)) != 0)
        GTEST_SKIP() << "no device nodes can be made here";
    EXPECT_EQ(extract(Archive().file("full", "x").file("next", "next").end()), OK);
    EXPECT_EQ(content("next"), "next");
}

TEST_F(TarExtract, DirectoryThatCannotBeMadeIsSkipped)
{
    test_tree::write_file(at("f"), "x");
    std::filesystem::create_symlink("../outside", at("l"));
    ASSERT_EQ(extract(Archive().dir("f/").dir("l/").file("next", "next").end()), OK);
    EXPECT_EQ(content("f"), "x");
    EXPECT_EQ(content("next"), "next");
    // Whether the directory was skipped shows when a file is created in it.
    EXPECT_EQ(extract(Archive().dir("f/").file("f/x", "x").end()), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
}

// ------------------------------------------------------------------ failures

TEST_F(TarExtract, NullArgumentsAreEINVAL)
{
    errno = 0;
    EXPECT_EQ(zncTarExtract(nullptr, target_.c_str(), 200, FALSE), ERROR);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(zncTarExtract(archive_.c_str(), nullptr, 200, FALSE), ERROR);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(TarExtract, TargetMustBeAnExistingDirectory)
{
    test_tree::write_file(archive_, Archive().end().bytes());
    EXPECT_EQ(zncTarExtract(archive_.c_str(), at("missing").c_str(), 200, FALSE), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(zncTarExtract(archive_.c_str(), archive_.c_str(), 200, FALSE), ERROR);
}

TEST_F(TarExtract, ArchiveThatCannotBeOpenedFails)
{
    EXPECT_EQ(zncTarExtract(at("missing").c_str(), target_.c_str(), 200, FALSE), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(TarExtract, DescriptorZeroMeansNoFileButServesTheGzipReader)
{
    const std::string bytes = Archive().file("f", "x").end().bytes();
    const auto run_without_stdin = [&](const std::string& archive) {
        test_tree::write_file(archive_, archive);
        const znc::UniqueFd kept(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
        close(STDIN_FILENO);
        const STATUS status = zncTarExtract(archive_.c_str(), target_.c_str(), 200, FALSE);
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "left open";
        dup2(kept.get(), STDIN_FILENO);
        return status;
    };
    EXPECT_EQ(run_without_stdin(bytes), ERROR);
    EXPECT_FALSE(exists("f"));
    EXPECT_EQ(run_without_stdin(tarforge::gzip(bytes)), OK);
    EXPECT_EQ(content("f"), "x");
}

TEST_F(TarExtract, TargetOf1024BytesIsTooLong)
{
    test_tree::write_file(archive_, Archive().end().bytes());
    EXPECT_EQ(zncTarExtract(archive_.c_str(), deep_target(target_, 1023).c_str(), 200, FALSE), OK);
    EXPECT_EQ(zncTarExtract(archive_.c_str(), deep_target(target_, 1024).c_str(), 200, FALSE),
              ERROR);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(TarExtract, MemberOf4GiBIsEFBIG)
{
    for (const std::uint64_t size : {0x100000000ULL, 077777777777ULL}) {
        EXPECT_EQ(extract(Archive().member(Header("f").size(size)).end()), ERROR);
        EXPECT_EQ(errno, EFBIG);
    }
    EXPECT_EQ(extract(Archive().member(Header("f").raw(Field::kSize, "-1")).end()), ERROR);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_FALSE(exists("f"));
}

TEST_F(TarExtract, MemberOfOneByteLessThan4GiBIsReadAsFarAsItGoes)
{
    EXPECT_EQ(extract(Archive().member(Header("f").size(0xffffffff), bytes_of(2048)).end(1)),
              ERROR);
    EXPECT_EQ(content("f"), bytes_of(2048) + std::string(512, '\0'));
}

TEST_F(TarExtract, SizeThatIsNoOctalNumberIsZero)
{
    EXPECT_EQ(extract(Archive().member(Header("f").base256(Field::kSize, 1LL << 40)).end()), OK);
    EXPECT_EQ(extract(Archive().member(Header("f").base256(Field::kSize, -1)).end()), OK);
    EXPECT_EQ(extract(Archive().member(Header("f").raw(Field::kSize, "        ")).end()), OK);
    EXPECT_EQ(content("f"), "");
}

TEST_F(TarExtract, MissingParentFails)
{
    EXPECT_EQ(extract(Archive().file("x/f", "x").end()), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(extract(Archive().dir("x/y/").end()), ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(exists("x"));
}

TEST_F(TarExtract, MemberThroughASymlinkFailsWithENOTDIR)
{
    for (const char* where : {"../outside", "real", "nowhere", "/", "."}) {
        unlink(at("a").c_str());
        EXPECT_EQ(extract(Archive().dir("real/").symlink("a", where).file("a/f", "x").end()),
                  ERROR);
        EXPECT_EQ(errno, ENOTDIR) << where;
    }
    EXPECT_FALSE(exists("real/f"));
}

TEST_F(TarExtract, MemberThroughAFileFailsWithENOTDIR)
{
    EXPECT_EQ(extract(Archive().file("a", "x").file("a/f", "x").end()), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(extract(Archive().file("a", "x").file("a/b/f", "x").end()), ERROR);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(TarExtract, SymlinkThatCannotBeMadeFails)
{
    EXPECT_EQ(extract(Archive().symlink("l", "").end()), ERROR);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(TarExtract, WriteThatFailsOrFallsShortFails)
{
    tarFaults.failWrite = 1;
    EXPECT_EQ(extract(Archive().file("f", bytes_of(5000)).end()), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    tarFaults.failWrite = 1;
    tarFaults.partialWrite = 100;
    errno = 0;
    EXPECT_EQ(extract(Archive().file("g", bytes_of(5000)).end()), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(content("g").size(), 100U);
}

TEST_F(TarExtract, FullDiskSkipsMembersButFailsForALayer)
{
    // A filesystem with room for only one file besides its root directory: the first member gets
    // it.
    ASSERT_EQ(mount("little", target_.c_str(), "tmpfs", 0, "nr_inodes=2,mode=0700"), 0);
    const Archive archive = Archive().file("f", "x").file("g", "y").dir("d/").end();
    EXPECT_EQ(extract(archive), OK);
    EXPECT_TRUE(exists("f"));
    EXPECT_FALSE(exists("g"));
    EXPECT_FALSE(exists("d"));
    EXPECT_EQ(extract_whole(archive_, target_), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(umount(target_.c_str()), 0);
}

TEST_F(TarExtract, ReadOnlyDiskSkipsMembersButFailsForALayer)
{
    ASSERT_EQ(mount("little", target_.c_str(), "tmpfs", MS_RDONLY, "mode=0700"), 0);
    EXPECT_EQ(extract(Archive().file("f", "x").end()), OK);
    EXPECT_FALSE(exists("f"));
    EXPECT_EQ(extract_whole(archive_, target_), ERROR);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(umount(target_.c_str()), 0);
}

TEST_F(TarExtract, WholeLayerWithoutDescriptorsFailsAndNothingIsSkippedForThat)
{
    struct rlimit usual;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const Archive archive = Archive().dir("d/").file("d/f", "x").file("g", "y").end();
    test_tree::write_file(archive_, archive.bytes());
    rlim_t limit = 3;
    for (STATUS status = ERROR; status != OK; limit++) {
        ASSERT_LT(limit, usual.rlim_cur);
        const struct rlimit few = {limit, usual.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        status = extract_whole(archive_, target_);
        const int error = errno;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
        if (status == OK)
            break;
        EXPECT_EQ(error, EMFILE) << limit;
        std::filesystem::remove_all(target_);
        std::filesystem::create_directory(target_);
    }
    EXPECT_GT(limit, 6U);
    EXPECT_EQ(content("d/f"), "x");
    EXPECT_EQ(content("g"), "y");
}

TEST_F(TarExtract, RecordFileThatCannotBeMadeFailsAndLeavesNone)
{
    tarFaults.failClock = true;
    EXPECT_EQ(extract(Archive().dir("d/").end()), ERROR);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(std::filesystem::is_empty(at("d")));
}

TEST_F(TarExtract, RecordFileThatCannotBeOpenedFailsWithItsNumber)
{
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    ASSERT_EQ(chown(target_.c_str(), kNobody, kNobody), 0);
    test_tree::write_file(archive_, Archive().dir("d/", 0500).end().bytes());
    ASSERT_EQ(seteuid(kNobody), 0); // root could write to any directory
    errno = 0;
    const STATUS status = zncTarExtract(archive_.c_str(), target_.c_str(), 200, FALSE);
    const int error = errno;
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(status, ERROR);
    EXPECT_EQ(error, EACCES);
    EXPECT_TRUE(std::filesystem::is_empty(at("d")));
}

TEST_F(TarExtract, DirectoryPathThatFitsNoRecordKeepsItsTimeAndOpensNoRecordFile)
{
    MT_TAR_SOFT ctrl{};
    ctrl.targetDir = znc::malloc_array<char>(znc::kPathMax);
    ctrl.targetDirLen = target_.size();
    ctrl.targetFd.reset(open(target_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string path = "/" + std::string(100, 'a') + "/" + std::string(155, 'b'); // 256
    std::filesystem::create_directories(target_ + path);
    strcpy(ctrl.targetDir.get(), (target_ + path).c_str());
    EXPECT_EQ(znc::tar_record_dir(ctrl, ctrl.targetDir.get() + ctrl.targetDirLen, 1111), OK);
    EXPECT_EQ(ctrl.dir_cnt, 0);
    EXPECT_FALSE(ctrl.dir_fd);
    EXPECT_EQ(tarProcDirs(&ctrl), OK);
}

TEST_F(TarExtract, FirstRecordThatCannotBeWrittenFailsAndLeavesTheFile)
{
    mayLeaveRecordFile_ = true;
    tarFaults.failWrite = 1;
    EXPECT_EQ(extract(Archive().dir("d/").end()), ERROR);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(record_files(target_).size(), 1U);
}

TEST_F(TarExtract, LaterRecordWrittenInPartFailsAndTheOthersAreApplied)
{
    tarFaults.failWrite = 3;
    tarFaults.partialWrite = 100;
    EXPECT_EQ(
        extract(Archive().dir("a/", 0755, 1111).dir("b/", 0755, 2222).dir("c/", 0755, 3333).end()),
        ERROR);
    EXPECT_EQ(mtime("a"), 1111);
    EXPECT_EQ(mtime("b"), 2222);
    EXPECT_TRUE(is_dir("c"));
}

TEST_F(TarExtract, ClosingADirectoryThatFailsIsAnError)
{
    tarFaults.failCloseOfDirectory = 1;
    EXPECT_EQ(extract(Archive().dir("d/", 0755, 1111).end()), ERROR);
    EXPECT_EQ(errno, EIO);
    struct stat st; // its time has not been recorded yet
    ASSERT_EQ(lstat(at("d").c_str(), &st), 0);
    EXPECT_NE(st.st_mtim.tv_sec, 1111);
}

TEST_F(TarExtract, DirectoryThatCannotGetItsModeIsSkippedAndDoesNotStay)
{
    tarFaults.failChmodOfDirectory = true;
    EXPECT_EQ(extract(Archive().dir("d/", 0700, 1111).file("next", "next").end()), OK);
    EXPECT_FALSE(exists("d"));
    EXPECT_EQ(content("next"), "next");
}

TEST_F(TarExtract, MembersBeforeTheErrorStayAndDirectoryTimesAreRestored)
{
    EXPECT_EQ(extract(Archive()
                          .dir("a/", 0755, 1111)
                          .dir("a/b/", 0755, 2222)
                          .file("a/b/f", "kept")
                          .file("../x", "")
                          .file("a/never", "")
                          .end()),
              ERROR);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(content("a/b/f"), "kept");
    EXPECT_FALSE(exists("a/never"));
    EXPECT_EQ(mtime("a"), 1111);
    EXPECT_EQ(mtime("a/b"), 2222);
}

TEST_F(TarExtract, TimesThatCannotBeSetAreNotReported)
{
    tarFaults.failUtimensat = true;
    EXPECT_EQ(extract(Archive().dir("d/", 0755, 1111).dir("e/").file("d/f", "x").end()), OK);
    EXPECT_EQ(content("d/f"), "x");
}

TEST_F(TarExtract, FailedAllocationsOfTheExtractorFail)
{
    // For a plain archive the first allocations are the source record, the gzip record and its two
    // buffers; if they fail, the archive is read as uncompressed. Then follow the blocks, the path,
    // the cache and the name of the record file.
    const std::string bytes = Archive().dir("d/").file("d/f", "x").end().bytes();
    const auto clear = [&] { std::filesystem::remove_all(at("d")); };
    for (unsigned nth = 1; nth <= 8; ++nth) {
        test_tree::write_file(archive_, bytes);
        const std::ptrdiff_t before = open_descriptors();
        alloc_fault::arm(nth);
        const STATUS status = zncTarExtract(archive_.c_str(), target_.c_str(), 200, FALSE);
        const unsigned asked = alloc_fault::disarm();
        EXPECT_EQ(status, nth <= 4 ? OK : ERROR) << nth;
        EXPECT_GE(asked, nth);
        EXPECT_EQ(exists("d"), nth <= 4 || nth == 8) << nth;
        EXPECT_EQ(open_descriptors(), before);
        clear();
    }
    alloc_fault::arm(0);
    EXPECT_EQ(zncTarExtract(archive_.c_str(), target_.c_str(), 200, FALSE), OK);
    EXPECT_EQ(alloc_fault::disarm(), 8U);
}

TEST_F(TarExtract, FailedAllocationsOfTheGzipReaderFail)
{
    test_tree::write_file(archive_, tarforge::gzip(Archive().file("f", "x").end().bytes()));
    for (unsigned nth = 1; nth <= 7; ++nth) {
        alloc_fault::arm(nth);
        EXPECT_EQ(zncTarExtract(archive_.c_str(), target_.c_str(), 200, FALSE), ERROR) << nth;
        EXPECT_EQ(alloc_fault::disarm() >= nth, true);
        EXPECT_FALSE(exists("f"));
    }
}

TEST_F(TarExtract, BlockingFactorBeyondMemoryFails)
{
    for (const std::size_t bfactor : {SIZE_MAX, SIZE_MAX / 512 + 2, std::size_t{INT_MAX} + 1})
        EXPECT_EQ(extract(Archive().file("f", "x").end().bytes(), bfactor), ERROR);
    EXPECT_FALSE(exists("f"));
}

// ------------------------------------------------------------------ the good-path cache

namespace {

class TarAccess : public TarTest {
  protected:
    TarAccess()
    {
        ctrl_.goodPathCache = znc::malloc_array<char>(kTarCacheSize);
        ctrl_.targetFd.reset(open(target_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        std::filesystem::create_directories(at("a/b/c"));
        std::filesystem::create_directories(at("ab"));
    }
    // Returns the member's name as mtAccess resolved it, or "" on failure.
    std::string access(std::string path)
    {
        char* const last = mtAccess(&ctrl_, path.data());
        EXPECT_EQ(path.find('\0'), std::string::npos) << "a \"/\" was not restored";
        return last != nullptr ? last : "";
    }
    [[nodiscard]] std::string cache() const { return ctrl_.goodPathCache.get(); }
    [[nodiscard]] bool parent_is(const std::string& name) const
    {
        struct stat parent;
        struct stat wanted;
        return fstat(znc::tar_parent(ctrl_), &parent) == 0 &&
               stat(at(name).c_str(), &wanted) == 0 && parent.st_ino == wanted.st_ino;
    }
    MT_TAR_SOFT ctrl_{};
};

} // namespace

TEST_F(TarAccess, MemberDirectlyInTheTargetNeedsNoParentCheck)
{
    EXPECT_EQ(access("/f"), "/f");
    EXPECT_EQ(cache(), "");
    EXPECT_TRUE(parent_is("."));
}

TEST_F(TarAccess, CheckedParentsAreCachedAndOpen)
{
    EXPECT_EQ(access("/a/b/f"), "/f");
    EXPECT_EQ(cache(), "/a/b");
    EXPECT_TRUE(parent_is("a/b"));
    EXPECT_EQ(access("/a/b/c/f"), "/f");
    EXPECT_EQ(cache(), "/a/b/c");
    EXPECT_TRUE(parent_is("a/b/c"));
}

TEST_F(TarAccess, ShorterChainKeepsTheCache)
{
    access("/a/b/c/f");
    EXPECT_EQ(access("/a/f"), "/f");
    EXPECT_EQ(cache(), "/a/b/c");
    EXPECT_TRUE(parent_is("a"));
}

TEST_F(TarAccess, DisagreementReplacesTheRestOfTheCache)
{
    std::filesystem::create_directories(at("a/x"));
    access("/a/b/c/f");
    EXPECT_EQ(access("/a/x/f"), "/f");
    EXPECT_EQ(cache(), "/a/x");
    EXPECT_TRUE(parent_is("a/x"));
}

TEST_F(TarAccess, NameThatBeginsLikeACachedOneIsAnother)
{
    access("/ab/f");
    EXPECT_EQ(access("/a/f"), "/f");
    EXPECT_TRUE(parent_is("a"));
    access("/a/f");
    EXPECT_EQ(access("/ab/f"), "/f");
    EXPECT_TRUE(parent_is("ab"));
}

TEST_F(TarAccess, CheckedParentsCostNoCall)
{
    access("/a/b/f");
    std::filesystem::remove_all(at("a"));
    EXPECT_EQ(access("/a/b/f"), "/f");
    EXPECT_EQ(access("/a/b/g"), "/g");
}

TEST_F(TarAccess, FailureRestoresThePathAndKeepsErrno)
{
    test_tree::write_file(at("a/file"), "x");
    std::filesystem::create_symlink("b", at("a/link"));
    EXPECT_EQ(access("/a/missing/f"), "");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(access("/a/file/f"), "");
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(access("/a/link/f"), "");
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(access("/a/b/f"), "/f");
    EXPECT_TRUE(parent_is("a/b"));
}

TEST_F(TarAccess, DotDotIsNoParent)
{
    EXPECT_EQ(access("/../outside/f"), "");
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(access("/a/../b/f"), "");
}

TEST_F(TarAccess, DoubledSlashNamesTheSameDirectory)
{
    EXPECT_EQ(access("/a//b/f"), "/f");
    EXPECT_TRUE(parent_is("a/b"));
    EXPECT_EQ(access("//f"), "/f");
    EXPECT_TRUE(parent_is("."));
    EXPECT_EQ(access("/a//"), "/");
    EXPECT_TRUE(parent_is("a"));
}
