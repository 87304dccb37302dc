// What zncConfigCheck says about a config.json, and that it is what reading and creating do.
#include "zncRuntimeSpec.hpp"
#include "zncRuntimeSpec_members.hpp"

#include "alloc_fault.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kGood = R"({"ociVersion": "1.0.0", "process": {"args": ["/a"], "cwd": "/"},
                                  "root": {"path": "r"}})";

struct Finding {
    ZNC_CONFIG_VERDICT verdict;
    std::string path;
    ZNC_CONFIG_TYPE expected;
    std::string found;
    std::string value;
};

void collect(const ZNC_CONFIG_FINDING* finding, void* list)
{
    static_cast<std::vector<Finding>*>(list)->push_back(
        {finding->verdict, finding->path, finding->expected, finding->found,
         finding->value != nullptr ? finding->value : "-"});
}

std::vector<Finding> check(const std::string& text)
{
    std::vector<Finding> found;
    EXPECT_EQ(zncConfigCheck(text.data(), text.size(), collect, &found), OK) << text;
    return found;
}

// "refused process.cwd"
Texts findings(const std::string& text)
{
    static constexpr const char* kWords[] = {"refused", "misread", "ignored",
                                             "unused",  "unknown", "not allowed"};
    Texts texts;
    for (const Finding& finding : check(text))
        texts.push_back(std::string(kWords[finding.verdict]) + " " + finding.path);
    return texts;
}

// As creating a container reads it and decides, without a daemon.
bool is_created(const std::string& text)
{
    std::string name = std::filesystem::temp_directory_path() / "znc-config-XXXXXX";
    const znc::UniqueFd file(::mkstemp(name.data()));
    std::ofstream(name) << text;
    runtimeSpecConfig* const config = zncInitializeRuntimeSpec(name.c_str());
    std::filesystem::remove(name);
    const bool good = config != nullptr && znc::is_spec_version(config->version) &&
                      config->root != nullptr && znc::is_spec_path(config->root->path) &&
                      znc::is_spec_absolute_path(config->process->cwd) &&
                      znc::is_spec_path(config->process->args[0]);
    zncDestroyRuntimeSpec(config);
    return good;
}

bool is_refused(const std::string& text)
{
    for (const Finding& finding : check(text))
        if (finding.verdict == ZNC_CONFIG_REFUSED)
            return true;
    return false;
}

} // namespace

TEST(ConfigCheckCall, ReportsNothingForAValidDocument)
{
    EXPECT_EQ(findings(kGood), Texts{});
    EXPECT_EQ(findings(R"({"ociVersion": "1", "process": {"args": ["/a", "b"], "cwd": "\\",
                           "env": ["A=b"]}, "root": {"path": "/r"}, "annotations": {"a": "b"},
                           "mounts": [{"source": "a", "destination": "/b", "type": "bind",
                           "options": ["ro"]}], "zarnel": {"rtp": {"rtpPriority": "0x10"}}})"),
              Texts{});
}

TEST(ConfigCheckCall, NamesRefusedMembersAndWhatWasFound)
{
    EXPECT_EQ(findings("[]"), Texts{"refused "});
    EXPECT_EQ(findings("{}"), (Texts{"refused ociVersion", "refused process", "refused root"}));
    const std::vector<Finding> found =
        check(R"({"ociVersion": 5, "process": {"args": [], "cwd": "here"}, "root": {"path": ""}})");
    ASSERT_EQ(found.size(), 4U);
    EXPECT_EQ(found[0].expected, ZNC_CONFIG_STRING);
    EXPECT_EQ(found[0].found, "a number");
    EXPECT_EQ(found[1].expected, ZNC_CONFIG_PROGRAM);
    EXPECT_EQ(found[2].expected, ZNC_CONFIG_ABSOLUTE_PATH);
    EXPECT_EQ(found[2].value, "here");
    EXPECT_EQ(found[3].path, "root.path");
    EXPECT_EQ(found[3].value, "");
}

TEST(ConfigCheckCall, NamesMembersThatAreMisread)
{
    EXPECT_EQ(findings(R"({"ociVersion": "1", "process": {"args": ["/a", 1], "cwd": "/",
                           "env": {"a": "b"}}, "root": {"path": "r"}, "mounts": [1,
                           {"options": [5, "ro"]}], "zarnel": {"rtp": {"rtpStackSize": "64k",
                           "rtpPriority": ""}}})"),
              (Texts{"misread process.args[1]", "misread process.env", "misread mounts[0]",
                     "misread mounts[1].options[0]", "misread zarnel.rtp.rtpPriority",
                     "misread zarnel.rtp.rtpStackSize"}));
}

TEST(ConfigCheckCall, NamesMembersWithoutEffect)
{
    EXPECT_EQ(findings(R"({"ociVersion": "1", "process": {"args": ["/a"], "cwd": "/",
                           "user": {"uid": 1, "gid": 1}, "terminal": true, "env": {}}, "hostname": "h",
                           "root": {"path": "r", "readonly": true}, "linux": {}, "vm": {}, "mounts": [
                           {"source": 1, "options": []}], "annotations": {"a": 1},
                           "zarnel": {"rtp": {"rtpPriority": 50}, "resources": {}}})"),
              (Texts{"ignored annotations.a", "ignored process.env", "unused process.terminal",
                     "ignored mounts[0].source", "ignored zarnel.rtp.rtpPriority",
                     "unknown zarnel.resources", "unknown vm"}));
}

