// zncimport_prepare_test.cpp - tests of how the merged tree is changed for the new layer, and of
// what is reported.
#include "import/merge/prepare.hpp"
#include "zncimport_layers.hpp"

#include "import/merge/link_target.hpp"
#include "import/merge/ustar.hpp"

#include <gtest/gtest.h>

using namespace zncimport;
using namespace layers;
using Names = std::vector<std::string>;

namespace {

constexpr std::uint64_t kDepth = 128;

class PrepareTest : public testing::Test {
  protected:
    Tree& prepared(const Layer& layer)
    {
        Merge merge(limits, report);
        merge.add_layer(layer);
        tree = merge.finish();
        prepare(tree, options, limits, report);
        return tree;
    }
    Node& at(const std::string& path)
    {
        Node* const node = tree.find(path, kDepth);
        if (node == nullptr)
            throw std::runtime_error("no " + path);
        return *node;
    }
    std::string problem(const Layer& layer)
    {
        return failure_of([&] { prepared(layer); });
    }
    // Returns "word path" of each item, followed by ":" and its detail.
    [[nodiscard]] Names items() const
    {
        Names result;
        for (const Report::Item& item : report.items())
            result.push_back(std::string(Report::word(item.change)) + " " + item.path +
                             (item.detail.empty() ? "" : ": " + item.detail));
        return result;
    }

