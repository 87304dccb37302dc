// Tests of reading archives that cp extracts: what TarWriter does not write, and what is damaged.
#include "cli/containers/tar_reader.hpp"
#include "format/ustar.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

#include "base/owned.hpp"
#include "front/files.hpp"

using namespace zncctl;

namespace {

class Archive {
  public:
    Archive() : file_(::memfd_create("archive", MFD_CLOEXEC)) {}

    // A header with a right checksum, and data in whole blocks.
    Archive& add(const std::string& name, char type, std::string data = "",
                 const std::function<void(znc::UstarHeader&)>& change = nullptr)
    {
        znc::UstarHeader header{};
        std::copy(name.begin(), name.end(), header.name);
        znc::tar_put_octal(header.size, data.size());
        header.linkflag = type;
        if (change)
            change(header);
        std::fill(std::begin(header.chksum), std::end(header.chksum), ' ');
        const std::uint32_t sum = znc::tar_sum(&header, sizeof header);
        znc::tar_put_octal(header.chksum, sum);
        std::string block(znc::kTarBlock, '\0');
        std::memcpy(block.data(), &header, sizeof header);
        data.resize((data.size() + znc::kTarBlock - 1) / znc::kTarBlock * znc::kTarBlock);
        return add_bytes(block + data);
    }
    Archive& add_bytes(const std::string& bytes)
    {
        EXPECT_TRUE(write_all(file_.get(), bytes));
        return *this;
    }
    Archive& end() { return add_bytes(std::string(2 * znc::kTarBlock, '\0')); }

    int open()
    {
        ::lseek(file_.get(), 0, SEEK_SET);
        return file_.get();
    }

    // The paths of all members, each followed by a blank, or the reason of the failure.
    std::string paths()
    {
        TarReader reader(open());
        std::string all;
        try {
            while (const auto member = reader.next())
                all += member->path + " ";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return all;
    }

  private:
    znc::UniqueFd file_;
};

std::string record(const std::string& text)
{
    std::size_t length = text.size() + 3;
    while (std::to_string(length).size() + text.size() + 2 != length)
        length++;
    return std::to_string(length) + " " + text + "\n";
}

constexpr const char* kDamaged = "the archive is damaged";

} // namespace

TEST(TarReader, KnowsTheNamesOfAllFormats)
{
    Archive archive;
    archive.add("././@LongLink", 'L', std::string(200, 'g') + std::string(1, '\0'))
        .add("short", '0');
    archive.add("PaxHeader", 'x', record("path=" + std::string(150, 'p')) + record("mtime=-7.5"))
        .add("short", '0');
    archive.add("old/", '\0').add("name", '0', "", [](znc::UstarHeader& header) {
        std::memcpy(header.indicator, znc::kUstarMagic, sizeof header.indicator);
        std::memcpy(header.prefix, "prefix", 6);
    });
    archive.add("global", 'g', record("comment=x")).add("last", '7').end();
    EXPECT_EQ(archive.paths(),
              std::string(200, 'g') + " " + std::string(150, 'p') + " old/ prefix/name last ");
    TarReader reader(archive.open());
    EXPECT_TRUE(reader.next());
    EXPECT_EQ(reader.next()->mtime, -7);
    EXPECT_EQ(reader.next()->type, TarType::kDirectory);
}

TEST(TarReader, ReadsBinaryNumbers)
{
    Archive archive;
    archive.add("file", '0', "", [](znc::UstarHeader& header) {
        std::memcpy(header.uid, "\x80\0\0\0\xff\xff\xff\xfe", sizeof header.uid);
        std::memset(header.mtime, 0xff, sizeof header.mtime);
    });
    TarReader reader(archive.open());
    const auto member = reader.next();
    ASSERT_TRUE(member);
    EXPECT_EQ(member->uid, 4294967294U);
    EXPECT_EQ(member->mtime, -1);
}

TEST(TarReader, SkipsDataThatAreNotRead)
{
    Archive archive;
    archive.add("first", '0', std::string(1500, 'x')).add("second", '0', "data").end();
    TarReader reader(archive.open());
    EXPECT_TRUE(reader.next());
    EXPECT_EQ(reader.next()->path, "second");
    const znc::UniqueFd file(::memfd_create("data", MFD_CLOEXEC));
    reader.copy_data(file.get());
    std::string text(10, '\0');
    EXPECT_EQ(::pread(file.get(), text.data(), text.size(), 0), 4);
    EXPECT_FALSE(reader.next());
}

TEST(TarReader, RefusesWhatIsNoArchive)
{
    EXPECT_TRUE(Archive().paths().starts_with("it is not a tar archive"));
    EXPECT_TRUE(Archive().add_bytes("short").paths().starts_with("it is not a tar archive"));
    EXPECT_TRUE(
        Archive().add_bytes(std::string(512, 'x')).paths().starts_with("it is not a tar archive"));
    EXPECT_EQ(Archive().end().paths(), "");
    EXPECT_EQ(Archive().add("file", '0').paths(), "file "); // without an end
}

TEST(TarReader, RefusesDamagedArchives)
{
    EXPECT_EQ(Archive().add("file", '0').add_bytes(std::string(512, 'x')).paths(), kDamaged);
    EXPECT_EQ(Archive().add("file", '0').add_bytes("x").paths(), kDamaged);
    const auto with_size = [](const char* digits) {
        return [digits](znc::UstarHeader& header) { std::memcpy(header.size, digits, 12); };
    };
    EXPECT_EQ(Archive().add("file", '0', "x", with_size("77777777777")).paths(),
              "the archive ends in the middle of a member");
    EXPECT_EQ(Archive().add("long", 'L', "x", with_size("77777777777")).paths(), kDamaged);
    EXPECT_NE(
        Archive()
            .add("file", '0', "x", with_size("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"))
            .paths(),
        "file ");
    for (const char* records :
         {"5 a=b\n", "7 a=b\n", "6 a=b", "0 a=b\n", "x a=b\n", "4 ab\n", "6 a=bc\n", "6",
          "18446744073709551615 a=b\n", "99999999999999999999 a=b\n", "-6 a=b\n", " 6 a=b\n"})
        EXPECT_EQ(Archive().add("x", 'x', records).add("file", '0').end().paths(), kDamaged)
            << records;
    EXPECT_EQ(Archive().add("x", 'x', record("size=-1")).add("f", '0').end().paths(),
              std::string("f: ") + kDamaged);
    EXPECT_EQ(Archive().add("x", 'x', record("size=1x")).add("f", '0').end().paths(), kDamaged);
    EXPECT_EQ(
        Archive().add("x", 'x', record("size=9223372036854775807")).add("f", '0').end().paths(),
        std::string("f: ") + kDamaged);
    EXPECT_EQ(Archive()
                  .add("x", 'x', record(std::string("path=a\0b", 8)))
                  .add("f", '0')
                  .end()
                  .paths()
                  .substr(0, 1),
              "a");
}

TEST(TarReader, RefusesDevicesAndSparseFiles)
{
    for (const char type : {'3', '4', 'S', 'V', 'M'})
        EXPECT_EQ(Archive().add("dev", type).end().paths(),
                  "dev: it is a device or a sparse file, which is not extracted");
    EXPECT_EQ(Archive().add("x", 'x', record("GNU.sparse.realsize=9")).add("f", '0').end().paths(),
              "f: it is a device or a sparse file, which is not extracted");
}
