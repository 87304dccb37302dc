// Compares how the library and jq read randomly modified bundle configurations: the same strings,
// counts and defaults. DIFFERENTIAL_SEED repeats a run, DIFFERENTIAL_DOCUMENTS sets the number of
// documents.
#include "test_tree.hpp"

#include "zncontainer.h"

#include <gtest/gtest.h>

#include <cJSON.h>

#include <cstdio>
#include <cstdlib>
#include <random>

namespace {

struct DeleteJson {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, DeleteJson>;

constexpr char kDocument[] =
    R"({"ociVersion":"1.0.0","hostname":"host","process":{"args":["/bin/app",
"-v"],"env":["A=1","B=2"],"cwd":"/srv","terminal":true,"usr":{"uid":1,"gid":2}},"root":{"path":"rootfs",
"readonly":true},"mounts":[{"source":"/a","destination":"/b","type":"bind","options":["ro","nosuid"]},
{"source":"/c","destination":"/d"}],"annotations":{"a.b":"c","d":"e"},"zarnel":{"resources":{},"rtp":{
"rtpOptions":"1","rtpPriority":"50","rtpStackSize":"65536","rtpTaskOptions":"7"}}})";

// The same rules in the jq language: names are case-insensitive and the first one counts; the
// values of an object also count as the elements of a list.
constexpr char kProgram[] = R"jq(
def get($name): if type == "object"
    then [to_entries[] | select((.key | ascii_downcase) == $name) | {v: .value}][0] else null end;
def member($name): get($name) | if . == null then null else .v end;
def has_it($name): get($name) != null;
def text($name): member($name) | if type == "string" then . else null end;
def truth($name): member($name) == true;
def elements: if type == "array" then . elif type == "object" then [.[]] else [] end;
def texts: elements | map(if type == "string" then . else null end);
def number($name; $default): text($name) | if . == null then $default
    elif test("^[1-9][0-9]*") then capture("^(?<n>[0-9]+)").n | tonumber else 0 end;
def names: if type == "object" then keys_unsorted elif type == "array" then map(null) else [] end;
if (has_it("process") and (member("process") | has_it("args"))) | not then null else {
  version: text("ociversion"), hostname: text("hostname"),
  process: (member("process") | {args: (member("args") | texts),
    env: (if has_it("env") then member("env") | texts else null end), cwd: text("cwd"),
    terminal: truth("terminal")}),
  task: (member("zarnel") | member("rtp") | [number("rtpoptions"; 0), number("rtppriority"; 100),
    number("rtpstacksize"; 8192), number("rtptaskoptions"; 0)]),
  annotations: (if has_it("annotations") then member("annotations") |
    [names, texts] | transpose | if length == 0 then null else . end else null end),
  mounts: (if has_it("mounts") then member("mounts") | elements | map([text("source"),
    text("destination"), text("type"), (member("options") | texts | if length == 0 then null else . end)])
    else null end),
  root: (if has_it("root") and (member("root") | text("path")) != null
    then member("root") | [text("path"), truth("readonly")] else null end)
} end
)jq";

// ------------------------------------------------------------------ our reading as a document

cJSON* text_of(const char* text)
{
    return text != nullptr ? cJSON_CreateString(text) : cJSON_CreateNull();
}

cJSON* list_of(char* const* texts, std::int32_t count)
{
    cJSON* const list = cJSON_CreateArray();
    for (std::int32_t i = 0; i < count; ++i)
        cJSON_AddItemToArray(list, text_of(texts[i]));
    return list;
}

cJSON* process_of(const runtimeSpecConfigProcess& process)
{
    cJSON* const item = cJSON_CreateObject();
    cJSON_AddItemToObject(item, "args", list_of(process.args, process.argCount));
    cJSON_AddItemToObject(item, "env",
                          process.env != nullptr ? list_of(process.env, process.envCount)
                                                 : cJSON_CreateNull());
    cJSON_AddItemToObject(item, "cwd", text_of(process.cwd));
    cJSON_AddItemToObject(item, "terminal", cJSON_CreateBool(process.terminal ? 1 : 0));
    return item;
}

cJSON* task_of(const runtimeSpecConfigZarnel& task)
{
    const int numbers[] = {task.option, task.priority, task.stackSize, task.taskOption};
    return cJSON_CreateIntArray(numbers, 4);
}

