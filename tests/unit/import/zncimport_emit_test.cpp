// Tests of the archive of a tree, read back by the extractor and by tar.
#include "import/merge/ustar.hpp"
#include "import/output/emit.hpp"

#include "layout_builder.hpp"
#include "zncontainer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <sys/stat.h>

using namespace zncimport;

namespace {

std::shared_ptr<Node> node(Kind kind, std::size_t layer = 0)
{
    auto made = std::make_shared<Node>();
    made->kind = kind;
    made->layer = layer;
    made->mode = kind == Kind::kDirectory ? 0755 : 0644;
    return made;
}

std::shared_ptr<Node> link(const std::string& target)
{
    auto made = node(Kind::kSymlink);
    made->target = target;
    return made;
}

std::string archive_of(const Tree& tree, const Spool& spool, LayerRange layers = {})
{
    std::string bytes;
    emit(
        tree, spool,
        [&](std::span<const std::byte> part) {
            bytes.append(reinterpret_cast<const char*>(part.data()), part.size());
        },
        layers);
    return bytes;
}

// Returns "type name" of every member, in order, and checks the two zero blocks.
std::vector<std::string> members(const std::string& archive)
{
    std::vector<std::string> result;
    std::size_t at = 0;
    while (at + kBlock <= archive.size() && archive[at] != '\0') {
        const std::string prefix = archive.substr(at + 345, 155).c_str();
        const std::string name = archive.substr(at, 100).c_str();
        result.push_back(archive.substr(at + 156, 1) + " " + (prefix.empty() ? "" : prefix + "/") +
                         name);
        const std::size_t size = std::stoul(archive.substr(at + 124, 11), nullptr, 8);
        at += kBlock + (size + kBlock - 1) / kBlock * kBlock;
    }
    EXPECT_EQ(archive.substr(std::min(at, archive.size())), std::string(2 * kBlock, '\0'));
    return result;
}

using Names = std::vector<std::string>;

namespace fs = std::filesystem;

// Describes everything below a directory: names with types, modes, times and contents.
Names listing(const fs::path& dir)
{
    Names all;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        struct stat st = {};
        EXPECT_EQ(::lstat(entry.path().c_str(), &st), 0);
        const bool file = S_ISREG(st.st_mode);
        const bool link = S_ISLNK(st.st_mode);
        all.push_back(fs::relative(entry.path(), dir).string() + " " +
                      (link ? "-> " + fs::read_symlink(entry.path()).string()
                            : std::to_string(st.st_mode) + " " + std::to_string(st.st_mtime)) +
                      (file ? " " + layout::read_file(entry.path()) : ""));
    }
    std::sort(all.begin(), all.end());
    return all;
}

// A tree with names and targets of the maximum length.
Tree large_tree(Spool& spool)
{
    Tree tree;
    Node* at = &tree.root();
    for (const std::size_t length : {99U, 55U, 99U}) {
        const auto directory = node(Kind::kDirectory);
        directory->mtime = 1000000000 + static_cast<std::int64_t>(length);
        at->children[std::string(length, 'd')] = directory;
        at = directory.get();
    }
    Node& second = *tree.root().children.begin()->second->children.begin()->second;
    second.children["l"] = link(std::string(99, 't'));
    second.children[std::string(100, 'n')] = node(Kind::kFile);
    for (const std::size_t size : {0U, 1U, 512U, 100000U}) {
        const auto file = node(Kind::kFile);
        const std::string data(size, 'x');
        file->data = {spool.size(), size};
        file->mtime = 1234567890;
        file->mode = 0640;
        spool.append(std::as_bytes(std::span(data)));
        tree.root().children["f" + std::to_string(size)] = file;
    }
    return tree;
}

} // namespace

TEST(Emit, OfAnEmptyTreeIsOnlyTheEnd)
{
    EXPECT_EQ(archive_of(Tree(), Spool("/tmp")), std::string(2 * kBlock, '\0'));
}

TEST(Emit, WritesParentsFirstAndNamesInByteOrder)
{
    Tree tree;
    Children& root = tree.root().children;
    root["b"] = node(Kind::kDirectory);
    root["b"]->children["x"] = node(Kind::kFile);
    root["b"]->children["X"] = link("x");
    root["b.txt"] = node(Kind::kFile);
    root["\xff"] = node(Kind::kFile);
    root["A"] = node(Kind::kFifo);
    EXPECT_EQ(members(archive_of(tree, Spool("/tmp"))),
              (Names{"6 A", "5 b/", "2 b/X", "0 b/x", "0 b.txt", "0 \xff"}));
}

