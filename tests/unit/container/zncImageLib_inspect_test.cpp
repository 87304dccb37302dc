// Tests of the inspection document of a layout.
#include "zncImageLib.hpp"

#include "alloc_fault.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;
using layout::Image;
using znc::CJsonPtr;

std::string printed(const cJSON* item)
{
    if (item == nullptr)
        return "(none)";
    const znc::CJsonText text(cJSON_PrintUnformatted(item));
    return text.get();
}

std::vector<std::string> names(const cJSON* object)
{
    std::vector<std::string> all;
    for (const cJSON* item = object->child; item != nullptr; item = item->next)
        all.emplace_back(item->string);
    return all;
}

class Inspect : public ::testing::Test {
  protected:
    std::string member(int index, const char* name)
    {
        return printed(
            cJSON_GetObjectItemCaseSensitive(cJSON_GetArrayItem(array_.get(), index), name));
    }
    int inspect() { return zncImageInspect(layout_.c_str(), array_.get()); }
    int count() { return cJSON_GetArraySize(array_.get()); }

    layout::TempDir dir_;
    layout::Layout layout_{dir_.path() / "img"};
    CJsonPtr array_{cJSON_CreateArray()};
};

TEST_F(Inspect, AnImageHasItsMembersInOrder)
{
    Image image;
    image.config_extra = R"(,"author":"A","created":"2024-01-01T00:00:00Z","container":"c0",)"
                         R"("container_config":{"x":1})";
    image.section = R"({"User":"1:2","Cmd":["sh"],"Env":["A=1"]})";
    layout_.add(image);
    ASSERT_EQ(inspect(), 0);
    ASSERT_EQ(count(), 1);
    EXPECT_EQ(names(array_->child),
              (std::vector<std::string>{"Id", "RepoTags", "Created", "Container", "ContainerConfig",
                                        "zncVersion", "Author", "Config", "Architecture", "Os",
                                        "Size", "VirtualSize", "RootFS", "annotations"}));
    EXPECT_EQ(member(0, "Id"), "\"sha256:" + layout::sha256_hex(layout_.config_json(image)) + "\"");
    EXPECT_EQ(member(0, "RepoTags"), R"("")");
    EXPECT_EQ(member(0, "Created"), R"("2024-01-01T00:00:00Z")");
    EXPECT_EQ(member(0, "Container"), R"("c0")");
    EXPECT_EQ(member(0, "ContainerConfig"), R"({"x":1})");
    EXPECT_EQ(member(0, "zncVersion"), R"("1.0.1.6")");
    EXPECT_EQ(member(0, "Author"), R"("A")");
    EXPECT_EQ(member(0, "Architecture"), R"("amd64")");
    EXPECT_EQ(member(0, "Os"), R"("zarnel")");
    EXPECT_EQ(member(0, "RootFS"), R"({"type":"layers","diff_ids":["sha256:)" +
                                       layout::sha256_hex(image.layers[0]) + "\"]}");
    EXPECT_EQ(member(0, "annotations"), R"({"org.opencontainers.image.ref.name":"latest"})");
    EXPECT_EQ(
        member(0, "Config"),
        R"({"Hostname":"Zarnel","Domainname":"","User":"1:2","ExposedPorts":"","Env":["A=1"],)"
        R"("Cmd":["sh"],"Entrypoint":"","WorkingDir":"","Image":"","Volumes":"","OnBuild":"",)"
        R"("Labels":"","StopSignal":""})");
}

TEST_F(Inspect, RepoTagsComeFromTheManifest)
{
    const Image image;
    std::string manifest = layout_.manifest_json(
        layout_.add_described(layout_.config_json(image), layout::kConfigType),
        {layout_.add_described(image.layers[0], layout::kLayerType)});
    manifest.insert(1, R"("RepoTags":["a:b"],)");
    layout_.add_manifest(manifest);
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member(0, "RepoTags"), R"(["a:b"])");
}

TEST_F(Inspect, ThreeManifestsAreThreeObjectsInOrder)
{
    for (const char* arch : {"amd64", "arm64", "riscv64"}) {
        Image image;
        image.arch = arch;
        image.platform = R"({"os":"linux"})"; // inspection does not select by platform
        layout_.add(image);
    }
    ASSERT_EQ(inspect(), 0);
    ASSERT_EQ(count(), 3);
    EXPECT_EQ(member(0, "Architecture"), R"("amd64")");
    EXPECT_EQ(member(1, "Architecture"), R"("arm64")");
    EXPECT_EQ(member(2, "Architecture"), R"("riscv64")");
}

