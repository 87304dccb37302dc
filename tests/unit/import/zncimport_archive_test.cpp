// Tests with archives of all tar programs, and with archives that no program writes.
#include "import/source/archive.hpp"
#include "tarforge.hpp"
#include "zncimport_input.hpp"

#include <algorithm>
#include <clocale>

using namespace zncimport;
using namespace import_input;
using tarforge::Field;
using tarforge::Header;

namespace {

struct Read {
    Member member;
    std::string data;
    std::uint64_t offset = 0;
};

std::vector<Read> read_tar(const std::string& bytes, const Limits& limits = {})
{
    std::setlocale(LC_CTYPE, "C.UTF-8"); // as zncctl-import does
    TextReader source(bytes);
    Budget budget(limits);
    ArchiveReader archive(source, "archive", budget);
    std::vector<Read> all;
    Member member;
    while (archive.next(member)) {
        Read read = {member, "", archive.data_offset()};
        if (member.kind == Kind::kFile)
            archive.data([&](std::span<const std::byte> part) { read.data += text_of(part); });
        EXPECT_EQ(read.data.size(), member.size) << member.path;
        all.push_back(std::move(read));
    }
    return all;
}

std::string problem_of(const std::string& bytes, const Limits& limits = {})
{
    return failure_of([&] { static_cast<void>(read_tar(bytes, limits)); });
}

const Read& at(const std::vector<Read>& all, const std::string& path)
{
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const Read& read) { return read.member.path == path; });
    if (found == all.end())
        throw std::runtime_error("no " + path);
    return *found;
}

// Returns the archive that a program makes from a directory filled by the commands.
std::string made(const std::string& fill, const std::string& program)
{
    const test_tree::TempDir dir;
    shell(dir, "mkdir in; cd in; " + fill + "; " + program);
    return test_tree::read_file(dir / "out.tar");
}

const std::string kLong = std::string(120, 'n');
const std::string kTarget = std::string(150, 't') + "/end";
const std::string kFill = "mkdir d; printf text >d/" + kLong + "; ln -s " + kTarget +
                          " d/link; ln d/" + kLong + " d/second; printf u >d/\xc3\xa4; mkfifo p";

void check_usual(const std::vector<Read>& all, const std::string& top)
{
    // The order of the two names depends on the program.
    const Read& first = at(all, top + "d/" + kLong);
    const Read& second = at(all, top + "d/second");
    const bool plain = first.member.kind == Kind::kFile;
    EXPECT_EQ((plain ? first : second).data, "text");
    EXPECT_EQ((plain ? second : first).member.kind, Kind::kHardlink);
    EXPECT_EQ((plain ? second : first).member.target, (plain ? first : second).member.path);
    EXPECT_EQ(at(all, top + "d/link").member.target, kTarget);
    EXPECT_EQ(at(all, top + "d/link").member.kind, Kind::kSymlink);
    EXPECT_EQ(at(all, top + "d/\xc3\xa4").data, "u");
    EXPECT_EQ(at(all, top + "p").member.kind, Kind::kFifo);
}

} // namespace

TEST(Archive, OfEveryProgramAndFormatIsRead)
{
    for (const char* format : {"gnu", "oldgnu", "posix"})
        check_usual(
            read_tar(made(kFill, std::string("tar --format=") + format + " -cf ../out.tar .")),
            "./");
    check_usual(read_tar(made(kFill, "bsdtar --format=pax -cf ../out.tar *")), "");
    for (const char* format : {"PAX", "GNU"})
        check_usual(read_tar(made(kFill, std::string("python3 -c \"import tarfile\n"
                                                     "t = tarfile.open('../out.tar', 'w', "
                                                     "format=tarfile.") +
                                             format + "_FORMAT)\nt.add('.', '.')\nt.close()\"")),
                    "./");
}

TEST(Archive, OfTheOldestFormatIsRead)
{
    const auto all = read_tar(
        made("mkdir d; printf text >d/f; ln -s f d/l", "tar --format=v7 -cf ../out.tar d"));
    EXPECT_EQ(at(all, "d/f").data, "text");
    EXPECT_EQ(at(all, "d/").member.kind, Kind::kDirectory);
    EXPECT_EQ(at(all, "d/l").member.target, "f");
}

