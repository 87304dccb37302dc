// Tests of ustar headers, and of members that cannot be represented in one.
#include "import/merge/ustar.hpp"

#include <gtest/gtest.h>

#include <cstring>

using namespace zncimport;

namespace {

UstarMember file(const std::string& path)
{
    UstarMember member;
    member.path = path;
    return member;
}

UstarMember link_to(const std::string& target)
{
    UstarMember member = file("link");
    member.type = '2';
    member.target = target;
    return member;
}

std::string field(const Block& block, std::size_t at, std::size_t size)
{
    return {reinterpret_cast<const char*>(block.data()) + at, size};
}

std::string text_field(const Block& block, std::size_t at, std::size_t size)
{
    return std::string(field(block, at, size).c_str());
}

// Returns a path of two components of these lengths.
std::string parts(std::size_t prefix, std::size_t name)
{
    return std::string(prefix, 'p') + "/" + std::string(name, 'n');
}

} // namespace

TEST(UstarHeader, HasEveryFieldWhereOthersReadIt)
{
    UstarMember member = file("dir/name");
    member.mode = 04755;
    member.uid = 1000;
    member.gid = 07777777;
    member.size = 0xffffffff;
    member.mtime = 1700000000;
    const Block block = ustar_header(member);
    EXPECT_EQ(text_field(block, 0, 100), "dir/name");
    EXPECT_EQ(field(block, 100, 8), std::string("0004755\0", 8));
    EXPECT_EQ(field(block, 108, 8), std::string("0001750\0", 8));
    EXPECT_EQ(field(block, 116, 8), std::string("7777777\0", 8));
    EXPECT_EQ(field(block, 124, 12), std::string("37777777777\0", 12));
    EXPECT_EQ(field(block, 136, 12), std::string("14524770400\0", 12));
    EXPECT_EQ(field(block, 156, 1), "0");
    EXPECT_EQ(field(block, 257, 8), std::string("ustar\00000", 8));
    EXPECT_EQ(text_field(block, 345, 155), "");
    EXPECT_EQ(field(block, 500, 12), std::string(12, '\0'));
}

TEST(UstarHeader, HasTheSumOfItsBytes)
{
    Block block = ustar_header(file("a"));
    const std::string stored = field(block, 148, 8);
    std::memset(block.data() + 148, ' ', 8);
    unsigned sum = 0;
    for (const std::byte byte : block)
        sum += static_cast<unsigned char>(byte);
    EXPECT_EQ(std::stoul(stored, nullptr, 8), sum);
    EXPECT_EQ(stored.substr(6), std::string("\0 ", 2));
}

TEST(UstarHeader, DividesLongNamesAtASlash)
{
    for (const auto& [prefix, name] : {std::pair{155, 100}, {155, 1}, {100, 100}, {1, 100}}) {
        const auto first = static_cast<std::size_t>(prefix);
        const auto last = static_cast<std::size_t>(name);
        const Block block = ustar_header(file(parts(first, last)));
        EXPECT_EQ(text_field(block, 345, 155).size() + text_field(block, 0, 100).size(),
                  first + last + (first + 1 + last > 100 ? 0 : 1));
        EXPECT_EQ(ustar_problem(file(parts(first, last))), "");
    }
    EXPECT_EQ(text_field(ustar_header(file(std::string(100, 'a'))), 345, 155), "");
}

TEST(UstarHeader, KeepsTheSlashOfADirectoryInItsName)
{
    UstarMember directory = file(parts(155, 99) + "/");
    directory.type = '5';
    EXPECT_EQ(ustar_problem(directory), "");
    EXPECT_EQ(text_field(ustar_header(directory), 0, 100), std::string(99, 'n') + "/");
    directory.path = parts(155, 100) + "/";
    EXPECT_NE(ustar_problem(directory), "");
    directory.path = std::string(100, 'a') + "/"; // no part of the name may be left over
    EXPECT_NE(ustar_problem(directory), "");
}