    EmitOptions options;
    Limits limits;
    Report report;
    Tree tree;
};

bool says(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

const std::string kLong(60, 'n');
const std::string kDirectory = "/" + kLong + "/" + std::string(50, 'd');

} // namespace

TEST_F(PrepareTest, AnOrdinaryTreeStaysAsItIs)
{
    prepared({directory("d"), file("d/f"), symbolic("l", "d/f")});
    EXPECT_EQ(names(tree), (Names{"d/", "d/f", "l -> d/f"}));
    EXPECT_EQ(items(), Names{});
}

TEST_F(PrepareTest, HardLinksAreCopiedWhileTheyFitThenLinked)
{
    limits.hardlink_bytes = 25;
    prepared({file("b/x", 1), hardlink("a", "b/x"), hardlink("c/d", "a"), hardlink("c/e", "a"),
              hardlink("z", "a")});
    EXPECT_EQ(names(tree), (Names{"a", "b/", "b/x", "c/", "c/d", "c/e -> ../a", "z -> a"}));
    EXPECT_EQ(at("b/x").data.offset, 1U);
    EXPECT_NE(&at("a"), &at("b/x"));
    EXPECT_EQ(items(), (Names{"hardlink-copied b/x: of a", "hardlink-copied c/d: of a",
                              "hardlink-linked c/e: to a", "hardlink-linked z: to a"}));
    EXPECT_EQ(report.items()[0].bytes, 10U);
    EXPECT_EQ(report.losses(), 0U);
}

TEST_F(PrepareTest, HardLinksOfEveryKindByOption)
{
    const Layer layer = {file("a"), hardlink("b", "a")};
    options.hardlinks = Hardlinks::kSymlink;
    EXPECT_EQ(names(prepared(layer)), (Names{"a", "b -> a"}));
    options.hardlinks = Hardlinks::kCopy;
    limits.hardlink_bytes = 0;
    EXPECT_EQ(names(prepared(layer)), (Names{"a", "b"}));
}

TEST_F(PrepareTest, SetIdFilesAndSymbolicLinksAreAlwaysCopied)
{
    options.hardlinks = Hardlinks::kSymlink;
    Entry su = file("bin/su");
    su.member.mode = 04755;
    prepared({su, hardlink("bin/su2", "bin/su"), symbolic("l", "x"), hardlink("m", "l")});
    EXPECT_EQ(names(tree), (Names{"bin/", "bin/su", "bin/su2", "l -> x", "m -> x"}));
    EXPECT_EQ(at("bin/su2").mode, 04755U);
}

TEST_F(PrepareTest, CopiesAreBoundedByTheBytesOfTheImport)
{
    options.hardlinks = Hardlinks::kCopy;
    limits.bytes = 15;
    EXPECT_TRUE(says(problem({file("a"), hardlink("b", "a"), hardlink("c", "a")}), "--max-bytes"));
}

TEST_F(PrepareTest, ANameThatIsDroppedIsNotTheOneThatKeepsTheFile)
{
    options.hardlinks = Hardlinks::kSymlink;
    options.skip_unrepresentable = true;
    EXPECT_EQ(names(prepared({file("a\\x"), hardlink("b", "a\\x"), hardlink("c", "b")})),
              (Names{"b", "c -> b"}));
}

TEST_F(PrepareTest, DevicesUnderDevAreDroppedWhateverTheOption)
{
    for (const Devices choice : {Devices::kFail, Devices::kDrop, Devices::kKeep}) {
        options.devices = choice;
        EXPECT_EQ(
            names(prepared({entry(Kind::kCharDevice, "dev/null"), entry(Kind::kFifo, "dev/p")})),
            Names{"dev/"});
    }
    EXPECT_EQ(report.losses(), 6U);
    EXPECT_EQ(items()[0], "device dev/null: char 0:0, left out");
    EXPECT_EQ(items()[1], "fifo dev/p: left out");
}

TEST_F(PrepareTest, DevicesElsewhereFailAreDroppedOrKept)
{
    for (const Kind kind : {Kind::kCharDevice, Kind::kBlockDevice, Kind::kFifo}) {
        const Layer layer = {entry(kind, "d/x"), file("devil")};
        options.devices = Devices::kFail;
        const std::string text = problem(layer);
        EXPECT_TRUE(says(text, "d/x") && says(text, "--devices=drop")) << text;
        options.devices = Devices::kDrop;
        EXPECT_EQ(names(prepared(layer)), (Names{"d/", "devil"}));
        options.devices = Devices::kKeep;
        EXPECT_EQ(names(prepared(layer)), (Names{"d/", "d/x", "devil"}));
    }
    EXPECT_EQ(report.losses(), 6U) << "kept ones are lost too: the extractor makes none";
}

TEST_F(PrepareTest, NamesThatDoNotFitFailAndSayHowToGoOn)
{
    const std::string component(120, 'x');
    for (const std::string& name : {std::string("a\\b"), component, kLong + "/" + component}) {
        const std::string text = problem({file(name)});
        EXPECT_TRUE(says(text, name) && says(text, "--skip-unrepresentable")) << text;
    }
    EXPECT_TRUE(says(problem({file("big", 0, std::uint64_t{1} << 32U)}), "4 GiB"));
    EXPECT_TRUE(says(problem({symbolic("l", "")}), "without a target"));
    EXPECT_TRUE(says(problem({entry(Kind::kOther, "o")}), "type"));
}

TEST_F(PrepareTest, NamesThatDoNotFitAreDroppedOnRequestWithWhatTheyHold)
{
    options.skip_unrepresentable = true;
    prepared({file("a\\b/deep/x"), file("a/x"), file("z", 0, std::uint64_t{1} << 32U)});
    EXPECT_EQ(names(tree), (Names{"a/", "a/x"}));
    EXPECT_EQ(report.losses(), 2U);
    EXPECT_EQ(report.items()[0].path, "a\\b");
}

TEST_F(PrepareTest, NamesOfAnyBytesAndFullLengthFit)
{
    const std::string name =
        std::string(99, 'p') + "/" + std::string(55, 'p') + "/" + std::string(99, 'n');
    prepared({file(name), file("caf\xc3\xa9"), file("\xff")});
    EXPECT_EQ(items(), Names{});
    EXPECT_NO_THROW(at(name));
}

TEST_F(PrepareTest, OwnersThatDoNotFitFailOrBecomeRoot)
{
    for (const std::int64_t uid :
         {std::int64_t{-1}, std::int64_t{2097152}, std::int64_t{4294967295}}) {
        Entry member = file("a");
        member.member.uid = uid;
        member.member.gid = 7;
        options.skip_unrepresentable = false;
        EXPECT_TRUE(says(problem({member}), "--skip-unrepresentable"));
        options.skip_unrepresentable = true;
        prepared({member});
        EXPECT_EQ(at("a").uid, 0);
        EXPECT_EQ(at("a").gid, 7);
        EXPECT_EQ(items().back(), "owner a: " + std::to_string(uid) + ":7, now 0:7");
    }
    EXPECT_EQ(report.losses(), 3U);
}

TEST_F(PrepareTest, OwnersSpecialBitsTimesAndAttributesAreReported)
{
    Entry member = file("f");
    member.member.uid = 2097151;
    member.member.mode = 06755;
    member.member.mtime = -5;
    member.member.xattrs = {"security.selinux", "user.a", "trusted.overlay.opaque",
                            "security.capability", "user.overlay.x"};
    Entry sticky = directory("t", 01777);
    sticky.member.xattrs = {"security.selinux"};
    sticky.member.mtime = std::int64_t{1} << 40U;
    prepared({member, sticky});
    EXPECT_EQ(items(), (Names{"owner f: 2097151:0", "time f: was -5, is 0",
                              "xattr f: user.a, security.capability", "set-id f: mode 6755",
                              "time t: was 1099511627776, is 8589934591", "set-id t: mode 1777"}));
    EXPECT_EQ(at("f").mtime, 0);
    EXPECT_EQ(at("f").mode, 06755U);
}

TEST_F(PrepareTest, EveryCopyOfAFileIsReported)
{
    Entry member = file("a");
    member.member.uid = 3;
    prepared({member, hardlink("b", "a")});
    EXPECT_EQ(report.losses(), 2U);
}

TEST_F(PrepareTest, TargetsOf99BytesStayLongerOnesBecomeShorter)
{
    const std::string fits(kTargetMax, 'x');
    prepared({symbolic("l", fits)});
    EXPECT_EQ(at("l").target, fits);
    EXPECT_EQ(items(), Names{});
    const std::string target = "./usr/../" + std::string(90, '/') + "usr/lib";
    prepared({directory("usr/lib"), symbolic("l", target)});
    EXPECT_EQ(at("l").target, "usr/lib");
    EXPECT_EQ(items(), Names{"link-target l: was " + target + ", is usr/lib"});
    EXPECT_EQ(report.losses(), 1U);
}

TEST_F(PrepareTest, AbsoluteTargetsBecomeRelativeOnes)
{
    prepared({directory(kDirectory), symbolic(kDirectory + "/l", kDirectory + "/x")});
    EXPECT_EQ(at(kDirectory + "/l").target, "x");
}

TEST_F(PrepareTest, DotsAtTheRootCollapse)
{
    std::string up;
    for (int i = 0; i < 40; ++i)
        up += "../";
    prepared({file("a/b/f"), symbolic("a/b/l", up + "a/b/f")});
    EXPECT_EQ(at("a/b/l").target, "f");
}

TEST_F(PrepareTest, DotDotIsCollapsedAfterRealDirectoriesOnly)
{
    const std::string padding(99, '/');
    prepared({directory("real"), symbolic("link", "/real"), file("x"),
              symbolic("1", padding + "real/../x"), symbolic("2", "link/" + padding + "../x"),
              symbolic("3", "none/" + padding + "../x")});
    EXPECT_EQ(at("1").target, "x");
    EXPECT_EQ(at("2").target, "link/../x");
    EXPECT_EQ(at("3").target, "none/../x");
}

TEST_F(PrepareTest, AFinalSlashIsKept)
{
    prepared({directory("d/e"), symbolic("l", "d/" + std::string(100, '/') + "e/")});
    EXPECT_EQ(at("l").target, "d/e/");
}

TEST_F(PrepareTest, TargetsThatStayTooLongFailAndSayHowToGoOn)
{
    const std::string text = problem({directory(kDirectory), symbolic("d/l", kDirectory + "/x")});
    EXPECT_TRUE(says(text, "d/l") && says(text, "--long-links=hop")) << text;
}

TEST_F(PrepareTest, IntermediateLinksReachTheSameTarget)
{
    options.long_links = LongLinks::kHop;
    const std::string deep = kDirectory + "/" + kLong;
    prepared(
        {file(deep + "/x"), symbolic("d/l", deep + "/x"), symbolic("d/m", "../" + deep + "/y")});
    EXPECT_EQ(names(tree)[0], ".l/");
    for (const char* link : {"d/l", "d/m"}) {
        const std::string target = at(link).target;
        ASSERT_TRUE(target.size() <= kTargetMax && target.starts_with("/.l/")) << target;
        EXPECT_EQ(tree.existing_parent_of(Tree::split(target, kDepth)), &at(deep));
    }
    for (const auto& [name, hop] : at(".l").children) {
        EXPECT_EQ(hop->kind, Kind::kSymlink);
        EXPECT_LE(hop->target.size(), kTargetMax);
    }
    EXPECT_EQ(report.losses(), 2U);
}

TEST_F(PrepareTest, HopsAreTheSameEveryTimeAndCollideWithNothing)
{
    options.long_links = LongLinks::kHop;
    const Layer layer = {file(".l"), file(".l1/x"), directory(kDirectory),
                         symbolic("a/l", kDirectory + "/x"), symbolic("b/l", kDirectory + "/x")};
    const Names first = names(prepared(layer));
    EXPECT_EQ(at("a/l").target, at("b/l").target);
    EXPECT_EQ(at(".l2").children.size(), 1U);
    EXPECT_EQ(names(prepared(layer)), first);
}

TEST_F(PrepareTest, ATargetOfOneNameThatIsTooLongFailsEvenWithHops)
{
    options.long_links = LongLinks::kHop;
    EXPECT_TRUE(
        says(problem({symbolic("l", std::string(200, 'x'))}), "even with --long-links=hop"));
}

TEST_F(PrepareTest, EndlessTargetsAreNoMoreStepsThanTheKernelTakes)
{
    options.long_links = LongLinks::kHop;
    std::string target;
    while (target.size() < 4000)
        target += "/" + kLong;
    EXPECT_TRUE(says(problem({symbolic("l", target)}), "even with --long-links=hop"));
}

TEST_F(PrepareTest, ALinkInPlaceOfAHardLinkMayBeTooLong)
{
    options.hardlinks = Hardlinks::kSymlink;
    const Layer layer = {file("a" + kDirectory + "/f"), hardlink("b/x", "a" + kDirectory + "/f")};
    EXPECT_TRUE(says(problem(layer), "--long-links=hop"));
    options.long_links = LongLinks::kHop;
    prepared(layer);
    EXPECT_EQ(tree.existing_parent_of(Tree::split(at("b/x").target, kDepth)),
              &at("a" + kDirectory));
}

TEST(RelativeTarget, GoesUpAsFarAsItMustAndNoFurther)
{
    EXPECT_EQ(relative_target(Names{}, Names{"a"}), "a");
    EXPECT_EQ(relative_target(Names{"a", "b"}, Names{"a", "c"}), "../c");
    EXPECT_EQ(relative_target(Names{"a", "b"}, Names{"c", "d"}), "../../c/d");
    EXPECT_EQ(relative_target(Names{"a", "b"}, Names{"a"}), "..");
    EXPECT_EQ(relative_target(Names{"a"}, Names{"a"}), ".");
}
