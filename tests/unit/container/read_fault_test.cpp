// Tests of read errors while whole files are read: JSON documents and blobs to be verified.
#include "cJSON_Additions.h"
#include "layout_builder.hpp"
#include "zncDigest.hpp"
#include "zncOwned.hpp"

#include <cerrno>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace {

// The results of the next reads: this error number, or 0 for end of file.
std::vector<int> faults;

} // namespace

extern "C" ssize_t __real_read(int fd, void* buf, size_t count);
extern "C" ssize_t __wrap_read(int fd, void* buf, size_t count)
{
    if (faults.empty())
        return __real_read(fd, buf, count);
    errno = faults.front();
    faults.erase(faults.begin());
    return errno == 0 ? 0 : -1;
}

namespace {

class ReadFault : public testing::Test {
  protected:
    void TearDown() override
    {
        EXPECT_TRUE(faults.empty()) << "a read that was to fail was not made";
        faults.clear();
    }
    std::string write(const std::string& text) const
    {
        layout::write_file(dir_ / "file", text);
        return dir_ / "file";
    }

    layout::TempDir dir_;
};

TEST_F(ReadFault, DocumentIsReadOnAfterAnInterruption)
{
    const std::string file = write(R"({"a":1})");
    faults = {EINTR, EINTR};
    const znc::CJsonPtr tree(cJSON_load_from_file(file.c_str()));
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(cJSON_integer_value(cJSON_GetObjectItem(tree.get(), "a")), 1);
}

TEST_F(ReadFault, DocumentThatCannotBeReadGivesTheReason)
{
    const std::string file = write("{}");
    faults = {EIO};
    EXPECT_EQ(cJSON_load_from_file(file.c_str()), nullptr);
    EXPECT_EQ(errno, EIO);
}

TEST_F(ReadFault, DocumentThatShrinksIsWhatIsLeftOfIt)
{
    const std::string file = write("{}");
    faults = {0};
    EXPECT_EQ(cJSON_load_from_file(file.c_str()), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(ReadFault, DigestIsWorkedOutAfterAnInterruption)
{
    const std::string file = write("content");
    faults = {EINTR};
    EXPECT_EQ(validateSha256(file.c_str(), layout::sha256_hex("content").c_str()), OK);
    faults = {EINTR};
    EXPECT_EQ(validateSha512(file.c_str(), layout::sha512_hex("content").c_str()), OK);
}

TEST_F(ReadFault, BlobThatCannotBeReadIsNoMatch)
{
    const std::string file = write("content");
    faults = {EIO};
    EXPECT_EQ(validateSha256(file.c_str(), layout::sha256_hex("content").c_str()), ERROR);
    faults = {EIO};
    EXPECT_EQ(validateSha512(file.c_str(), layout::sha512_hex("content").c_str()), ERROR);
}

TEST_F(ReadFault, BlobThatShrinksIsNoMatch)
{
    const std::string file = write("content");
    faults = {0};
    EXPECT_EQ(validateSha256(file.c_str(), layout::sha256_hex("content").c_str()), ERROR);
    faults = {0};
    EXPECT_EQ(validateSha256(file.c_str(), layout::sha256_hex("").c_str()), ERROR);
}

} // namespace
