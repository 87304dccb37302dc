// Tests of listing directories.
#include "base/directory.hpp"

#include "readdir_fault.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

namespace fs = std::filesystem;

class Directory : public testing::Test {
  protected:
    Directory()
    {
        fs::create_directory(dir_);
        for (const char* name : {"a", ".hidden", "..more"})
            std::ofstream(dir_ / name) << "x";
        fs::create_directory(dir_ / "sub");
    }
    ~Directory() override
    {
        readdir_fault_in = 0;
        fs::remove_all(dir_);
    }
    [[nodiscard]] znc::UniqueFd open(int flags) const
    {
        return znc::UniqueFd(::open(dir_.c_str(), flags | O_CLOEXEC));
    }
    static std::set<std::string> rest(const znc::UniqueDir& stream)
    {
        std::set<std::string> names;
        while (const dirent* entry = znc::next_entry(stream.get()))
            names.insert(entry->d_name);
        return names;
    }
    const std::set<std::string> all_ = {"a", ".hidden", "..more", "sub"};
    fs::path dir_ = fs::path("/tmp/directory_test." + std::to_string(::getpid()));
};

TEST_F(Directory, OnlyTheDirectoryItselfAndItsParentAreLeftOut)
{
    const znc::UniqueDir stream = znc::directory_stream(open(O_RDONLY));
    ASSERT_TRUE(stream);
    errno = EBUSY;
    EXPECT_EQ(rest(stream), all_);
    EXPECT_EQ(errno, 0);
}

TEST_F(Directory, EachListingOfADescriptorBeginsAtTheStart)
{
    const znc::UniqueFd fd = open(O_PATH);
    EXPECT_EQ(rest(znc::directory_listing(fd.get())), all_);
    EXPECT_EQ(rest(znc::directory_listing(fd.get())), all_);
}

TEST_F(Directory, AFailureIsNotTheEnd)
{
    const znc::UniqueDir stream = znc::directory_listing(open(O_RDONLY).get());
    readdir_fault_in = 3;
    EXPECT_LT(rest(stream).size(), all_.size());
    EXPECT_EQ(errno, EIO);
}

TEST_F(Directory, WhatIsNoDirectoryHasNoStream)
{
    znc::UniqueFd file(::open((dir_ / "a").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(znc::directory_listing(file.get()));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(znc::directory_stream(std::move(file)));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(znc::directory_stream(znc::UniqueFd()));
}

} // namespace
