// Documents of an image: JSON that is invalid, huge or ambiguous, members of wrong types, and
// configurations that request more than an image may.
#include "corpus_images.hpp"

#include "zncontainer.h"

namespace corpus {

namespace {

namespace fs = std::filesystem;
constexpr int kRight = -1;

std::string repeated(const std::string& text, std::size_t count)
{
    std::string all;
    all.reserve(text.size() * count);
    for (; count > 0; --count)
        all += text;
    return all;
}

struct Document {
    std::string name;
    std::string key;
    int invalid;
};

const std::vector<Document>& documents()
{
    static const std::vector<Document> kDocuments = {
        {"Version", "oci-layout", S_zncLib_LAYOUT_INVALID},
        {"Index", "index", S_zncLib_INDEX_INVALID},
        {"Manifest", "manifest", S_zncLib_MANIFEST_INVALID},
        {"Config", "config", S_zncLib_CONFIG_INVALID}};
    return kDocuments;
}

std::vector<std::pair<std::string, std::string>> broken_texts()
{
    return {{"IsEmpty", " "}, // "" would mean an empty file; this is a single blank
            {"IsBlank", repeated(" \n", 1000)},
            {"IsCutOff", "{"},
            {"HasTextBehind", "$DOC trailing"},
            {"IsThereTwice", "$DOC$DOC"},
            {"HasACommaBehind", "$DOC,"},
            {"IsInAList", "[$DOC]"},
            {"IsAText", R"("document")"},
            {"IsANumber", "2"},
            {"IsNull", "null"},
            {"HasAComment", "/* */$DOC"},
            {"IsNoJson", "<xml/>"},
            {"IsUtf16", std::string("\xff\xfe{\0}\0", 6)},
            {"HasANulBehind", "$DOC" + std::string(1, '\0')},
            {"IsOnlyBrackets", repeated("[", 1000000)},
            {"IsOnlyBraces", repeated("{\"a\":", 100000)},
            {"IsDeepAndClosed", repeated("[", 100000) + repeated("]", 100000)},
            {"IsManyQuotes", repeated("\"", 99999)},
            {"IsANumberWithoutEnd", repeated("9", 100000)},
            {"IsATextWithoutEnd", "\"" + repeated("a", 100000)},
            {"IsEscapesWithoutEnd", "\"" + repeated("\\u", 50000)}};
}

// Unknown members that must be ignored.
std::vector<std::pair<std::string, std::string>> harmless_members()
{
    return {{"DeepMember", ",\"x\":" + repeated("[", 900) + repeated("]", 900)},
            {"LargeMember", ",\"x\":\"" + repeated("a", 100000) + "\""},
            {"LargeNumber", ",\"x\":1e999"},
            {"LongNumber", ",\"x\":" + repeated("9", 60)},
            {"ManyMembers", repeated(",\"x\":0", 20000)},
            {"ManyElements", ",\"x\":[0" + repeated(",0", 50000) + "]"},
            {"EmptyName", ",\"\":0"},
            {"EscapedName", R"(,"\u0078\n\u001b[31m":0)"},
            {"Prototype", R"(,"__proto__":{"schemaVersion":1})"}};
}

} // namespace

std::vector<ImageCase> json_cases()
{
    std::vector<ImageCase> cases;
    for (const Document& document : documents()) {
        for (const auto& [name, text] : broken_texts())
            cases.push_back({document.name + name, document.invalid, {{document.key, text}}});
        cases.push_back({document.name + "IsDeeperThanIsRead",
                         document.invalid,
                         {{document.key, repeated("[", 1001) + repeated("]", 1001)}}});
        cases.push_back(
            {document.name + "HasAByteOrderMark", kRight, {{document.key, "\xef\xbb\xbf$DOC"}}});
        cases.push_back(
            {document.name + "HasBlanksAround", kRight, {{document.key, " \t\r\n$DOC\n\n "}}});
    }
    for (const auto& [name, key] : {std::pair("Index", "index"), std::pair("Manifest", "manifest"),
                                    std::pair("Config", "document")})
        for (const auto& [what, text] : harmless_members())
            cases.push_back(
                {std::string(name) + "HasA" + what, kRight, {{std::string(key) + ".extra", text}}});
    cases.push_back({"IndexOfAGigabyte", S_zncLib_INDEX_INVALID, {}, [](const Draft& draft) {
                         fs::resize_file(draft.index_file, std::uintmax_t{1} << 30);
                     }});
    cases.push_back({"VersionOfAGigabyte", S_zncLib_LAYOUT_INVALID, {}, [](const Draft& draft) {
                         fs::resize_file(draft.version_file, std::uintmax_t{1} << 30);
                     }});
    return cases;
}

// ------------------------------------------------------------------ members

namespace {

// Of duplicate members, compared case-insensitively, the first one counts.
std::vector<ImageCase> twin_cases()
{
    const std::string wrong = "\"sha256:" + std::string(64, '0') + "\"";
    return {
        {"IndexHasTwoVersionsTheFirstRight", kRight, {{"index.extra", R"(,"schemaVersion":1)"}}},
        {"IndexHasTwoVersionsTheFirstWrong",
         S_zncLib_INDEX_INVALID,
         {{"index.first", R"("schemaVersion":1,)"}}},
        {"IndexHasTwoListsTheFirstRight", kRight, {{"index.extra", R"(,"manifests":[])"}}},
        {"IndexHasTwoListsTheFirstEmpty",
         S_zncLib_INDEX_INVALID,
         {{"index.first", R"("manifests":[],)"}}},
        {"IndexHasItsListInCapitalsFirst",
         S_zncLib_INDEX_INVALID,
         {{"index.first", R"("MANIFESTS":[],)"}}},
        {"EntryHasTwoDigestsTheFirstRight", kRight, {{"entry.extra", ",\"digest\":" + wrong}}},
        {"EntryHasTwoDigestsTheFirstWrong",
         S_zncLib_MANIFEST_NOT_FOUND,
         {{"entry.first", "\"digest\":" + wrong}}},
        {"EntryHasTwoSizesTheFirstWrong", S_zncLib_INDEX_INVALID, {{"entry.first", "\"size\":1"}}},
        {"ManifestHasTwoConfigsTheFirstRight", kRight, {{"manifest.extra", R"(,"config":{})"}}},
        {"ManifestHasTwoConfigsTheFirstWrong",
         S_zncLib_MANIFEST_INVALID,
         {{"manifest.first", R"("config":{},)"}}},
        {"ManifestHasTwoListsTheFirstEmpty",
         S_zncLib_MANIFEST_INVALID,
         {{"manifest.first", R"("layers":[],)"}}},
        {"ManifestHasAListOfManifestsToo",
         kRight,
         {{"manifest.extra", R"(,"manifests":[{"digest":"sha256:0"}])"}}},
        {"ManifestSaysThatItIsAnIndex",
         kRight,
         {{"manifest.extra", R"(,"mediaType":"application/vnd.oci.image.index.v1+json")"}}},
        {"IndexHasAConfigAndLayersToo",
         kRight,
         {{"index.extra", R"(,"config":{},"layers":[{}],"mediaType":"x")"}}},
        {"LayerHasTwoDigestsTheFirstWrong",
         S_zncLib_MANIFEST_INVALID,
         {{"layer.first", "\"digest\":" + wrong}}},
        {"ConfigHasTwoSystemsTheFirstRight", kRight, {{"document.extra", R"(,"os":"linux")"}}},
        {"ConfigHasTwoSystemsTheFirstForeign",
         S_zncLib_INDEX_INVALID,
         {{"document.first", R"("os":"linux",)"}}}};
}

std::vector<ImageCase> kind_cases()
{
    std::vector<ImageCase> cases;
    const auto kinds = [&cases](const std::string& name, const std::string& key, int code,
                                const std::vector<std::string>& texts) {
        for (std::size_t i = 0; i < texts.size(); ++i)
            cases.push_back({name + "InForm" + std::to_string(i + 1), code, {{key, texts[i]}}});
    };
    const std::string no[] = {"\"x\"", "5", "null", "true", "[]", "{}"};
    kinds("EntriesOfAWrongKind", "entries", S_zncLib_INDEX_INVALID,
          {no[0], no[1], no[2], no[3], no[4], no[5], "", "[null]", "[5]", "[[]]", "[{}]",
           R"({"0":{}})"});
    kinds("LayersOfAWrongKind", "layers", S_zncLib_MANIFEST_INVALID,
          {no[0], no[1], no[2], no[3], no[4], no[5], "", "[null]", "[5]", "[[]]", "[{}]"});
    kinds("DiffIdsOfAWrongKind", "diff_ids", S_zncLib_CONFIG_INVALID,
          {no[0], no[1], no[2], no[3], no[4], no[5], "", "[null]", "[5]", R"([""])",
           R"(["sha256"])", R"(["sha256:"])", R"(["sha256:../../../../outside"])",
           "[\"sha256:" + std::string(63, 'a') + "\"]", "[\"sha256:" + std::string(65, 'a') + "\"]",
           "[\"sha512:" + std::string(128, 'a') + "\"]", "[\"md5:" + std::string(32, 'a') + "\"]",
           "[\"sha256:" + std::string(5000, 'a') + "\"]", "[\"" + std::string(5000, 'a') + "\"]"});
    const std::string types[] = {R"("")",
                                 "null",
                                 "5",
                                 R"("application/vnd.oci.image.layer.v1.tar+zstd")",
                                 R"("application/vnd.oci.image.manifest.v1+json ")",
                                 "\"" + std::string(100000, 'a') + "\""};
    for (const auto& [name, key, code] : {std::tuple("Entry", "entry", S_zncLib_INDEX_INVALID),
                                          std::tuple("Config", "config", S_zncLib_MANIFEST_INVALID),
                                          std::tuple("Layer", "layer", S_zncLib_MANIFEST_INVALID)})
        kinds(std::string("MediaTypeOf") + name + "Wrong", std::string(key) + ".mediaType", code,
              {types[0], types[1], types[2], types[3], types[4], types[5], ""});
    return cases;
}

} // namespace

std::vector<ImageCase> structure_cases()
{
    std::vector<ImageCase> cases = twin_cases();
    for (ImageCase& one : kind_cases())
        cases.push_back(std::move(one));
    cases.push_back({"EntryNamesANestedIndex",
                     kRight,
                     {{"entry.mediaType", R"("application/vnd.oci.image.index.v1+json")"}}});
    cases.push_back({"NestedIndexIsNoManifest",
                     S_zncLib_MANIFEST_INVALID,
                     {{"entry.mediaType", R"("application/vnd.oci.image.index.v1+json")"},
                      {"manifest", R"({"schemaVersion":2,"manifests":[]})"}}});
    cases.push_back({"IndexWithThousandsOfBadEntries",
                     S_zncLib_INDEX_INVALID,
                     {{"entries", "[" + repeated("{},", 99999) + "{}]"}}});
    cases.push_back({"ManifestWithThousandsOfBadLayers",
                     S_zncLib_MANIFEST_INVALID,
                     {{"layers", "[" + repeated("{},", 99999) + "{}]"}}});
    cases.push_back(
        {"ConfigWithThousandsOfDiffIds",
         kRight,
         {{"diff_ids", "[" + repeated("\"sha256:" + std::string(64, 'a') + "\",", 20000) +
                           "\"sha256:" + std::string(64, 'b') + "\"]"}}});
    cases.push_back({"VersionOfAnotherLayout",
                     S_zncLib_LAYOUT_INVALID,
                     {{"oci-layout", R"({"imageLayoutVersion":"1.0.1"})"}}});
    cases.push_back({"VersionAsANumber",
                     S_zncLib_LAYOUT_INVALID,
                     {{"oci-layout", R"({"imageLayoutVersion":1.0})"}}});
    return cases;
}

// ------------------------------------------------------------------ configurations

std::vector<ImageCase> configuration_cases()
{
    std::vector<ImageCase> cases;
    const auto becomes = [&cases](const std::string& name, const std::string& section,
                                  const std::string& path, const std::string& value) {
        cases.push_back(
            {"Asking" + name, kRight, {{"section", section}}, nullptr, {{path, value}}});
    };
    for (const auto& [name, dir] :
         {std::pair("ToStartInADescriptor", "/proc/self/fd/7"),
          std::pair("ToStartOutside", "../.."), std::pair("ToStartInTheHostsRoot", "/proc/1/root"),
          std::pair("ToStartNowhere", ""), std::pair("ToStartBehindANewline", "/a\\nb")})
        becomes(name, std::string(R"({"WorkingDir":")") + dir + "\"}", "process.cwd",
                std::string("\"") + dir + "\"");
    becomes("ToStartInANumber", R"({"WorkingDir":5})", "process.cwd", "5");
    for (const auto& [name, user, uid, gid] :
         {std::tuple("ForRoot", "0:0", "0", "0"), std::tuple("ForNobodyByName", "nobody", "0", "0"),
          std::tuple("ForMinusOne", "4294967295:4294967295", "4294967295", "4294967295"),
          std::tuple("ForAUserInHexadecimal", "0x10:010", "16", "8"),
          std::tuple("ForACommand", "$(id):`id`", "0", "0"),
          std::tuple("ForColons", ":::", "0", "0"),
          std::tuple("ForAUserAndAPath", "1000:/etc/shadow", "1000", "0")}) {
        const std::string section = std::string(R"({"User":")") + user + "\"}";
        becomes(std::string(name) + "AsUser", section, "process.usr.uid", uid);
        becomes(std::string(name) + "AsGroup", section, "process.usr.gid", gid);
    }
    becomes("ForAnotherLoader", R"({"Env":["LD_PRELOAD=/evil.so","=","A\nB=\u001b"]})",
            "process.env", R"(["LD_PRELOAD=/evil.so","=","A\nB=\u001b"])");
    becomes("ForAnOptionAsProgram", R"({"Entrypoint":["--help"],"Cmd":["","a b"]})", "process.args",
            R"(["--help","","a b"])");
    becomes("ForAProgramThatIsNoList", R"({"Entrypoint":"/bin/sh"})", "process.args", "[]");
    becomes("ForAnotherHostname", R"({"Hostname":"host","Domainname":"domain"})", "hostname",
            R"("Zarnel")");
    becomes("ForAWritableRoot", R"({"root":{"path":"/","readonly":false},"Root":"/"})",
            "root.readonly", "false");
    becomes("ForAVolumeThatClimbs", R"({"Volumes":{"../../etc:../../etc:rw:bind":{}}})", "mounts",
            R"([{"destination":"../../etc","source":"../../etc","type":"bind","options":["rw"]}])");
    becomes("ForAVolumeWithoutAPlace", R"({"Volumes":{"/data":{}}})", "mounts",
            R"([{"destination":"","source":"/data","type":"unknown","options":[]}])");
    becomes("ForAVolumeOfOnlyColons", R"({"Volumes":{":::::":{}}})", "mounts",
            R"([{"destination":"","source":"","type":"::","options":[]}])");
    becomes("ForLabelsThatAreNone", R"({"Labels":{"a":["b"],"":null}})", "annotations.a",
            R"(["b"])");
    becomes("ForATaskByItsLabels", R"({"Labels":{"com.quenmark.zarnel.rtp.x":"y"}})",
            "zarnel.rtp.x", R"("y")");
    becomes("ForResources", R"({"Resources":{"memory":-1},"resources":{}})", "zarnel.resources",
            "{}");
    for (const auto& [name, text] : {std::pair("AText", "\"x\""), std::pair("AList", "[]"),
                                     std::pair("Null", "null"), std::pair("ANumber", "5")})
        cases.push_back({std::string("ExecutionSectionIs") + name, kRight, {{"section", text}}});
    cases.push_back(
        {"ExecutionSectionIsMissing", S_zncLib_BUNDLE_CONFIG_PARAM_INVALID, {{"section", ""}}});
    return cases;
}

} // namespace corpus
