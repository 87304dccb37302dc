// zncimport_tree_test.cpp - tests of paths in the merged tree: splitting them, following links,
// never leaving the root.
#include "zncimport_layers.hpp"

#include <gtest/gtest.h>

using namespace zncimport;
using layers::failure_of;
using Names = std::vector<std::string>;

namespace {

constexpr std::uint64_t kDepth = 128;

std::shared_ptr<Node> link_node(const std::string& target)
{
    auto node = std::make_shared<Node>();
    node->kind = Kind::kSymlink;
    node->target = target;
    return node;
}

std::shared_ptr<Node> file_node()
{
    auto node = std::make_shared<Node>();
    node->kind = Kind::kFile;
    return node;
}

// usr/lib/x, lib -> usr/lib, usr/up -> ..
class TreeTest : public testing::Test {
  protected:
    TreeTest()
    {
        tree.parent_of({"usr", "lib", "x"}, 5, 0).children["x"] = file_node();
        tree.root().children["lib"] = link_node("usr/lib");
        tree.root().children["usr"]->children["up"] = link_node("..");
    }
    Tree tree;
};

} // namespace

TEST(TreeSplit, DropsEmptyComponentsAndDots)
{
    EXPECT_EQ(Tree::split("a/b", kDepth), (Names{"a", "b"}));
    EXPECT_EQ(Tree::split("//a/./b/", kDepth), (Names{"a", "b"}));
    EXPECT_EQ(Tree::split("./", kDepth), Names{});
    EXPECT_EQ(Tree::split("", kDepth), Names{});
    EXPECT_EQ(Tree::split("/...", kDepth), Names{"..."});
}

TEST(TreeSplit, TakesInnerDotsAwayWithTheNameBefore)
{
    EXPECT_EQ(Tree::split("a/../b", kDepth), Names{"b"});
    EXPECT_EQ(Tree::split("a/b/../..", kDepth), Names{});
}

TEST(TreeSplit, RefusesToLeaveTheRoot)
{
    for (const char* path : {"..", "../a", "/..", "/../a", "a/../../b", "a/.././.."})
        EXPECT_NE(failure_of([&] { Tree::split(path, kDepth); }).find("leads out of the root"),
                  std::string::npos)
            << path;
}

TEST(TreeSplit, NamesTheFlagForPathsThatAreTooDeep)
{
    EXPECT_EQ(Tree::split("a/b/c", 3).size(), 3U);
    EXPECT_NE(failure_of([] { Tree::split("a/b/c/d", 3); }).find("--max-depth"), std::string::npos);
    EXPECT_EQ(Tree::split("a/b/c/d/..", 3).size(), 3U);
}

TEST_F(TreeTest, FindFollowsLinksOnTheWayButNotAtTheEnd)
{
    Node* const file = tree.find("usr/lib/x", kDepth);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(tree.find("lib/x", kDepth), file);
    EXPECT_EQ(tree.find("usr/up/lib/x", kDepth), file);
    EXPECT_EQ(tree.find("lib", kDepth)->kind, Kind::kSymlink);
    EXPECT_EQ(tree.find("/", kDepth), &tree.root());
    EXPECT_EQ(tree.find("usr/lib/y", kDepth), nullptr);
    EXPECT_EQ(tree.find("usr/lib/x/y", kDepth), nullptr);
}

TEST_F(TreeTest, LinksNeverLeaveTheRoot)
{
    tree.root().children["out"] = link_node("../../../usr");
    tree.root().children["top"] = link_node("/../..");
    EXPECT_EQ(tree.find("out/lib/x", kDepth), tree.find("usr/lib/x", kDepth));
    EXPECT_EQ(tree.find("top/usr/lib/x", kDepth), tree.find("usr/lib/x", kDepth));
}

TEST_F(TreeTest, ParentsAreMadeWithTheTimeOfTheMember)
{
    Node& parent = tree.parent_of({"new", "deep", "x"}, 77, 3);
    EXPECT_EQ(&parent, tree.find("new/deep", kDepth));
    EXPECT_TRUE(parent.implied);
    EXPECT_EQ(parent.mode, 0755U);
    EXPECT_EQ(parent.mtime, 77);
    EXPECT_EQ(parent.layer, 3U);
    EXPECT_EQ(tree.find("usr", kDepth)->mtime, 5) << "one that is there stays as it is";
}