TEST(Archive, SparseFilesAreFilledUp)
{
    const std::string fill =
        "truncate -s 3M f; printf middle | dd of=f bs=1 seek=1000000 conv=notrunc status=none";
    for (const char* format : {"gnu", "posix --sparse-version=0.0", "posix --sparse-version=0.1",
                               "posix --sparse-version=1.0"}) {
        const auto all =
            read_tar(made(fill, std::string("tar -S --format=") + format + " -cf ../out.tar f"));
        ASSERT_EQ(all.size(), 1U);
        const Read& file = all[0];
        EXPECT_EQ(file.member.path, "f") << format;
        EXPECT_TRUE(file.member.sparse) << format;
        EXPECT_EQ(file.data.substr(1000000, 6), "middle") << format;
        EXPECT_EQ(file.data.find_first_not_of('\0'), 1000000U) << format;
    }
}

TEST(Archive, AHugeHoleCountsAsBytes)
{
    Limits limits;
    limits.bytes = 1U << 20U;
    const std::string tar = made("truncate -s 8G f", "tar -S --format=gnu -cf ../out.tar f");
    EXPECT_TRUE(has(problem_of(tar, limits), "--max-bytes"));
}

TEST(Archive, NamesArePassedOnAsBytes)
{
    tarforge::Archive archive;
    for (const char* name : {"/absolute", "../up", "./a//b", "latin-\xe4", "back\\slash"})
        archive.file(name, "x");
    const auto all = read_tar(archive.end().bytes());
    ASSERT_EQ(all.size(), 5U);
    EXPECT_EQ(all[0].member.path, "/absolute");
    EXPECT_EQ(all[1].member.path, "../up");
    EXPECT_EQ(all[3].member.path, "latin-\xe4");
    EXPECT_EQ(all[4].member.path, "back\\slash");
}

TEST(Archive, PaxNamesThatAreNoUtf8ArePassedOnToo)
{
    const std::string tar = made("true", "python3 -c \"import tarfile\n"
                                         "t = tarfile.open('../out.tar', 'w')\n"
                                         "t.addfile(tarfile.TarInfo(b'n\\xe4'.decode('utf8', "
                                         "'surrogateescape') * 80))\nt.close()\"");
    const auto all = read_tar(tar);
    ASSERT_EQ(all.size(), 1U);
    EXPECT_TRUE(all[0].member.path.starts_with("n\xe4n\xe4"));
}

TEST(Archive, FieldsAreTakenOver)
{
    tarforge::Archive archive;
    archive.member(Header("f").mode(06755).mtime(77).octal(Field::kUid, 5).octal(Field::kGid, 6));
    archive.member(Header("old").base256(Field::kMtime, -9));
    archive.member(Header("null", '3').octal(Field::kMajor, 1).octal(Field::kMinor, 3));
    archive.member(Header("disk", '4').octal(Field::kMajor, 8));
    archive.member(Header("hard", '1').target("./f"));
    const auto all = read_tar(archive.end().bytes());
    EXPECT_EQ(at(all, "f").member.mode, 06755U);
    EXPECT_EQ(at(all, "f").member.mtime, 77);
    EXPECT_EQ(at(all, "f").member.uid, 5);
    EXPECT_EQ(at(all, "f").member.gid, 6);
    EXPECT_EQ(at(all, "old").member.mtime, -9);
    EXPECT_EQ(at(all, "null").member.kind, Kind::kCharDevice);
    EXPECT_EQ(at(all, "null").member.major, 1U);
    EXPECT_EQ(at(all, "null").member.minor, 3U);
    EXPECT_EQ(at(all, "disk").member.kind, Kind::kBlockDevice);
    EXPECT_EQ(at(all, "hard").member.kind, Kind::kHardlink);
    EXPECT_EQ(at(all, "hard").member.target, "./f");
}

