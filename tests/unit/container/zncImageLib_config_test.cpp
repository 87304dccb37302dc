// Tests of the "config.json" generated from an image's configuration.
#include "zncImageLib.hpp"

#include "alloc_fault.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using znc::CJsonPtr;

// A record with one manifest and the given configuration.
class OneImage {
  public:
    explicit OneImage(const std::string& config_json) : record_(zncImageInfoCreate())
    {
        record_->manifests =
            static_cast<ZNC_IMAGE_MANIFEST*>(calloc(1, sizeof(ZNC_IMAGE_MANIFEST)));
        record_->manifestsCount = 1;
        record_->manifestsIndex = 0;
        cJSON* document = cJSON_Parse(config_json.c_str());
        EXPECT_NE(document, nullptr) << config_json;
        record_->manifests[0].manifestConfig.imageConfig.imageConfigJson = document;
    }
    [[nodiscard]] OCI_IMAGE* get() const { return record_.get(); }

  private:
    znc::OciImagePtr record_;
};

std::string printed(const cJSON* item)
{
    if (item == nullptr)
        return "(none)";
    const znc::CJsonText text(cJSON_PrintUnformatted(item));
    return text.get();
}

using Builder = STATUS (*)(OCI_IMAGE*, cJSON*);

// Returns what a builder adds for the execution section `section` (JSON).
std::string built(Builder builder, const std::string& section, const std::string& more = "")
{
    const OneImage image("{\"config\":" + section + more + "}");
    const CJsonPtr root(cJSON_CreateObject());
    EXPECT_EQ(builder(image.get(), root.get()), OK);
    return printed(root->child);
}

std::string mount(const std::string& key)
{
    const CJsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(zncImageGetMountInfo(object.get(), key.c_str()), OK);
    return printed(object.get());
}

std::string user(const char* text)
{
    const CJsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(zncImageGetUsrInfo(object.get(), text), OK);
    return printed(object.get());
}

class Document : public ::testing::Test {
  protected:
    STATUS write(const std::string& config, const char* root = "rootfs")
    {
        const OneImage image(config);
        errno = 0;
        return zncCreateOciBundleConfig(image.get(), file_.c_str(), root);
    }
    layout::TempDir dir_;
    std::string file_ = dir_ / "config.json";
};

constexpr char kFull[] = R"({
    "author":"A. Uthor","created":"2024-01-02T03:04:05Z",
    "config":{"User":"1000:100","Env":["A=1","B=2"],"WorkingDir":"/srv",
              "Entrypoint":["/bin/app"],"Cmd":["-v"],
              "Volumes":{"/data:/mnt/data:rw,nosuid:bind":{}},
              "ExposedPorts":{"80/tcp":{}},
              "Labels":{"com.example.x":"y","com.quenmark.zarnel.rtp.stackSize":"65536"},
              "StopSignal":"SIGTERM"}})";

// ------------------------------------------------------------------ the whole document

TEST_F(Document, HasItsMembersInOrder)
{
    ASSERT_EQ(write(kFull, "/overlay/abc"), OK);
    const CJsonPtr root(cJSON_Parse(layout::read_file(file_).c_str()));
    EXPECT_EQ(
        printed(root.get()),
        R"({"ociVersion":"1.0.0","process":{"env":["A=1","B=2"],"cwd":"/srv","args":["/bin/app","-v"],)"
        R"("usr":{"uid":1000,"gid":100}},"root":{"path":"/overlay/abc","readonly":false},)"
        R"("hostname":"Zarnel","mounts":[{"destination":"/mnt/data","source":"/data","type":"bind",)"
        R"("options":["rw","nosuid"]}],"annotations":{"org.opencontainers.image.exposedPorts":"80/tcp",)"
        R"("com.example.x":"y","org.opencontainers.image.author":"A. Uthor",)"
        R"("org.opencontainers.image.created":"2024-01-02T03:04:05Z",)"
        R"("org.opencontainers.image.stopSignal":"SIGTERM"},)"
        R"("zarnel":{"resources":{},"rtp":{"stackSize":"65536"}}})");
}