TEST(Emit, CopiesTheDataInWholeBlocks)
{
    Spool spool("/tmp");
    std::string data(700001, '\0');
    std::iota(data.begin(), data.end(), '\0');
    spool.append(std::as_bytes(std::span(std::string_view("before"))));
    spool.append(std::as_bytes(std::span(data)));
    spool.append(std::as_bytes(std::span(std::string_view("behind"))));
    Tree tree;
    tree.root().children["f"] = node(Kind::kFile);
    tree.root().children["f"]->data = {6, data.size()};
    tree.root().children["g"] = node(Kind::kFile);
    tree.root().children["g"]->data = {0, 512};
    const std::string archive = archive_of(tree, spool);
    EXPECT_EQ(members(archive), (Names{"0 f", "0 g"}));
    EXPECT_EQ(archive.substr(kBlock, data.size()), data);
    const std::size_t padded = (data.size() + kBlock - 1) / kBlock * kBlock;
    EXPECT_EQ(archive.substr(kBlock + data.size(), padded - data.size()),
              std::string(padded - data.size(), '\0'));
    EXPECT_EQ(archive.substr(2 * kBlock + padded, 512), "before" + data.substr(0, 506));
    EXPECT_EQ(archive, archive_of(tree, spool));
}

TEST(Emit, FailsWhenTheSpoolIsShorterThanTheFile)
{
    Tree tree;
    tree.root().children["f"] = node(Kind::kFile);
    tree.root().children["f"]->data = {0, 100};
    EXPECT_THROW(archive_of(tree, Spool("/tmp")), Failure);
}

TEST(Emit, FailsForMembersThatDoNotFitAHeader)
{
    for (const auto& [name, bad] :
         {std::pair{"a\\b", node(Kind::kFile)}, {"l", link("")}, {"o", node(Kind::kOther)}}) {
        Tree tree;
        tree.root().children[name] = bad;
        EXPECT_THROW(archive_of(tree, Spool("/tmp")), Failure) << name;
    }
    Tree tree;
    tree.root().children["f"] = node(Kind::kFile);
    tree.root().children["f"]->uid = -1;
    EXPECT_THROW(archive_of(tree, Spool("/tmp")), Failure);
}

TEST(Emit, IsExtractedCompletelyByTheExtractorAndByOthers)
{
    Spool spool("/tmp");
    const layout::TempDir dir;
    layout::write_file(dir / "archive", archive_of(large_tree(spool), spool));
    for (const char* into : {"ours", "tar", "bsdtar"})
        fs::create_directory(dir / into);
    ASSERT_EQ(zncTarExtract((dir / "archive").c_str(), (dir / "ours").c_str(), 200, FALSE), OK);
    for (const std::string program : {"tar", "bsdtar"}) {
        const std::string command =
            program + " -xpf " + (dir / "archive") + " -C " + (dir / program);
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        EXPECT_EQ(listing(dir / program), listing(dir / "ours")) << program;
    }
    EXPECT_EQ(listing(dir / "ours").size(), 9U);
}

TEST(Emit, OfSomeLayersContainsOnlyTheirParentDirectories)
{
    Tree tree;
    Children& root = tree.root().children;
    root["a"] = node(Kind::kDirectory, 0);
    root["a"]->children["b"] = node(Kind::kDirectory, 0);
    root["a"]->children["b"]->children["new"] = node(Kind::kFile, 2);
    root["a"]->children["c"] = node(Kind::kDirectory, 1);
    root["a"]->children["old"] = node(Kind::kFile, 0);
    root["d"] = node(Kind::kDirectory, 0);
    root["d"]->children["mid"] = node(Kind::kFile, 1);
    root["e"] = node(Kind::kFile, 1);
    const Spool spool("/tmp");
    EXPECT_EQ(members(archive_of(tree, spool, {0, 1})),
              (Names{"5 a/", "5 a/b/", "0 a/old", "5 d/"}));
    EXPECT_EQ(members(archive_of(tree, spool, {1, 2})),
              (Names{"5 a/", "5 a/c/", "5 d/", "0 d/mid", "0 e"}));
    EXPECT_EQ(members(archive_of(tree, spool, {2, SIZE_MAX})),
              (Names{"5 a/", "5 a/b/", "0 a/b/new"}));
    EXPECT_EQ(members(archive_of(tree, spool)).size(), 8U);
}
