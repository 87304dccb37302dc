// Tests of the archives that export and cp write: members that do not fit into a ustar header.
#include "cli/containers/tar_writer.hpp"
#include "format/ustar.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "base/owned.hpp"

using namespace zncctl;

namespace {

// The archive with this member and no data.
std::string archive_of(const TarMember& member)
{
    const znc::UniqueFd file(::memfd_create("archive", MFD_CLOEXEC));
    TarWriter writer(file.get());
    writer.add(member);
    writer.finish();
    std::string text(static_cast<std::size_t>(::lseek(file.get(), 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(file.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
}

znc::UstarHeader header_at(const std::string& archive, std::size_t offset)
{
    znc::UstarHeader header{};
    std::memcpy(&header, archive.data() + offset, sizeof header);
    return header;
}

// The records of the extended header that the archive begins with; "" if there is none.
std::string records_of(const TarMember& member)
{
    const std::string archive = archive_of(member);
    const znc::UstarHeader header = header_at(archive, 0);
    unsigned long size = 0;
    if (header.linkflag != 'x' || !znc::tar_octal(header.size, size))
        return "";
    return archive.substr(znc::kTarBlock, size);
}

} // namespace

TEST(TarWriter, WritesWhatFitsWithoutAnExtendedHeader)
{
    TarMember member;
    member.path = std::string(100, 'n');
    member.target = std::string(100, 't');
    member.type = TarType::kSymbolicLink;
    member.uid = 2097151;
    member.mtime = 077777777777;
    const znc::UstarHeader header = header_at(archive_of(member), 0);
    EXPECT_EQ(header.linkflag, '2');
    EXPECT_EQ(std::string(header.name, sizeof header.name), member.path);
    EXPECT_EQ(std::string(header.uid, 7), "7777777");
    EXPECT_EQ(std::string(header.mtime, 11), "77777777777");
}

TEST(TarWriter, PutsNumbersThatAreTooLargeIntoTheExtendedHeader)
{
    TarMember member;
    member.path = "file";
    member.uid = 2097152;
    member.gid = 4294967294;
    member.size = std::uint64_t{9} << 30U;
    member.mtime = -1;
    EXPECT_EQ(records_of(member), "19 size=9663676416\n"
                                  "15 uid=2097152\n"
                                  "18 gid=4294967294\n"
                                  "12 mtime=-1\n");
    const std::string archive = archive_of(member);
    EXPECT_EQ(std::string(header_at(archive, 2 * znc::kTarBlock).size, 11), "00000000000");
}

TEST(TarWriter, CountsTheDigitsOfALengthInTheLength)
{
    TarMember member;
    // A record of 99 bytes would get a third digit, which makes it 101: there is none of 100.
    for (const std::size_t length : {101U, 980U, 988U, 989U, 990U, 991U, 9985U}) {
        member.path = std::string(length, 'n');
        const std::string records = records_of(member);
        EXPECT_EQ(records.substr(0, records.find(' ')), std::to_string(records.size())) << length;
        EXPECT_NE(records.find(" path=" + member.path + "\n"), std::string::npos) << length;
    }
}

TEST(TarWriter, MarksLongNamesThatAreNotUtf8)
{
    TarMember member;
    member.path = std::string(101, '\xff');
    EXPECT_TRUE(records_of(member).starts_with("21 hdrcharset=BINARY\n"));
    member.path = std::string(101, 'n');
    EXPECT_FALSE(records_of(member).starts_with("21 hdrcharset=BINARY\n"));
}