// The document of kGood with another member of "process".
std::string with_process(const std::string& member)
{
    return R"({"ociVersion": "1", "process": {"args": ["/a"], "cwd": "/", )" + member +
           R"(}, "root": {"path": "r"}})";
}

TEST(ConfigCheckCall, NamesTheMemberThatThePlatformRefusesAndWhy)
{
    const std::vector<Finding> found = check(with_process(R"("oomScoreAdj": 1001)"));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].verdict, ZNC_CONFIG_REFUSED);
    EXPECT_EQ(found[0].path, "process.oomScoreAdj");
    EXPECT_NE(found[0].found, "");
    EXPECT_EQ(findings(with_process(R"("user": {"uid": 1, "gid": 1}, "rlimits": [])")), Texts{});
}

TEST(ConfigCheckCall, NamesTheMemberThatTheDaemonMustAllow)
{
    EXPECT_EQ(findings(with_process(R"("noNewPrivileges": false)")),
              Texts{"not allowed process.noNewPrivileges"});
}

TEST(ConfigCheckCall, TakesTheFirstOfMembersThatDifferInCase)
{
    EXPECT_EQ(findings(R"({"ROOT": {"path": ""}, "root": {"path": "r"}, "ociVersion": "1",
                           "process": {"args": ["/a"], "cwd": "/"}})"),
              (Texts{"refused root.path", "unknown root"}));
}

TEST(ConfigCheckCall, RefusesWhatIsNoDocument)
{
    std::vector<Finding> found;
    for (const std::string text : {"", "{} x", "{\"a\": }"}) {
        errno = 0;
        EXPECT_EQ(zncConfigCheck(text.data(), text.size(), collect, &found), ERROR);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(zncConfigCheck(nullptr, 0, collect, nullptr), ERROR);
    EXPECT_EQ(zncConfigCheck("{}", 2, nullptr, nullptr), ERROR);
    EXPECT_EQ(found.size(), 0U);
}

// Each member that must be there, in each of these values: refused by the one is refused by the
// other.
TEST(ConfigCheckCall, RefusesExactlyWhatCreatingRefuses)
{
    const Texts values = {"",       "null",     "true",    "1",   R"("")",    R"("x")",
                          "[]",     "{}",       R"([""])", "[1]", R"(["x"])", R"({"a":"/x"})",
                          R"("/")", R"([null])"};
    const std::string longest = "\"" + std::string(63, 'v') + "\"";
    const auto document = [](const std::string& version, const std::string& args,
                             const std::string& cwd, const std::string& path,
                             const std::string& process, const std::string& root) {
        const auto put = [](const char* key, const std::string& value) {
            return value.empty() ? "" : "\"" + std::string(key) + "\":" + value + ",";
        };
        const std::string in_process = put("args", args) + put("cwd", cwd) + R"("x":0)";
        return "{" + put("ociVersion", version) +
               put("process", process == "-" ? "{" + in_process + "}" : process) +
               put("root", root == "-" ? "{" + put("path", path) + R"("x":0})" : root) +
               R"("x":0})";
    };
    const std::string args = R"(["/a"])";
    int refused = 0;
    const auto same = [&refused](const std::string& text) {
        EXPECT_EQ(is_refused(text), !is_created(text)) << text;
        refused += is_refused(text) ? 1 : 0;
    };
    same(document(longest, args, R"("/")", R"("r")", "-", "-"));
    EXPECT_EQ(refused, 0);
    same(document("\"x" + longest.substr(1), args, R"("/")", R"("r")", "-", "-"));
    EXPECT_EQ(refused, 1);
    for (const std::string& value : values) {
        same(document(value, args, R"("/")", R"("r")", "-", "-"));
        same(document(longest, value, R"("/")", R"("r")", "-", "-"));
        same(document(longest, args, value, R"("r")", "-", "-"));
        same(document(longest, args, R"("/")", value, "-", "-"));
        same(document(longest, args, R"("/")", R"("r")", value, "-"));
        same(document(longest, args, R"("/")", R"("r")", "-", value));
    }
}

TEST(ConfigCheckCall, FailsWithTheReasonWhenMemoryIsShort)
{
    const std::string text = R"({"a": 1, "b": [2]})";
    const auto ignore = [](const ZNC_CONFIG_FINDING*, void*) {};
    alloc_fault::arm(0);
    ASSERT_EQ(zncConfigCheck(text.data(), text.size(), ignore, nullptr), OK);
    const unsigned needed = alloc_fault::disarm();
    ASSERT_GT(needed, 4U);
    for (unsigned n = 1; n <= needed; ++n) {
        errno = 0;
        alloc_fault::arm(n);
        const STATUS status = zncConfigCheck(text.data(), text.size(), ignore, nullptr);
        alloc_fault::disarm();
        EXPECT_EQ(status, ERROR) << n;
        EXPECT_EQ(errno, ENOMEM) << n;
    }
}