TEST_F(Document, OfAnEmptySectionStillHasTheFixedMembers)
{
    ASSERT_EQ(write(R"({"config":{}})"), OK);
    const CJsonPtr root(cJSON_Parse(layout::read_file(file_).c_str()));
    EXPECT_EQ(printed(root.get()),
              R"({"ociVersion":"1.0.0","process":{"env":[],"args":[],"usr":{}},)"
              R"("root":{"path":"rootfs","readonly":false},"hostname":"Zarnel","mounts":[],)"
              R"("annotations":{},"zarnel":{"resources":{},"rtp":{}}})");
}

TEST_F(Document, IsWrittenWithMode0660)
{
    ASSERT_EQ(write(kFull), OK);
    struct stat st = {};
    ASSERT_EQ(::stat(file_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U & ~0022U, 0660U & ~0022U);
}

TEST_F(Document, LeavesTheImageAsItWas)
{
    const OneImage image(kFull);
    cJSON* document = image.get()->manifests[0].manifestConfig.imageConfig.imageConfigJson;
    const std::string before = printed(document);
    ASSERT_EQ(zncCreateOciBundleConfig(image.get(), file_.c_str(), "rootfs"), OK);
    EXPECT_EQ(printed(document), before);
}

TEST_F(Document, ThatExistsIsBundleConfigExists)
{
    layout::write_file(file_, "mine");
    EXPECT_EQ(write(kFull), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_EXISTS);
    EXPECT_EQ(layout::read_file(file_), "mine");
}

TEST_F(Document, WithoutAnExecutionSectionIsBundleConfigParamInvalid)
{
    EXPECT_EQ(write("{}"), ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_PARAM_INVALID);
    EXPECT_FALSE(fs::exists(file_));
}

TEST_F(Document, ThatCannotBeWrittenIsBundleConfigParamInvalid)
{
    const OneImage image(kFull);
    EXPECT_EQ(
        zncCreateOciBundleConfig(image.get(), (dir_ / "absent/config.json").c_str(), "rootfs"),
        ERROR);
    EXPECT_EQ(errno, S_zncLib_BUNDLE_CONFIG_PARAM_INVALID);
}

TEST_F(Document, WithAnyAllocationFailingFailsOrLeavesOnlyAMountOut)
{
    const OneImage image(kFull);
    unsigned nth = 1;
    for (bool whole = false; !whole; ++nth) {
        errno = 0;
        alloc_fault::arm(nth);
        const STATUS status = zncCreateOciBundleConfig(image.get(), file_.c_str(), "rootfs");
        const int error = errno;
        whole = alloc_fault::disarm() < nth;
        if (status == OK) {
            // A mount that could not be allocated is omitted.
            const CJsonPtr root(cJSON_Parse(layout::read_file(file_).c_str()));
            EXPECT_EQ(cJSON_GetArraySize(cJSON_GetObjectItem(root.get(), "mounts")), whole ? 1 : 0);
            fs::remove(file_);
        } else if (nth > 1) {
            EXPECT_EQ(error, S_zncLib_BUNDLE_CONFIG_PARAM_INVALID) << nth;
        }
        EXPECT_FALSE(fs::exists(file_)) << nth;
        ASSERT_LT(nth, 10000U);
    }
    EXPECT_GT(nth, 40U);
}

TEST(Sections, WithoutAnExecutionSectionOnlyMountsFails)
{
    const OneImage image(R"({"author":"x"})");
    const CJsonPtr root(cJSON_CreateObject());
    EXPECT_EQ(zncCreateOciBundleConfigProcess(image.get(), root.get()), OK);
    EXPECT_EQ(zncCreateOciBundleConfigAnnotations(image.get(), root.get()), OK);
    EXPECT_EQ(zncCreateOciBundleConfigZarnel(image.get(), root.get()), OK);
    EXPECT_EQ(zncCreateOciBundleConfigMounts(image.get(), root.get()), ERROR);
    EXPECT_EQ(root->child, nullptr);
}

TEST(Sections, WithoutAManifestChosenThereIsNoExecutionSection)
{
    const OneImage image(kFull);
    const CJsonPtr root(cJSON_CreateObject());
    for (const int index : {-1, 1}) {
        image.get()->manifestsIndex = index;
        EXPECT_EQ(zncCreateOciBundleConfigMounts(image.get(), root.get()), ERROR);
        EXPECT_EQ(zncCreateOciBundleConfigProcess(image.get(), root.get()), OK);
    }
    EXPECT_EQ(root->child, nullptr);
}

// ------------------------------------------------------------------ process

TEST(Process, ArgsAreEntrypointThenCmd)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigProcess, R"({"Cmd":["-v"],"Entrypoint":["/bin/app"]})"),
              R"({"env":[],"args":["/bin/app","-v"],"usr":{}})");
    EXPECT_EQ(built(zncCreateOciBundleConfigProcess, R"({"Cmd":["sh","-c"]})"),
              R"({"env":[],"args":["sh","-c"],"usr":{}})");
}