cJSON* annotations_of(const runtimeSpecConfigAnnotations* annotations)
{
    if (annotations == nullptr)
        return cJSON_CreateNull();
    cJSON* const list = cJSON_CreateArray();
    for (std::int32_t i = 0; i < annotations->count; ++i) {
        char* pair[] = {annotations->k[i], annotations->v[i]};
        cJSON_AddItemToArray(list, list_of(pair, 2));
    }
    return list;
}

cJSON* mounts_of(const runtimeSpecConfigMounts* mounts)
{
    if (mounts == nullptr)
        return cJSON_CreateNull();
    cJSON* const list = cJSON_CreateArray();
    for (std::int32_t i = 0; i < mounts->count; ++i) {
        const runtimeSpecConfigMount& mount = *mounts->mount[i];
        char* texts[] = {mount.src, mount.dst, mount.type};
        cJSON* const item = list_of(texts, 3);
        cJSON_AddItemToArray(item, mount.opt != nullptr ? cJSON_CreateArray() : cJSON_CreateNull());
        cJSON_AddItemToArray(list, item);
    }
    return list;
}

cJSON* root_of(const runtimeSpecConfigRoot* root)
{
    if (root == nullptr)
        return cJSON_CreateNull();
    cJSON* const item = list_of(&root->path, 1);
    cJSON_AddItemToArray(item, cJSON_CreateBool(root->ro ? 1 : 0));
    return item;
}

struct DestroyConfig {
    void operator()(runtimeSpecConfig* config) const { zncDestroyRuntimeSpec(config); }
};

// Options end at the first element that is not a string, as for the code that uses them.
void fill_options(cJSON* mounts, const runtimeSpecConfigMounts* record)
{
    for (int i = 0; record != nullptr && i < record->count; ++i) {
        cJSON* const options = cJSON_GetArrayItem(cJSON_GetArrayItem(mounts, i), 3);
        char** const texts = record->mount[i]->opt;
        for (std::size_t k = 0; texts != nullptr && texts[k] != nullptr; ++k)
            cJSON_AddItemToArray(options, cJSON_CreateString(texts[k]));
    }
}

Json our_reading(const std::string& path)
{
    const std::unique_ptr<runtimeSpecConfig, DestroyConfig> config(
        zncInitializeRuntimeSpec(path.c_str()));
    if (!config)
        return Json(cJSON_CreateNull());
    Json all(cJSON_CreateObject());
    cJSON_AddItemToObject(all.get(), "version", text_of(config->version));
    cJSON_AddItemToObject(all.get(), "hostname", text_of(config->hostName));
    cJSON_AddItemToObject(all.get(), "process", process_of(*config->process));
    cJSON_AddItemToObject(all.get(), "task", task_of(*config->zarnel));
    cJSON_AddItemToObject(all.get(), "annotations", annotations_of(config->annotations));
    cJSON* const mounts = mounts_of(config->mounts);
    cJSON_AddItemToObject(all.get(), "mounts", mounts);
    fill_options(mounts, config->mounts);
    cJSON_AddItemToObject(all.get(), "root", root_of(config->root));
    return all;
}

// Truncates the options read by jq at the first element that is not a string.
void cut_options(cJSON* reading)
{
    cJSON* mount = nullptr;
    cJSON_ArrayForEach(mount, cJSON_GetObjectItem(reading, "mounts"))
    {
        cJSON* const options = cJSON_GetArrayItem(mount, 3);
        for (int i = 0; i < cJSON_GetArraySize(options);)
            if (cJSON_IsNull(cJSON_GetArrayItem(options, i)))
                while (cJSON_GetArraySize(options) > i)
                    cJSON_DeleteItemFromArray(options, i);
            else
                ++i;
    }
}

// ------------------------------------------------------------------ changes

class Changer {
  public:
    explicit Changer(std::uint64_t seed) : random_(seed) {}

    std::string next()
    {
        const Json document(cJSON_Parse(kDocument));
        for (std::size_t changes = random_() % 4; changes > 0; --changes)
            change(document.get());
        const std::unique_ptr<char, decltype(&cJSON_free)> text(
            cJSON_PrintUnformatted(document.get()), &cJSON_free);
        return text.get();
    }

  private:
    static void collect(cJSON* parent, std::vector<std::pair<cJSON*, cJSON*>>& all)
    {
        cJSON* item = nullptr;
        cJSON_ArrayForEach(item, parent)
        {
            all.emplace_back(parent, item);
            collect(item, all);
        }
    }