TEST(UstarHeader, HasTargetsAndDeviceNumbers)
{
    EXPECT_EQ(text_field(ustar_header(link_to(std::string(99, 't'))), 157, 100),
              std::string(99, 't'));
    UstarMember device = file("null");
    device.type = '3';
    device.major = 1;
    device.minor = 3;
    EXPECT_EQ(ustar_problem(device), "");
    EXPECT_EQ(field(ustar_header(device), 329, 16), std::string("0000001\0"
                                                                "0000003\0",
                                                                16));
}

TEST(UstarProblem, ReportsEveryNameThatDoesNotFit)
{
    for (const std::string& path :
         {std::string(), std::string("/"), std::string("/a"), std::string("a//b"),
          std::string("a/../b"), std::string(".."), std::string("./a"), std::string("a\\b"),
          std::string("a\0b", 3), std::string("a/"), std::string(101, 'a'), parts(156, 100),
          parts(10, 101), parts(156, 1) + std::string(99, 'n')})
        EXPECT_NE(ustar_problem(file(path)), "") << path;
    for (const char* path : {"a", ".a", "..a", "a/...", "\xc3\xa4/\xff", "a b\n"})
        EXPECT_EQ(ustar_problem(file(path)), "") << path;
    UstarMember directory = file("a");
    directory.type = '5';
    EXPECT_NE(ustar_problem(directory), "");
}

TEST(UstarProblem, ReportsInvalidTargets)
{
    EXPECT_EQ(ustar_problem(link_to(std::string(99, 't'))), "");
    EXPECT_EQ(ustar_problem(link_to("..\\a")), "");
    EXPECT_NE(ustar_problem(link_to(std::string(100, 't'))), "");
    EXPECT_NE(ustar_problem(link_to("")), "");
    EXPECT_NE(ustar_problem(link_to(std::string("a\0b", 3))), "");
    UstarMember member = file("a");
    member.target = "b";
    EXPECT_NE(ustar_problem(member), "");
}

TEST(UstarProblem, ReportsNumbersThatDoNotFit)
{
    const auto with = [](auto member_pointer, auto value) {
        UstarMember member = file("a");
        member.*member_pointer = value;
        return ustar_problem(member);
    };
    constexpr std::uint64_t kSeven = 07777777;
    constexpr std::uint64_t kEleven = 077777777777;
    constexpr std::uint64_t kMostBytes = 0xffffffff;
    EXPECT_EQ(with(&UstarMember::uid, kSeven) + with(&UstarMember::gid, kSeven) +
                  with(&UstarMember::mtime, kEleven) + with(&UstarMember::size, kMostBytes) +
                  with(&UstarMember::mode, 07777U) + with(&UstarMember::major, 07777777U),
              "");
    EXPECT_NE(with(&UstarMember::uid, kSeven + 1), "");
    EXPECT_NE(with(&UstarMember::gid, kSeven + 1), "");
    EXPECT_NE(with(&UstarMember::mtime, kEleven + 1), "");
    EXPECT_NE(with(&UstarMember::mtime, UINT64_MAX), "");
    EXPECT_NE(with(&UstarMember::size, kMostBytes + 1), "");
    EXPECT_NE(with(&UstarMember::mode, 010000U), "");
    EXPECT_NE(with(&UstarMember::major, 010000000U), "");
    EXPECT_NE(with(&UstarMember::minor, 010000000U), "");
}

TEST(UstarProblem, ReportsInvalidTypesAndUnexpectedData)
{
    for (const char type : {'1', '7', 'x', 'L', '?', '\0'}) {
        UstarMember member = file("a");
        member.type = type;
        EXPECT_NE(ustar_problem(member), "") << type;
    }
    UstarMember link = link_to("a");
    link.size = 1;
    EXPECT_NE(ustar_problem(link), "");
}