TEST(Process, NullListsAreEmpty)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigProcess, R"({"Cmd":null,"Env":null,"User":""})"),
              R"({"env":[],"args":[],"usr":{"uid":0,"gid":0}})");
}

TEST(Process, TheWorkingDirectoryIsTakenAsItIs)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigProcess, R"({"WorkingDir":["odd"]})"),
              R"({"env":[],"cwd":["odd"],"args":[],"usr":{}})");
}

TEST(Process, AUserThatIsNoTextGivesAnEmptyObject)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigProcess, R"({"User":1000})"),
              R"({"env":[],"args":[],"usr":{}})");
}

TEST(User, IsTwoNumbersInTheBasesOfC)
{
    EXPECT_EQ(user("0x10:010"), R"({"uid":16,"gid":8})");
    EXPECT_EQ(user("1000:100"), R"({"uid":1000,"gid":100})");
    EXPECT_EQ(user("1000"), R"({"uid":1000,"gid":0})");
}

TEST(User, ThatIsANameOrBeginsWithAColonIsZero)
{
    for (const char* text : {"app", ":100", ":", "::", "", "app:users"})
        EXPECT_EQ(user(text), R"({"uid":0,"gid":0})") << text;
}

TEST(User, IsSplitAtTheFirstColon)
{
    EXPECT_EQ(user("5:6:7"), R"({"uid":5,"gid":6})");
    EXPECT_EQ(user("5::7"), R"({"uid":5,"gid":0})");
}

TEST(User, WithoutTextAddsNothing)
{
    EXPECT_EQ(user(nullptr), "{}");
}

TEST(User, UsesAtMost255Characters)
{
    EXPECT_EQ(user(("7" + std::string(260, ' ') + ":8").c_str()), R"({"uid":7,"gid":0})");
}

// ------------------------------------------------------------------ mounts

TEST(Mounts, WithoutVolumesAreAnEmptyArray)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigMounts, "{}"), "[]");
    EXPECT_EQ(built(zncCreateOciBundleConfigMounts, R"({"Volumes":null})"), "[]");
}

TEST(Mounts, ComeFromTheKeysInOrder)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigMounts, R"({"Volumes":{"/b":{},"/a:/c":5}})"),
              R"([{"destination":"","source":"/b","type":"unknown","options":[]},)"
              R"({"destination":"/c","source":"/a","type":"unknown","options":[]}])");
}

TEST(Mounts, OfAVolumeWithoutAKeyAreLeftOut)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigMounts, R"({"Volumes":["/data"]})"), "[]");
}

TEST(Mount, HasFourFields)
{
    EXPECT_EQ(
        mount("/data:/mnt/data:rw,nosuid:bind"),
        R"({"destination":"/mnt/data","source":"/data","type":"bind","options":["rw","nosuid"]})");
}

TEST(Mount, TheFourthFieldIsAllTheRest)
{
    EXPECT_EQ(mount("/a:/b::odd:type:x"),
              R"({"destination":"/b","source":"/a","type":"odd:type:x","options":[]})");
}

TEST(Mount, WithFewerThanThreeFieldsIsOfTypeUnknown)
{
    EXPECT_EQ(mount("/a:/b"),
              R"({"destination":"/b","source":"/a","type":"unknown","options":[]})");
    EXPECT_EQ(mount("/data"),
              R"({"destination":"","source":"/data","type":"unknown","options":[]})");
    EXPECT_EQ(mount(""), R"({"destination":"","source":"","type":"unknown","options":[]})");
}

TEST(Mount, WithThreeFieldsIsOfAnEmptyType)
{
    EXPECT_EQ(mount("/a:/b:ro"),
              R"({"destination":"/b","source":"/a","type":"","options":["ro"]})");
    EXPECT_EQ(mount("/a:/b:"), R"({"destination":"/b","source":"/a","type":"","options":[]})");
}