TEST(Archive, ExtendedAttributesAndAccessListsAreNamed)
{
    const std::string tar = made(
        "true", "python3 -c \"import tarfile\n"
                "t = tarfile.open('../out.tar', 'w')\n"
                "i = tarfile.TarInfo('f')\n"
                "i.pax_headers = {'SCHILY.xattr.user.b': 'v', "
                "'SCHILY.xattr.security.capability': 'x', "
                "'SCHILY.acl.access': 'user::rw-,user:7:rwx,group::r--,mask::rwx,other::r--'}\n"
                "t.addfile(i)\nt.close()\"");
    const std::vector<std::string> expected = {"security.capability", "system.posix_acl_access",
                                               "user.b"};
    EXPECT_EQ(read_tar(tar).at(0).member.xattrs, expected);
}

TEST(Archive, DataIsAtTheReportedOffset)
{
    for (const char* format : {"gnu", "posix", "ustar"}) {
        const std::string name = std::string(format) == "ustar" ? "f" : kLong;
        const std::string tar =
            made("printf content >" + name,
                 std::string("tar --format=") + format + " -cf ../out.tar " + name);
        EXPECT_EQ(tar.substr(read_tar(tar).at(0).offset, 7), "content") << format;
    }
}

TEST(Archive, WithoutMembersIsValid)
{
    EXPECT_TRUE(read_tar("").empty());
    EXPECT_TRUE(read_tar(std::string(1024, '\0')).empty());
}

TEST(Archive, WrongAndDamagedHeadersAreErrors)
{
    const auto one = [](const Header& header) {
        return problem_of(tarforge::Archive().file("first", "x").member(header).end().bytes());
    };
    EXPECT_EQ(one(Header("good")), "");
    EXPECT_NE(one(Header("more than there is").size(1U << 20U)), "");
    EXPECT_NE(one(Header("endless").base256(Field::kSize, INT64_MAX)), "");
    EXPECT_NE(one(Header("negative").base256(Field::kSize, -512)), "");
    EXPECT_NE(one(Header("checksum").checksum_off_by(1)), "");
    EXPECT_NE(problem_of("this is no archive at all" + std::string(2000, 'x')), "");
    EXPECT_NE(problem_of(tarforge::Archive()
                             .member(Header("x", 'x').size(11), "garbage txt")
                             .file("f")
                             .end()
                             .bytes()),
              "");
}

TEST(Archive, TruncatedAnywhereInAMemberIsAnError)
{
    const std::string tar = tarforge::Archive().file("f", std::string(2000, 'x')).bytes();
    for (const std::size_t size : {1U, 511U, 512U, 513U, 1000U, 2511U})
        EXPECT_NE(problem_of(tar.substr(0, size)), "") << size;
}

TEST(Archive, MembersAreCounted)
{
    Limits limits;
    limits.entries = 2;
    tarforge::Archive archive;
    archive.file("a").file("b");
    EXPECT_EQ(problem_of(archive.bytes(), limits), "");
    EXPECT_TRUE(has(problem_of(archive.file("c").bytes(), limits), "--max-entries"));
}

TEST(Archive, ExceptionsOfTheSourceArePassedOn)
{
    const std::string tar = tarforge::Archive().file("f", std::string(200000, 'x')).bytes();
    TextReader source(tar);
    Limits limits;
    limits.bytes = 100000;
    Budget budget(limits);
    const ReaderPtr bytes = plain(source, "layer", budget);
    Budget other((Limits()));
    ArchiveReader archive(*bytes, "layer", other);
    Member member;
    EXPECT_TRUE(has(failure_of([&] {
                        while (archive.next(member)) {
                        }
                    }),
                    "--max-bytes"));
}

// Names are kept in memory, data are not.
TEST(Archive, TooManyBytesOfNamesAreAnError)
{
    const std::string tar =
        made("true", "python3 -c 'import tarfile\n"
                     "t = tarfile.open(\"../out.tar\", \"w\", format=tarfile.PAX_FORMAT)\n"
                     "for i in range(40):\n"
                     " t.addfile(tarfile.TarInfo(str(i) + \"/\" + \"n\" * 500000))'");
    EXPECT_EQ(problem_of(tar), "");
    Limits few;
    few.entries = 100;
    EXPECT_TRUE(has(problem_of(tar, few), "see --max-entries"));
}
