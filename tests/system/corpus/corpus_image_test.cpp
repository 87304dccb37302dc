// Tests that unpack hostile images, which are layouts with a single error. Images that are refused
// leave no bundle and no layer; for the others, the configuration contains exactly what the image
// specifies.
#include "corpus_images.hpp"
#include "corpus_world.hpp"

#include <gtest/gtest.h>

#include <cJSON.h>

using corpus::Draft;
using corpus::ImageCase;
using corpus::Outcome;
using corpus::Storage;
using corpus::World;

namespace {

std::vector<ImageCase> gathered()
{
    std::vector<ImageCase> all;
    for (const auto& part :
         {corpus::digest_cases(), corpus::size_cases(), corpus::file_cases(), corpus::json_cases(),
          corpus::structure_cases(), corpus::configuration_cases()})
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

const std::vector<ImageCase>& cases()
{
    static const std::vector<ImageCase> kCases = gathered();
    return kCases;
}

struct DeleteJson {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, DeleteJson>;

// Finds a member such as "process.cwd" in a document.
const cJSON* at(const cJSON* item, const std::string& path)
{
    std::istringstream parts(path);
    for (std::string part; item != nullptr && std::getline(parts, part, '.');)
        item = cJSON_GetObjectItemCaseSensitive(item, part.c_str());
    return item;
}

void expect_configuration(const std::string& bundle, const std::string& path,
                          const std::string& expected)
{
    const Json document(cJSON_Parse(test_tree::read_file(bundle + "/config.json").c_str()));
    const Json value(cJSON_Parse(expected.c_str()));
    ASSERT_NE(value, nullptr) << expected;
    const cJSON* found = at(document.get(), path);
    ASSERT_NE(found, nullptr) << path;
    const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(found),
                                                            &cJSON_free);
    EXPECT_TRUE(cJSON_Compare(found, value.get(), 1)) << path << " is " << text.get();
}

using CorpusImages = testing::TestWithParam<std::tuple<std::size_t, Storage>>;

std::string test_name(const testing::TestParamInfo<CorpusImages::ParamType>& info)
{
    return cases().at(std::get<0>(info.param)).name + "_" +
           corpus::name_of(std::get<1>(info.param));
}

} // namespace

TEST_P(CorpusImages, ResultIsTheOneInTheTable)
{
    const auto [index, storage] = GetParam();
    const ImageCase& one = cases().at(index);
    World world(storage);
    Draft draft;
    draft.set = one.set;
    draft.write(world.layout());
    if (one.then)
        one.then(draft);
    const Outcome outcome = world.unpack({draft.layer()});
    EXPECT_EQ(world.damage(), "");
    EXPECT_EQ(world.leftovers(outcome), "");
    if (one.code >= 0) {
        EXPECT_EQ(outcome.status, ERROR);
        EXPECT_EQ(outcome.error, one.code) << std::hex << outcome.error << " and not " << one.code;
        return;
    }
    ASSERT_EQ(outcome.status, OK) << std::hex << outcome.error;
    EXPECT_EQ(corpus::tree_of(world.root()), std::set<std::string>{"file=content"});
    for (const auto& [path, value] : one.configuration)
        expect_configuration(world.bundle(), path, value);
}

// Images that are refused are refused before the kind of storage matters.
static std::vector<CorpusImages::ParamType> runs()
{
    std::vector<CorpusImages::ParamType> all;
    for (std::size_t i = 0; i < cases().size(); ++i)
        for (const Storage storage : {Storage::kLayered, Storage::kRaw, Storage::kFlattened})
            if (storage == Storage::kLayered || cases()[i].code < 0)
                all.emplace_back(i, storage);
    return all;
}

INSTANTIATE_TEST_SUITE_P(Images, CorpusImages, testing::ValuesIn(runs()), test_name);

TEST(CorpusImageTable, EveryCaseHasANameOfItsOwn)
{
    std::set<std::string> names;
    for (const ImageCase& one : cases())
        EXPECT_TRUE(names.insert(one.name).second) << one.name;
    EXPECT_GE(names.size(), 300U);
}