    cJSON* value()
    {
        static const std::vector<const char*> kValues = {"null",
                                                         "true",
                                                         "false",
                                                         "0",
                                                         "-1.5",
                                                         "1e30",
                                                         "\"\"",
                                                         "\"x\"",
                                                         "\"12\"",
                                                         "\"64k\"",
                                                         "\"x7\"",
                                                         "[]",
                                                         "{}",
                                                         "[\"a\",5,null,\"b\"]",
                                                         "[[]]",
                                                         "{\"k\":\"v\",\"n\":1}",
                                                         "{\"path\":\"p\"}",
                                                         "\"\\u00e4\\n\\\"\\u20ac\\ud83d\\ude00\"",
                                                         "[null]",
                                                         "{\"args\":{\"a\":\"b\"}}"};
        return cJSON_Parse(kValues[random_() % kValues.size()]);
    }

    void change(cJSON* document)
    {
        std::vector<std::pair<cJSON*, cJSON*>> all;
        collect(document, all);
        if (all.empty())
            return;
        const auto [parent, item] = all[random_() % all.size()];
        switch (random_() % 5) {
        case 0:
            cJSON_Delete(cJSON_DetachItemViaPointer(parent, item));
            break;
        case 1: // in capitals, which names the same member
            for (char* c = item->string; c != nullptr && *c != '\0'; ++c)
                *c = static_cast<char>(std::toupper(*c));
            break;
        case 2:
            if (cJSON_IsArray(parent))
                cJSON_AddItemToArray(parent, value());
            else
                cJSON_AddItemToObject(parent, ("new" + std::to_string(random_())).c_str(), value());
            break;
        default:
            replace(parent, item);
        }
    }

    void replace(cJSON* parent, cJSON* item)
    {
        cJSON* const fresh = value();
        if (item->string != nullptr) {
            const std::string name = item->string;
            fresh->string = cJSON_strdup(name);
        }
        cJSON_ReplaceItemViaPointer(parent, item, fresh);
    }

    static char* cJSON_strdup(const std::string& text)
    {
        char* const copy = static_cast<char*>(cJSON_malloc(text.size() + 1));
        text.copy(copy, text.size());
        copy[text.size()] = '\0';
        return copy;
    }

    std::mt19937_64 random_;
};

std::uint64_t figure(const char* name, std::uint64_t otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

std::string printed(const cJSON* item)
{
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(item),
                                                            &cJSON_free);
    return text.get();
}

} // namespace

TEST(DifferentialJson, ChangedConfigurationsAreReadAsByJq)
{
    if (std::system("command -v jq >/dev/null") != 0)
        GTEST_SKIP() << "jq is not installed";
    const test_tree::TempDir dir;
    const std::uint64_t seed = figure("DIFFERENTIAL_SEED", std::random_device()());
    const std::uint64_t count = figure("DIFFERENTIAL_DOCUMENTS", 500);
    SCOPED_TRACE("DIFFERENTIAL_SEED=" + std::to_string(seed));
    Changer changer(seed);
    std::vector<std::string> documents;
    std::string lines;
    for (std::uint64_t i = 0; i < count; ++i)
        lines += documents.emplace_back(changer.next()) + "\n";
    test_tree::write_file(dir / "documents", lines);
    test_tree::write_file(dir / "program", kProgram);
    ASSERT_EQ(std::system(("jq -c -f " + (dir / "program") + " " + (dir / "documents") + " >" +
                           (dir / "readings"))
                              .c_str()),
              0);
    std::istringstream readings(test_tree::read_file(dir / "readings"));
    std::uint64_t refused = 0;
    for (const std::string& document : documents) {
        std::string line;
        ASSERT_TRUE(std::getline(readings, line));
        const Json theirs(cJSON_Parse(line.c_str()));
        ASSERT_NE(theirs, nullptr) << line;
        cut_options(theirs.get());
        test_tree::write_file(dir / "config.json", document);
        const Json ours = our_reading(dir / "config.json");
        ASSERT_EQ(printed(ours.get()), printed(theirs.get())) << document;
        refused += cJSON_IsNull(ours.get()) ? 1 : 0;
    }
    std::printf("%llu documents from seed %llu read alike, %llu of them refused by both\n",
                static_cast<unsigned long long>(count), static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(refused));
    EXPECT_LT(refused, count);
}
