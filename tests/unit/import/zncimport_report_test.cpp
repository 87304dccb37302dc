// zncimport_report_test.cpp - tests of the report of an import, as one line and as a document.
#include "import/merge/report.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>

using namespace zncimport;

namespace {

constexpr int kChanges = static_cast<int>(Change::kUserNumbers) + 1;

} // namespace

TEST(Report, EmptyOneSaysNothing)
{
    const Report report;
    EXPECT_EQ(report.summary(), "");
    EXPECT_EQ(report.losses(), 0U);
    EXPECT_EQ(zncctl::compact(report.document()), R"({"losses":0,"counts":{},"items":[]})");
}

TEST(Report, EveryChangeHasAWordOfItsOwn)
{
    std::set<std::string> words;
    for (int i = 0; i < kChanges; ++i)
        EXPECT_TRUE(words.insert(Report::word(static_cast<Change>(i))).second);
    EXPECT_TRUE(words.contains("device"));
    EXPECT_TRUE(words.contains("hardlink-copied"));
}

TEST(Report, NotesAreNoLosses)
{
    for (int i = 0; i < kChanges; ++i) {
        const auto change = static_cast<Change>(i);
        EXPECT_EQ(Report::is_loss(change), change < Change::kHardlinkCopied)
            << Report::word(change);
    }
}

TEST(Report, SummaryCountsAndNamesTheFirst)
{
    Report report;
    report.add(Change::kOwner, "home/app");
    report.add(Change::kDevice, "dev/null");
    report.add(Change::kDevice, "dev/zero");
    report.add(Change::kHardlinkCopied, "bin/b", "of bin/a", 7);
    EXPECT_EQ(report.losses(), 3U);
    EXPECT_EQ(report.summary(), "lost: 2 devices (first: dev/null), 1 owner (first: home/app); "
                                "changed: 1 hard link copied");
}

TEST(Report, SummaryOfNotesAlone)
{
    Report report;
    report.add(Change::kMetadataFile, "stargz.index.json");
    report.add(Change::kMetadataFile, ".prefetch.landmark");
    EXPECT_EQ(report.summary(), "changed: 2 metadata files dropped");
}

TEST(Report, SummaryIsOneLineForATerminal)
{
    Report report;
    report.add(Change::kFifo, "a\n\x1b[31mb");
    EXPECT_EQ(report.summary(), "lost: 1 FIFO (first: a??[31mb)");
}

TEST(Report, DocumentListsEveryItem)
{
    Report report;
    report.add(Change::kDevice, "dev/null", "char 1:3");
    report.add(Change::kHardlinkCopied, "b", "of a", 12);
    EXPECT_EQ(zncctl::compact(report.document()),
              R"({"losses":1,"counts":{"device":1,"hardlink-copied":1},"items":[)"
              R"({"change":"device","path":"dev/null","detail":"char 1:3"},)"
              R"({"change":"hardlink-copied","path":"b","detail":"of a","bytes":12}]})");
}

TEST(Report, DocumentIsUtf8WhateverTheNames)
{
    Report report;
    report.add(Change::kOwner, "caf\xc3\xa9 \xf0\x9f\x90\xa7");
    report.add(Change::kOwner, "\xff \xc3 \xc0\xaf \xed\xa0\x80 \xe2\x82");
    const auto document = report.document();
    const zncctl::Json& items = document.at("items");
    EXPECT_EQ(zncctl::text_of(items.at(0), "path"), "caf\xc3\xa9 \xf0\x9f\x90\xa7");
    EXPECT_EQ(zncctl::text_of(items.at(1), "path"),
              "\\xff \\xc3 \\xc0\\xaf \\xed\\xa0\\x80 \\xe2\\x82");
}