TEST_F(Inspect, WithoutAnAuthorItIsEmptyText)
{
    layout_.add({});
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member(0, "Author"), R"("")");
}

TEST_F(Inspect, TheSizeIsTheSumOfTheLayersAsStored)
{
    Image image;
    image.layers = {std::string(100, 'a'), std::string(250, 'b')};
    layout_.add(image);
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member(0, "Size"), "350");
    EXPECT_EQ(member(0, "VirtualSize"), "350");
}

TEST_F(Inspect, AnEntryWithoutAnnotationsHasNoSuchMember)
{
    Image image;
    image.name = "";
    layout_.add(image);
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(names(array_->child).back(), "RootFS");
}

TEST_F(Inspect, WithoutAnExecutionSectionConfigIsThereAndEmpty)
{
    Image image;
    image.section = "";
    layout_.add(image);
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(member(0, "Config"),
              R"({"Hostname":"Zarnel","Domainname":"","User":"","ExposedPorts":"","Env":"",)"
              R"("Cmd":"","Entrypoint":"","WorkingDir":"","Image":"","Volumes":"","OnBuild":"",)"
              R"("Labels":"","StopSignal":""})");
}

TEST_F(Inspect, TheHostnameIsFixed)
{
    const CJsonPtr section(cJSON_Parse(R"({"Hostname":"mine","Domainname":"my.net"})"));
    const CJsonPtr object(zncInspectImageContainer(section.get()));
    ASSERT_NE(object, nullptr);
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(object.get(), "Hostname")), "Zarnel");
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(object.get(), "Domainname")), "");
}

TEST_F(Inspect, AppendsToTheExistingElements)
{
    layout_.add({});
    ASSERT_EQ(inspect(), 0);
    ASSERT_EQ(inspect(), 0);
    EXPECT_EQ(count(), 2);
}

TEST_F(Inspect, ANullPathIsEINVALAndLeavesTheTaskErrorNumber)
{
    errno = EIO;
    EXPECT_EQ(zncImageInspect(nullptr, array_.get()), EINVAL);
    EXPECT_EQ(errno, EIO);
}

TEST_F(Inspect, ALayoutWithoutOciLayoutIsLayoutNotFoundAndEmptiesTheArray)
{
    layout_.add({});
    ASSERT_EQ(inspect(), 0);
    ASSERT_EQ(count(), 1);
    fs::remove(layout_.dir() / "oci-layout");
    EXPECT_EQ(inspect(), S_zncLib_LAYOUT_NOT_FOUND);
    EXPECT_EQ(errno, S_zncLib_LAYOUT_NOT_FOUND);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(array_->child, nullptr);
}

TEST_F(Inspect, APathTooLongReturnsZeroWithAnEmptyArray)
{
    EXPECT_EQ(zncImageInspect(std::string(1100, 'x').c_str(), array_.get()), 0);
    EXPECT_EQ(count(), 0);
}

TEST_F(Inspect, NoMemoryForTheRecordIsENOMEM)
{
    layout_.add({});
    alloc_fault::arm(1);
    const int error = inspect();
    alloc_fault::disarm();
    EXPECT_EQ(error, ENOMEM);
}

TEST_F(Inspect, ShortMemoryEmptiesTheArrayOrCostsSingleMembers)
{
    layout_.add({});
    alloc_fault::arm(0);
    ASSERT_EQ(inspect(), 0);
    const unsigned total = alloc_fault::disarm();
    const std::vector<std::string> all = names(array_->child);
    for (unsigned nth = 1; nth <= total; ++nth) {
        const CJsonPtr array(cJSON_CreateArray());
        alloc_fault::arm(nth);
        const int error = zncImageInspect(layout_.c_str(), array.get());
        alloc_fault::disarm();
        if (error != 0 || cJSON_GetArraySize(array.get()) == 0) {
            EXPECT_EQ(array->child, nullptr) << nth;
        } else {
            EXPECT_GE(names(array->child).size() + 1, all.size()) << nth;
            EXPECT_EQ(names(array->child).back(), "annotations") << nth;
        }
    }
}

TEST_F(Inspect, ConfigIsAddedToABodyOrRefused)
{
    const CJsonPtr body(cJSON_CreateObject());
    EXPECT_EQ(zncInspectImageConfig(body.get(), nullptr), OK);
    EXPECT_NE(cJSON_GetObjectItem(body.get(), "Config"), nullptr);
    const CJsonPtr bare(cJSON_CreateObject());
    alloc_fault::arm(1);
    EXPECT_EQ(zncInspectImageConfig(bare.get(), nullptr), ERROR);
    alloc_fault::disarm();
    EXPECT_EQ(bare->child, nullptr);
}

} // namespace
