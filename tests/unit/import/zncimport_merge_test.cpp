// zncimport_merge_test.cpp - tests of the rules for merging layers.
#include "zncimport_layers.hpp"

#include "import/merge/ustar.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>

using namespace zncimport;
using namespace layers;
using Names = std::vector<std::string>;

namespace {

class MergeTest : public testing::Test {
  protected:
    Tree merged(const std::vector<Layer>& all)
    {
        for (const Layer& layer : all)
            merge.add_layer(layer);
        return merge.finish();
    }
    static Node& at(Tree& tree, const std::string& path)
    {
        Node* const node = tree.find(path, 128);
        if (node == nullptr)
            throw std::runtime_error("no " + path);
        return *node;
    }
    [[nodiscard]] std::size_t count(Change change) const
    {
        std::size_t found = 0;
        for (const Report::Item& item : report.items())
            found += item.change == change ? 1 : 0;
        return found;
    }
    std::string problem(const std::vector<Layer>& all)
    {
        return failure_of([&] { merged(all); });
    }

    Limits limits;
    Report report;
    Merge merge{limits, report};
};

// An archive in memory, built header by header.
class Archive : public Reader {
  public:
    void add(const std::string& path, char type, const std::string& data,
             const std::string& target = "")
    {
        UstarMember member;
        member.path = path;
        member.type = type;
        member.size = data.size();
        member.target = target;
        const Block header = ustar_header(member);
        bytes_.append(reinterpret_cast<const char*>(header.data()), header.size());
        bytes_ += data + std::string((kBlock - data.size() % kBlock) % kBlock, '\0');
    }
    void end() { bytes_.append(2 * kBlock, '\0'); }

    std::size_t read(std::span<std::byte> out) override
    {
        const std::size_t count = std::min(out.size(), bytes_.size() - at_);
        std::memcpy(out.data(), bytes_.data() + at_, count);
        at_ += count;
        return count;
    }

