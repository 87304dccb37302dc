// settings_reading.hpp - reads documents with the reader of container settings, for its tests.
#ifndef SETTINGS_READING_HPP
#define SETTINGS_READING_HPP

#include "settings/settings_reader.hpp"

#include <cerrno>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace settings_reading {

struct Read {
    int error = 0;
    zn::Settings settings;
    zn::SettingsFault fault;
};

inline Read read(std::string_view document)
{
    Read result;
    result.error = zn::settings_read(document, result.settings, result.fault);
    return result;
}

// The settings of a document that must be accepted.
inline zn::Settings accepted(std::string_view document)
{
    Read result = read(document);
    EXPECT_EQ(result.error, 0) << document << "\n"
                               << result.fault.field << ": " << result.fault.reason;
    return std::move(result.settings);
}

inline std::string in(const char* section, std::string_view members)
{
    return std::string("{\"") + section + "\":{" + std::string(members) + "}}";
}
inline zn::Settings process(std::string_view members)
{
    return accepted(in("process", members));
}
inline zn::Settings linux_section(std::string_view members)
{
    return accepted(in("linux", members));
}
inline zn::Resources resources(std::string_view members)
{
    return std::move(linux_section("\"resources\":{" + std::string(members) + "}").resources);
}

template <class T> std::vector<T> items(const zn::List<T>& list)
{
    return {list.begin(), list.end()};
}
inline std::vector<std::string> texts(const zn::List<zn::Text>& list)
{
    std::vector<std::string> copies;
    for (const zn::Text& text : list)
        copies.emplace_back(text.get());
    return copies;
}
inline std::string text_of(const zn::Text& text)
{
    return text ? text.get() : "(null)";
}

// A document that must be refused, and how.
struct Refusal {
    const char* name;
    const char* section; // "process", "linux", or null: `members` is the document
    const char* members;
    int error;
    const char* field;
    const char* reason;
};
inline std::ostream& operator<<(std::ostream& out, const Refusal& refusal)
{
    return out << refusal.members;
}
inline std::string name_of(const ::testing::TestParamInfo<Refusal>& info)
{
    return info.param.name;
}
inline void expect_refused(const Refusal& refusal)
{
    const Read result = read(refusal.section != nullptr ? in(refusal.section, refusal.members)
                                                        : std::string(refusal.members));
    EXPECT_EQ(result.error, refusal.error);
    EXPECT_STREQ(result.fault.field, refusal.field);
    EXPECT_STREQ(result.fault.reason, refusal.reason);
}

// Defines the test FIXTURE.IsRefused for each case of an array of refusals.
#define REFUSED_SETTINGS(FIXTURE, CASES)                                                           \
    class FIXTURE : public ::testing::TestWithParam<settings_reading::Refusal> {};                 \
    TEST_P(FIXTURE, IsRefused)                                                                     \
    {                                                                                              \
        settings_reading::expect_refused(GetParam());                                              \
    }                                                                                              \
    INSTANTIATE_TEST_SUITE_P(, FIXTURE, ::testing::ValuesIn(CASES), settings_reading::name_of)

} // namespace settings_reading

#endif
