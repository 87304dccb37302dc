// Tests of formats of rows, durations and the lines of logs.
#include "cli/containers/log_lines.hpp"
#include "front/duration.hpp"
#include "front/record.hpp"
#include "front/row_format.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace zncctl;

namespace {

const std::vector<std::string> kFields = {"ID", "Ports"};
const Json kRow = {{"ID", "a\x1b[2Jb"}, {"Ports", {1, 2}}};

} // namespace

TEST(RowFormat, ReplacesFields)
{
    EXPECT_EQ(RowFormat("", kFields).text(kRow), "");
    EXPECT_EQ(RowFormat("{{.ID}}", kFields).text(kRow), "a?[2Jb");
    EXPECT_EQ(RowFormat("<{{ .Ports }}>\\t\\n\\\\\\x", kFields).text(kRow), "<[1,2]>\t\n\\\\x");
    EXPECT_EQ(RowFormat("{{json .ID}}", kFields).text(kRow), "\"a\\u001b[2Jb\"");
    EXPECT_EQ(RowFormat("{{json .}}", kFields).text({{"ID", "x"}}), "{\"ID\":\"x\"}");
    EXPECT_EQ(RowFormat("}} {.ID}", kFields).text(kRow), "}} {.ID}");
}

TEST(RowFormat, ATableHasAHeading)
{
    const RowFormat format("table {{.ID}}\\t{{.Ports}}", kFields);
    EXPECT_TRUE(format.is_table());
    EXPECT_EQ(format.heading(), kFields);
    EXPECT_FALSE(RowFormat("tables {{.ID}}", kFields).is_table());
}

TEST(RowFormat, InvalidFormatsAreRefused)
{
    for (const char* format : {"{{", "{{.ID}", "{{}}", "{{ID}}", "{{.}}", "{{.Odd}}", "{{json ID}}",
                               "{{range .}}", "{{.ID | upper}}"})
        EXPECT_THROW(RowFormat(format, kFields), std::runtime_error) << format;
}

TEST(Duration, IsWrittenInWords)
{
    EXPECT_EQ(duration_text(-5), "Less than a second");
    EXPECT_EQ(duration_text(0), "Less than a second");
    EXPECT_EQ(duration_text(1), "1 second");
    EXPECT_EQ(duration_text(59), "59 seconds");
    EXPECT_EQ(duration_text(61), "About a minute");
    EXPECT_EQ(duration_text(180), "3 minutes");
    EXPECT_EQ(duration_text(3600), "About an hour");
    EXPECT_EQ(duration_text(30 * 3600), "30 hours");
    EXPECT_EQ(duration_text(3 * 86400), "3 days");
    EXPECT_EQ(duration_text(21 * 86400), "3 weeks");
    EXPECT_EQ(duration_text(90 * 86400), "3 months");
    EXPECT_EQ(duration_text(800 * 86400), "2 years");
}

TEST(Duration, TimesAreThoseOfUtc)
{
    EXPECT_EQ(time_text(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(time_text(951782399), "2000-02-28T23:59:59Z");
    EXPECT_EQ(time_text(951782400), "2000-02-29T00:00:00Z");
    EXPECT_EQ(precise_time_text(1795352942000000007, ' ', " +0000 UTC"),
              "2026-11-22 13:09:02.000000007 +0000 UTC");
    EXPECT_EQ(precise_time_text(-1, 'T', "Z"), "1969-12-31T23:59:59.999999999Z");
}

TEST(Duration, ATimeIsReadAsItIsWritten)
{
    EXPECT_EQ(time_of_text(time_text(1795352942)), 1795352942);
    for (const char* text :
         {"", "now", "2026-11-22", "2026-11-22T13:00:00", "2026-11-22T13:00:00Zx"})
        EXPECT_EQ(time_of_text(text), 0) << text;
}

TEST(LogLines, PastTimesAreDurationsOrTimes)
{
    EXPECT_EQ(read_past_time("1h2m3s", 10000), 10000 - 3723);
    EXPECT_EQ(read_past_time("7", 10000), 7);
    EXPECT_EQ(read_past_time("1970-01-01T00:00:09Z", 10000), 9);
    for (const char* text : {"", "-1", "h", "1h2", "5d", "99999999999s", "soon"})
        EXPECT_EQ(read_past_time(text, 10000), std::nullopt) << text;
}

TEST(LogLines, ALineHasTheTimeOfItsFirstPart)
{
    constexpr std::int64_t kSecond = 1000000000;
    LogLines lines(true, 0);
    EXPECT_EQ(lines.add({{kSecond, "a"}, {2 * kSecond, "b\nc\n"}, {3 * kSecond + 5, "\nd"}}),
              "1970-01-01T00:00:01.000000000Z ab\n1970-01-01T00:00:02.000000000Z c\n"
              "1970-01-01T00:00:03.000000005Z \n1970-01-01T00:00:03.000000005Z d");
    EXPECT_EQ(lines.add({{4 * kSecond, "e\n"}}), "e\n");
    LogLines late(false, 2);
    EXPECT_EQ(late.add({{kSecond, "a\nb"}, {2 * kSecond, "b\nc\n"}}), "c\n");
}
