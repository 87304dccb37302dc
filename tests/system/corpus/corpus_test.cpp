// Tests with hostile archives from the tables in tests/data/corpus, each extracted directly and as
// a layer in every kind of storage. Besides the archive, a table contains:
//
//     expect ok|none|ERRNO       the result (default: ok); none: an error without a number
//     holds ENTRY...             the complete resulting tree, in the notation of the members
//     mode PATH MODE, mtime PATH SECONDS
//     layered ok|none|ERRNO      the result where the layers are stored one by one
#include "corpus_world.hpp"
#include "tarforge.hpp"
#include "tarforge_table.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <optional>
#include <stdexcept>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using corpus::Outcome;
using corpus::Storage;
using corpus::World;
using tarforge::Case;
using tarforge::Word;

namespace {

namespace fs = std::filesystem;

struct Expected {
    std::string result = "ok";
    std::optional<std::string> layered;
    std::set<std::string> tree;
    std::map<std::string, mode_t> modes;
    std::map<std::string, time_t> times;
};

std::string entry_text(const Word& word)
{
    static const std::map<Word::Join, std::string> kSigns = {
        {Word::Join::kNone, ""}, {Word::Join::kEquals, "="}, {Word::Join::kArrow, "->"}};
    return word.text + kSigns.at(word.join) + word.value;
}

Expected expected_of(const Case& one)
{
    Expected expected;
    for (const auto& [keyword, words] : one.notes) {
        if (keyword == "expect")
            expected.result = words.at(0).text;
        else if (keyword == "layered")
            expected.layered = words.at(0).text;
        else if (keyword == "mode")
            expected.modes[words.at(0).text] =
                static_cast<mode_t>(std::stoul(words.at(1).text, nullptr, 8));
        else if (keyword == "mtime")
            expected.times[words.at(0).text] = std::stoll(words.at(1).text);
        else if (keyword == "holds")
            for (const Word& word : words)
                expected.tree.insert(entry_text(word));
        else
            throw std::runtime_error(one.where + ": unknown statement " + keyword);
    }
    return expected;
}

std::string result_text(const Outcome& outcome)
{
    static const std::map<int, std::string> kNames = {{0, "none"},        {EPERM, "EPERM"},
                                                      {ENOENT, "ENOENT"}, {ENOTDIR, "ENOTDIR"},
                                                      {EEXIST, "EEXIST"}, {EFBIG, "EFBIG"}};
    if (outcome.status == OK)
        return "ok";
    const auto found = kNames.find(outcome.error);
    return found != kNames.end() ? found->second : std::to_string(outcome.error);
}

const std::vector<Case>& cases()
{
    static const std::vector<Case> kCases =
        tarforge::read_case_directory(std::string(ZNC_TEST_DATA) + "/corpus");
    return kCases;
}

void expect_tree(const Expected& expected, const std::string& root)
{
    EXPECT_EQ(corpus::tree_of(root), expected.tree);
    for (const auto& [path, mode] : expected.modes)
        EXPECT_EQ(test_tree::mode_of(root + "/" + path), mode) << path;
    for (const auto& [path, time] : expected.times) {
        struct stat st;
        ASSERT_EQ(lstat((root + "/" + path).c_str(), &st), 0) << path;
        EXPECT_EQ(st.st_mtim.tv_sec, time) << path;
    }
}

using Corpus = testing::TestWithParam<std::tuple<std::size_t, Storage>>;

std::string test_name(const testing::TestParamInfo<Corpus::ParamType>& info)
{
    return cases().at(std::get<0>(info.param)).name + "_" +
           corpus::name_of(std::get<1>(info.param));
}

} // namespace

TEST_P(Corpus, StaysInsideAndEndsAsDescribed)
{
    const auto [index, storage] = GetParam();
    const Case& one = cases().at(index);
    SCOPED_TRACE(one.where);
    const Expected expected = expected_of(one);
    const bool stored = storage == Storage::kLayered;
    const bool apart = stored && one.layers.size() > 1;
    ASSERT_TRUE(one.layers.size() == 1 || expected.layered)
        << "what is it where layers are stored?";

    World world(storage);
    const Outcome outcome = world.extract(one.layers);
    EXPECT_EQ(world.damage(), "");
    EXPECT_EQ(world.leftovers(outcome), "");
    EXPECT_EQ(corpus::forbidden_in(world.root()), "");
    EXPECT_EQ(result_text(outcome), apart ? *expected.layered : expected.result);
    const bool whole = stored || storage == Storage::kFlattened; // or the tree does not exist
    if (whole && !apart && outcome.status != OK) {
        EXPECT_FALSE(test_tree::exists(world.root()));
    } else if (!apart) {
        expect_tree(expected, world.root());
    }
}

INSTANTIATE_TEST_SUITE_P(Archives, Corpus,
                         testing::Combine(testing::Range(std::size_t{0}, cases().size()),
                                          testing::Values(Storage::kDirect, Storage::kRaw,
                                                          Storage::kFlattened, Storage::kLayered)),
                         test_name);

TEST(CorpusTables, EveryCaseHasANameOfItsOwn)
{
    std::set<std::string> names;
    for (const Case& one : cases())
        EXPECT_TRUE(names.insert(one.name).second) << one.where << ' ' << one.name;
    EXPECT_GE(names.size(), 400U);
}

// Programs in a stored layer may be executed only by the owner of the storage base.
TEST(CorpusTables, StoredLayersAreOutOfReachOfOthers)
{
    World world(Storage::kLayered);
    tarforge::Archive archive;
    archive.file("program", "#!/bin/sh\n", 04755);
    ASSERT_EQ(world.extract({archive.end().bytes()}).status, OK);
    const std::string program = world.root() + "/program";
    EXPECT_EQ(test_tree::mode_of(program), 0755U);
    const std::string world_dir = fs::path(world.bundle()).parent_path();
    // the directory of the test must not be what denies access
    ASSERT_EQ(chmod(world_dir.c_str(), 0755), 0);
    const pid_t child = fork();
    if (child == 0)
        _exit(setuid(65534) == 0 && access(program.c_str(), F_OK) != 0 && errno == EACCES ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// Verifies that the comparison detects changes.
TEST(CorpusTables, DamageIsNoticed)
{
    World world(Storage::kDirect);
    const std::string victim = std::string(corpus::kOutside) + "/secret";
    EXPECT_EQ(world.extract({std::string(1024, '\0')}).status, OK);
    EXPECT_EQ(world.damage(), "");
    const auto before = sentinel::look(corpus::kOutside);
    ASSERT_EQ(chmod(victim.c_str(), 0600), 0); // the same mode as before
    EXPECT_NE(sentinel::difference(before, sentinel::look(corpus::kOutside)), "");
    test_tree::write_file(world.root() + "/x", "x");
    ASSERT_EQ(chmod((world.root() + "/x").c_str(), 04755), 0);
    EXPECT_NE(corpus::forbidden_in(world.root()), "");
}