TEST(Mount, OptionsEndAtTheFirstEmptyOne)
{
    EXPECT_EQ(mount("a:b:x,,y:t"),
              R"({"destination":"b","source":"a","type":"t","options":["x"]})");
    EXPECT_EQ(mount("a:b:,x:t"), R"({"destination":"b","source":"a","type":"t","options":[]})");
    EXPECT_EQ(mount("a:b:x,y,:t"),
              R"({"destination":"b","source":"a","type":"t","options":["x","y"]})");
}

TEST(Mount, NullArgumentsFail)
{
    const CJsonPtr object(cJSON_CreateObject());
    EXPECT_EQ(zncImageGetMountInfo(nullptr, "/a"), ERROR);
    EXPECT_EQ(zncImageGetMountInfo(object.get(), nullptr), ERROR);
}

TEST(Mount, UsesAtMost255Characters)
{
    const CJsonPtr object(cJSON_CreateObject());
    ASSERT_EQ(zncImageGetMountInfo(object.get(), (std::string(300, 's') + ":d").c_str()), OK);
    EXPECT_EQ(std::string(cJSON_GetStringValue(cJSON_GetObjectItem(object.get(), "source"))),
              std::string(255, 's'));
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(object.get(), "destination")), "");
}

// ------------------------------------------------------------------ annotations and labels

TEST(Annotations, TwoPortsAreTwoMembersOfOneName)
{
    EXPECT_EQ(
        built(zncCreateOciBundleConfigAnnotations, R"({"ExposedPorts":{"80/tcp":{},"53/udp":{}}})"),
        R"({"org.opencontainers.image.exposedPorts":"80/tcp",)"
        R"("org.opencontainers.image.exposedPorts":"53/udp"})");
}

TEST(Annotations, LabelsGoWhereTheirPrefixSays)
{
    const std::string section =
        R"({"Labels":{"com.quenmark.zarnel.rtp.priority":"50","com.example.x":"y"}})";
    EXPECT_EQ(built(zncCreateOciBundleConfigAnnotations, section), R"({"com.example.x":"y"})");
    EXPECT_EQ(built(zncCreateOciBundleConfigZarnel, section),
              R"({"resources":{},"rtp":{"priority":"50"}})");
}

TEST(Annotations, AuthorAndCreatedComeFromTheDocumentNotTheSection)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigAnnotations, R"({"author":"no","StopSignal":"SIGHUP"})",
                    R"(,"author":"yes")"),
              R"({"org.opencontainers.image.author":"yes",)"
              R"("org.opencontainers.image.stopSignal":"SIGHUP"})");
}

TEST(Zarnel, ALabelThatIsOnlyThePrefixIsSkipped)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigZarnel,
                    R"({"Labels":{"com.quenmark.zarnel.rtp":"1","com.quenmark.zarnel.rtp.":"2",)"
                    R"("com.quenmark.zarnel.rtp_x":"3"}})"),
              R"({"resources":{},"rtp":{"":"2","x":"3"}})");
    EXPECT_EQ(
        built(zncCreateOciBundleConfigAnnotations, R"({"Labels":{"com.quenmark.zarnel.rtp":"1"}})"),
        "{}");
}

TEST(Zarnel, ValuesOfAnyTypeAreTakenAsTheyAre)
{
    EXPECT_EQ(built(zncCreateOciBundleConfigZarnel,
                    R"({"Labels":{"com.quenmark.zarnel.rtp.a":{"b":[1]}}})"),
              R"({"resources":{},"rtp":{"a":{"b":[1]}}})");
}

TEST(StrHasPrefix, MeasuresThePrefixWithABoundOf256)
{
    EXPECT_EQ(strHasPrefix("abc", "ab"), TRUE);
    EXPECT_EQ(strHasPrefix("abc", ""), TRUE);
    EXPECT_EQ(strHasPrefix("ab", "abc"), FALSE);
    EXPECT_EQ(strHasPrefix("xab", "ab"), FALSE);
    const std::string same(256, 'x');
    EXPECT_EQ(strHasPrefix(same.c_str(), (same + "y").c_str()), TRUE);
}

} // namespace