TEST_F(TreeTest, ParentsAreFoundAndMadeThroughLinks)
{
    EXPECT_EQ(&tree.parent_of({"lib", "y"}, 0, 0), tree.find("usr/lib", kDepth));
    tree.root().children["later"] = link_node("/not/there");
    const Node* const made = &tree.parent_of({"later", "y"}, 0, 0);
    EXPECT_EQ(made, tree.find("not/there", kDepth));
    EXPECT_EQ(tree.find("later", kDepth)->kind, Kind::kSymlink);
}

TEST_F(TreeTest, AParentThatIsNoDirectoryIsReplaced)
{
    std::vector<std::size_t> replaced;
    tree.find("lib/x", kDepth)->layer = 4;
    tree.parent_of({"usr", "lib", "x", "y"}, Implied{1, 6, &replaced});
    EXPECT_EQ(tree.find("usr/lib/x", kDepth)->kind, Kind::kDirectory);
    EXPECT_EQ(replaced, std::vector<std::size_t>{4});
}

TEST_F(TreeTest, ExistingParentsAreNotMade)
{
    EXPECT_EQ(tree.existing_parent_of({"a", "b"}), nullptr);
    EXPECT_EQ(tree.existing_parent_of({"usr", "lib", "x", "y"}), nullptr);
    EXPECT_EQ(tree.find("a", kDepth), nullptr);
    EXPECT_EQ(tree.existing_parent_of({"a"}), &tree.root());
}

TEST_F(TreeTest, LoopsOfLinksEnd)
{
    tree.root().children["a"] = link_node("b");
    tree.root().children["b"] = link_node("/a");
    tree.root().children["self"] = link_node("self/self");
    for (const char* path : {"a/x", "b/x", "self/x"})
        EXPECT_NE(
            failure_of([&] { (void)tree.find(path, kDepth); }).find("too many symbolic links"),
            std::string::npos)
            << path;
}

TEST_F(TreeTest, AChainOf255LinksIsFollowedAndOneMoreIsNot)
{
    for (int i = 0; i < 255; ++i)
        tree.root().children["l" + std::to_string(i)] =
            link_node(i == 0 ? "usr/lib" : "l" + std::to_string(i - 1));
    tree.root().children["l255"] = link_node("l254");
    EXPECT_NE(tree.find("l254/x", kDepth), nullptr);
    EXPECT_NE(failure_of([&] { (void)tree.find("l255/x", kDepth); }), "");
}

TEST_F(TreeTest, LinkWithAVeryLongTargetIsAnError)
{
    std::string target;
    for (int i = 0; i < 600; ++i)
        target += "usr/../";
    tree.root().children["long"] = link_node(target);
    EXPECT_NE(failure_of([&] { (void)tree.find("long/x", kDepth); }).find("too many"),
              std::string::npos);
}

TEST(TreeLimits, LinksDoNotMakeTheTreeDeeperThanPathsMay)
{
    Limits limits;
    limits.depth = 4;
    Tree tree(limits);
    tree.parent_of({"a", "b", "c", "d"}, 0, 0);
    tree.root().children["l"] = link_node("a/b/c");
    EXPECT_NE(&tree.parent_of({"l", "x"}, 0, 0), nullptr);
    EXPECT_NE(failure_of([&] {
                  tree.parent_of({"l", "x", "y"}, 0, 0);
              }).find("--max-depth"),
              std::string::npos);
}

TEST(TreeLimits, DirectoriesThatAreMadeCountAsEntries)
{
    Limits limits;
    limits.entries = 3;
    Tree tree(limits);
    tree.parent_of({"a", "b", "c", "d"}, 0, 0);
    EXPECT_NE(failure_of([&] {
                  tree.parent_of({"e", "f"}, 0, 0);
              }).find("--max-entries"),
              std::string::npos);
}