  private:
    std::string bytes_;
    std::size_t at_ = 0;
};

bool says(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST_F(MergeTest, ALayerIsReadWithItsDataInTheSpool)
{
    Archive bytes;
    bytes.add("d/", '5', "");
    bytes.add("d/f", '0', "hello");
    bytes.add("l", '2', "", "d/f");
    bytes.add("g", '0', std::string(600, 'g'));
    bytes.end();
    Budget budget(limits);
    Spool spool;
    spool.append(std::vector<std::byte>(7));
    ArchiveReader archive(bytes, "layer", budget);
    const Layer layer = Merge::read_layer(archive, spool);
    ASSERT_EQ(layer.size(), 4U);
    EXPECT_EQ(layer[1].data.offset, 7U);
    EXPECT_EQ(layer[1].data.size, 5U);
    EXPECT_EQ(layer[3].data.offset, 12U);
    EXPECT_EQ(layer[3].data.size, 600U);
    EXPECT_EQ(spool.size(), 612U);
    EXPECT_EQ(names(merged({layer})), (Names{"d/", "d/f", "g", "l -> d/f"}));
    std::array<std::byte, 5> text{};
    EXPECT_EQ(spool.read(layer[1].data)->read(text), text.size());
    EXPECT_EQ(std::memcmp(text.data(), "hello", text.size()), 0);
}

TEST_F(MergeTest, NamesAndTargetsLongerThanAnyFilesAreErrors)
{
    for (const char type : {'L', 'K'}) {
        Archive bytes;
        std::string name;
        while (name.size() <= 4095)
            name += "a/";
        bytes.add("././@LongLink", type, name + "x" + std::string(1, '\0'));
        bytes.add("l", '2', "", "x");
        bytes.end();
        Budget budget(limits);
        Spool spool;
        ArchiveReader archive(bytes, "layer", budget);
        EXPECT_TRUE(
            says(failure_of([&] { Merge::read_layer(archive, spool); }), "path that is too long"));
    }
}

TEST_F(MergeTest, WhiteoutRemovesALowerFileAndDoesNotExistItself)
{
    const Tree tree = merged({{file("a"), file("b")}, {file(".wh.a")}});
    EXPECT_EQ(names(tree), Names{"b"});
}

TEST_F(MergeTest, WhiteoutRemovesALowerDirectoryWhole)
{
    EXPECT_EQ(names(merged({{file("d/x/y"), file("e")}, {file(".wh.d")}})), Names{"e"});
}

TEST_F(MergeTest, WhiteoutActsOnLowerLayersOnlyWhereverItStands)
{
    for (const Layer& layer :
         {Layer{file("a", 1), file(".wh.a")}, Layer{file(".wh.a"), file("a", 1)}}) {
        Merge own(limits, report);
        own.add_layer({file("a", 7)});
        own.add_layer(layer);
        Tree tree = own.finish();
        EXPECT_EQ(at(tree, "a").data.offset, 1U);
    }
}

TEST_F(MergeTest, WhiteoutOfADirectoryMadeAnewDropsTheOldChildren)
{
    EXPECT_EQ(names(merged({{file("d/old")}, {directory("d"), file("d/new"), file(".wh.d")}})),
              (Names{"d/", "d/new"}));
}

TEST_F(MergeTest, WhiteoutIsRecognisedByItsNameWhateverItsType)
{
    EXPECT_EQ(
        names(merged({{file("a"), file("b"), file("c"), file("d")},
                      {hardlink(".wh.a", "d"), directory(".wh.b/"), symbolic(".wh.c", "x")}})),
        Names{"d"});
}

TEST_F(MergeTest, WhiteoutGoesThroughLinkedParents)
{
    EXPECT_EQ(names(merged({{file("usr/lib/x"), symbolic("lib", "usr/lib")}, {file("lib/.wh.x")}})),
              (Names{"lib -> usr/lib", "usr/", "usr/lib/"}));
}

TEST_F(MergeTest, WhiteoutsDoNotDependOnEachOther)
{
    const Layer lower = {file("usr/x"), symbolic("l", "usr"), file("d/y")};
    EXPECT_EQ(
        names(merged({lower, {file(".wh.l"), file("l/.wh.x"), file(".wh.d"), file("d/.wh.y")}})),
        Names{"usr/"});
}

TEST_F(MergeTest, WhiteoutWithoutATargetIsIgnored)
{
    EXPECT_EQ(names(merged({{file("a")}, {file(".wh.b"), file("none/.wh.c"), file("a/.wh.x")}})),
              Names{"a"});
}

TEST_F(MergeTest, WhiteoutsOfNoNameAndBelowWhiteoutsAreErrors)
{
    for (const char* path : {".wh.", "d/.wh.", ".wh..", ".wh..."})
        EXPECT_TRUE(says(failure_of([&] { Merge(limits, report).add_layer({file(path)}); }),
                         "whiteout without a name"))
            << path;
    EXPECT_TRUE(says(problem({{file(".wh.d/f")}}), "below a whiteout"));
}

TEST_F(MergeTest, OpaqueMarkHidesLowerChildrenOnlyWhereverItStands)
{
    for (const bool first : {true, false}) {
        Merge own(limits, report);
        own.add_layer({directory("d", 0700), file("d/old"), file("d/sub/old")});
        Layer upper = {file("d/new")};
        upper.insert(first ? upper.begin() : upper.end(), file("d/.wh..wh..opq"));
        own.add_layer(upper);
        Tree tree = own.finish();
        EXPECT_EQ(names(tree), (Names{"d/", "d/new"}));
        EXPECT_EQ(at(tree, "d").mode, 0700U) << "the directory itself is kept";
    }
}

TEST_F(MergeTest, OpaqueMarkOfTheRootAndThroughALink)
{
    EXPECT_EQ(names(merged({{file("a")}, {file(".wh..wh..opq"), file("b")}})), Names{"b"});
    Merge own(limits, report);
    own.add_layer({file("d/x"), symbolic("l", "d")});
    own.add_layer({file("l/.wh..wh..opq")});
    EXPECT_EQ(names(own.finish()), (Names{"d/", "l -> d"}));
}

TEST_F(MergeTest, OtherMetadataFilesAreDroppedAsNotes)
{
    const Layer layer = {directory(".wh..wh.orph/"), file(".wh..wh.orph/x"),
                         file(".wh..wh.aufs"),       file("stargz.index.json"),
                         file(".prefetch.landmark"), file(".no.prefetch.landmark"),
                         file("d/stargz.index.json")};
    EXPECT_EQ(names(merged({layer})), (Names{"d/", "d/stargz.index.json"}));
    EXPECT_EQ(count(Change::kMetadataFile), 6U);
    EXPECT_EQ(report.losses(), 0U);
}

TEST_F(MergeTest, LinkStoreFilesAreTargetsOfTheirLayer)
{
    Tree tree = merged({{hardlink("early", ".wh..wh.plnk/1.2"), directory(".wh..wh.plnk/"),
                         file(".wh..wh.plnk/1.2", 40), hardlink("late", "/.wh..wh.plnk/1.2")},
                        {hardlink("next", ".wh..wh.plnk/1.2")}});
    EXPECT_EQ(names(tree), (Names{"early", "late"}));
    EXPECT_EQ(at(tree, "early").data.offset, 40U);
    EXPECT_EQ(&at(tree, "early"), &at(tree, "late"));
    EXPECT_EQ(count(Change::kDanglingLink), 1U);
}

TEST_F(MergeTest, DirectoryOverDirectoryReplacesAttributesAndKeepsChildren)
{
    Entry upper = directory("d/", 02750);
    upper.member.uid = 5;
    upper.member.mtime = 9;
    upper.member.xattrs = {"user.x"};
    Tree tree = merged({{directory("d", 0700), file("d/x")}, {upper}});
    EXPECT_EQ(names(tree), (Names{"d/", "d/x"}));
    const Node& node = at(tree, "d");
    EXPECT_EQ(node.mode, 02750U);
    EXPECT_EQ(node.uid, 5);
    EXPECT_EQ(node.mtime, 9);
    EXPECT_EQ(node.xattrs, std::vector<std::string>{"user.x"});
    EXPECT_EQ(node.layer, 0U);
}

TEST_F(MergeTest, AnyTypeReplacesAnyOther)
{
    const std::vector<Entry> forms = {directory("p"),
                                      file("p"),
                                      symbolic("p", "x"),
                                      entry(Kind::kFifo, "p"),
                                      entry(Kind::kCharDevice, "p"),
                                      entry(Kind::kBlockDevice, "p")};
    for (const Entry& lower : forms)
        for (const Entry& upper : forms)
            for (const bool same_layer : {true, false}) {
                Merge own(limits, report);
                own.add_layer(same_layer ? Layer{lower, upper} : Layer{lower});
                if (!same_layer)
                    own.add_layer({upper});
                Tree tree = own.finish();
                EXPECT_EQ(at(tree, "p").kind, upper.member.kind);
                EXPECT_EQ(tree.root().children.size(), 1U);
            }
}

TEST_F(MergeTest, AFileInPlaceOfADirectoryTakesItsSubtree)
{
    EXPECT_EQ(names(merged({{file("d/x/y")}, {file("d")}})), Names{"d"});
}

TEST_F(MergeTest, TheLastOfDuplicatesWins)
{
    Tree tree = merged({{file("a", 1), file("./a", 2), file("/a", 3)}});
    EXPECT_EQ(at(tree, "a").data.offset, 3U);
}

TEST_F(MergeTest, MissingParentsAreMadeAndLowerOnesKept)
{
    Tree tree = merged({{directory("d", 0700)}, {file("d/e/f")}});
    EXPECT_EQ(at(tree, "d").mode, 0700U);
    EXPECT_EQ(at(tree, "d/e").mode, 0755U);
    EXPECT_EQ(at(tree, "d/e").mtime, 1000);
    EXPECT_TRUE(at(tree, "d/e").implied);
    EXPECT_EQ(at(tree, "d/e").uid, 0);
}

TEST_F(MergeTest, AMemberForADirectoryThatWasMadeSetsIt)
{
    Tree tree = merged({{file("d/f"), directory("d", 0711)}});
    EXPECT_EQ(at(tree, "d").mode, 0711U);
    EXPECT_FALSE(at(tree, "d").implied);
}

TEST_F(MergeTest, PathsThroughLinkedDirectoriesEndInTheTree)
{
    EXPECT_EQ(names(merged({{directory("usr/lib"), symbolic("lib", "usr/lib")}, {file("lib/x")}})),
              (Names{"lib -> usr/lib", "usr/", "usr/lib/", "usr/lib/x"}));
    Merge own(limits, report);
    own.add_layer({symbolic("out", "../../../etc"), file("out/passwd")});
    EXPECT_EQ(names(own.finish()), (Names{"etc/", "etc/passwd", "out -> ../../../etc"}));
}

TEST_F(MergeTest, ALoopOfLinksOnTheWayIsAnError)
{
    EXPECT_TRUE(says(problem({{symbolic("a", "b"), symbolic("b", "a"), file("a/x")}}), "too many"));
}

TEST_F(MergeTest, AParentThatIsNoDirectoryIsReplacedByOne)
{
    EXPECT_EQ(names(merged({{file("a")}, {file("a/b")}})), (Names{"a/", "a/b"}));
}

TEST_F(MergeTest, NamesThatLeaveTheRootAreErrors)
{
    for (const char* path : {"../x", "/../x", "a/../../x", ".."})
        EXPECT_TRUE(says(failure_of([&] { Merge(limits, report).add_layer({file(path)}); }),
                         "out of the root"))
            << path;
    EXPECT_TRUE(says(problem({{hardlink("a", "../x")}}), "out of the root"));
}

TEST_F(MergeTest, AMemberForTheRootSetsItsAttributesOnly)
{
    Tree tree = merged({{file("a")}, {directory("./", 0700)}});
    EXPECT_EQ(names(tree), Names{"a"});
    EXPECT_EQ(tree.root().mode, 0700U);
}

TEST_F(MergeTest, TheRootCanOnlyBeADirectory)
{
    for (const Entry& member : {file("."), symbolic("/", "x"), hardlink("./.", "a"), file("")})
        EXPECT_TRUE(says(failure_of([&] { Merge(limits, report).add_layer({member}); }), "root"));
}

TEST_F(MergeTest, HardLinkSharesItsFileInBothOrders)
{
    Tree tree = merged({{hardlink("early", "f"), file("f", 3), hardlink("d/late", "./f")}});
    EXPECT_EQ(&at(tree, "early"), &at(tree, "f"));
    EXPECT_EQ(&at(tree, "d/late"), &at(tree, "f"));
    EXPECT_EQ(report.items().size(), 0U);
}

TEST_F(MergeTest, HardLinkFindsAFileOfALowerLayerAndThroughLinks)
{
    Tree tree = merged({{file("usr/f"), symbolic("l", "usr")}, {hardlink("h", "l/f")}});
    EXPECT_EQ(&at(tree, "h"), &at(tree, "usr/f"));
}

TEST_F(MergeTest, HardLinksToHardLinksThatWaitGetTheFileInAnyOrder)
{
    Tree tree = merged({{hardlink("a", "b"), hardlink("b", "c"), hardlink("d", "a"), file("c")}});
    for (const char* name : {"a", "b", "d"})
        EXPECT_EQ(&at(tree, name), &at(tree, "c"));
}

TEST_F(MergeTest, AWaitingHardLinkFindsItsFileThroughAnotherThatIsASymbolicLink)
{
    Tree tree = merged({{hardlink("a", "l/f"), hardlink("l", "m"), symbolic("m", "d"), file("d/f")},
                        {file(".wh.l")}});
    EXPECT_EQ(&at(tree, "a"), &at(tree, "d/f"));
}

TEST_F(MergeTest, AReplacedHardLinkIsNotLookedUpAnyMore)
{
    EXPECT_EQ(names(merged({{hardlink("a/c", "a/a"), symbolic("a", "a")}})), Names{"a -> a"});
}

TEST_F(MergeTest, ALongChainOfWaitingLinksIsSettled)
{
    constexpr int kLinks = 20'000;
    for (const bool forward : {true, false}) {
        Merge own(limits, report);
        Layer layer;
        for (int i = 0; i < kLinks; ++i)
            layer.push_back(hardlink("l" + std::to_string(i), "l" + std::to_string(i + 1)));
        if (!forward)
            std::reverse(layer.begin(), layer.end());
        layer.push_back(file("l" + std::to_string(kLinks), 5));
        own.add_layer(layer);
        Tree tree = own.finish();
        EXPECT_EQ(at(tree, "l0").data.offset, 5U);
        EXPECT_EQ(tree.root().children.size(), kLinks + 1U);
    }
}

TEST_F(MergeTest, HardLinksToNothingAreLostAndReported)
{
    const Tree tree = merged({{hardlink("a", "none"), hardlink("self", "self"), hardlink("x", "y"),
                               hardlink("y", "x"), file("f")}});
    EXPECT_EQ(names(tree), Names{"f"});
    EXPECT_EQ(count(Change::kDanglingLink), 4U);
    EXPECT_EQ(report.items()[0].path, "a");
    EXPECT_EQ(report.items()[0].detail, "to none");
}

TEST_F(MergeTest, AHardLinkMayWaitForALaterLayer)
{
    Tree tree = merged({{hardlink("a", "f")}, {file("f", 8)}});
    EXPECT_EQ(&at(tree, "a"), &at(tree, "f"));
    EXPECT_EQ(report.losses(), 0U);
}

TEST_F(MergeTest, AWaitingHardLinkThatIsReplacedOrRemovedWaitsNoMore)
{
    Tree tree = merged({{hardlink("a", "f"), hardlink("b", "f"), hardlink("d/c", "f")},
                        {file("a", 1), file(".wh.b"), file(".wh.d")},
                        {file("f", 8)}});
    EXPECT_EQ(names(tree), (Names{"a", "f"}));
    EXPECT_EQ(at(tree, "a").data.offset, 1U);
    EXPECT_EQ(report.losses(), 0U);
}

TEST_F(MergeTest, PendingHardLinkIsResolvedAtItsOriginalPlace)
{
    const Tree tree =
        merged({{directory("d"), symbolic("l", "d"), hardlink("l/h", "none")}, {directory("l")}});
    EXPECT_EQ(names(tree), (Names{"d/", "l/"}));
    EXPECT_EQ(count(Change::kDanglingLink), 1U);
}

TEST_F(MergeTest, HardLinksToDirectoriesAreErrors)
{
    EXPECT_TRUE(says(problem({{directory("d"), hardlink("h", "d")}}), "to a directory"));
    EXPECT_TRUE(says(failure_of([&] { Merge(limits, report).add_layer({hardlink("h", "/")}); }),
                     "to a directory"));
    EXPECT_TRUE(says(failure_of([&] {
                         Merge(limits, report).add_layer({hardlink("h", "d"), directory("d")});
                     }),
                     "to a directory"));
}

TEST_F(MergeTest, HardLinkToASymlinkSharesTheLink)
{
    EXPECT_EQ(names(merged({{symbolic("l", "to"), hardlink("h", "l"), file("to")}})),
              (Names{"h -> to", "l -> to", "to"}));
}

TEST_F(MergeTest, OverwritingOneNameOfAHardLinkedFileLeavesTheOthers)
{
    Tree tree = merged({{file("a", 1), hardlink("b", "a")}, {file("a", 2)}});
    EXPECT_EQ(at(tree, "a").data.offset, 2U);
    EXPECT_EQ(at(tree, "b").data.offset, 1U);
}

TEST_F(MergeTest, AHardLinkOutlivesADirectoryThatItReplacesWithItsFile)
{
    Tree tree = merged({{file("d/f", 6), hardlink("d", "d/f")}});
    EXPECT_EQ(names(tree), Names{"d"});
    EXPECT_EQ(at(tree, "d").data.offset, 6U);
}

TEST_F(MergeTest, TouchedLayersAreThoseChangedByLaterOnes)
{
    merged({{file("a"), file("d/x")},
            {file("b")},
            {file("c"), file("e/y")},
            {file("d/new")},
            {file(".wh.b")},
            {file("a"), directory("e", 0700)}});
    const std::vector<bool> wanted = {true, true, true, false, false, false};
    for (std::size_t i = 0; i < wanted.size(); ++i)
        EXPECT_EQ(merge.touched(i), wanted[i]) << i;
    EXPECT_FALSE(merge.touched(100));
}

TEST_F(MergeTest, TouchedByHardLinkOpaqueMarkParentAndWholeSubtree)
{
    merged({{file("a")},
            {file("o/x")},
            {file("f")},
            {file("o2/deep/x")},
            {hardlink("h", "a"), file("o/.wh..wh..opq"), file("f/g"), file(".wh.o2")}});
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_TRUE(merge.touched(i)) << i;
    EXPECT_FALSE(merge.touched(4));
}

TEST_F(MergeTest, NotTouchedByNewNamesNorByTheSameDirectoryAgainNorByItself)
{
    merged({{directory("d"), file("d/x"), file("d/x"), hardlink("d/y", "d/x")},
            {directory("d"), file("d/z"), file("none/.wh.x")}});
    EXPECT_FALSE(merge.touched(0));
    EXPECT_FALSE(merge.touched(1));
}

TEST_F(MergeTest, TheTreeIsNoDeeperThanTheLimitHoweverLinksLead)
{
    limits.depth = 8;
    Merge own(limits, report);
    const auto grow = [&] {
        for (int i = 0; i < 20; ++i)
            own.add_layer({file("l/a/b/c/x"), symbolic("l2", "l/a/b/c"), symbolic("l", "l2/d")});
    };
    EXPECT_NE(failure_of(grow), "");
    EXPECT_TRUE(
        says(failure_of([&] { own.add_layer({file("1/2/3/4/5/6/7/8/9")}); }), "--max-depth"));
}
