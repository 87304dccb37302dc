// Tests which parts of an image's configuration reach a bundle, and what is restored that
// extraction loses.
#include "cli/containers/image_bundle.hpp"
#include "cli/images/image_mounts.hpp"
#include "cli/images/image_settings.hpp"
#include "cli/images/sticky.hpp"
#include "front/container_id.hpp"
#include "front/files.hpp"
#include "front/record.hpp"
#include "layout_builder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

#include "zarnel/fs.h"

using namespace zncctl;

namespace {

using Texts = std::vector<std::string>;
using Kind = ImageMount::Kind;

std::string key_of(const char* key, bool allow = false)
{
    return permitted_key(read_mount(key), allow).value_or("none");
}

std::string configuration(const std::string& section, const std::string& extra = "")
{
    return R"({"architecture":"amd64","os":"linux","rootfs":{"diff_ids":[]},"config":)" + section +
           extra + "}";
}

SettledConfiguration settled(const std::string& section, bool allow = false,
                             const std::string& extra = "")
{
    return filter_configuration(parse_json(configuration(section, extra)).value(), allow);
}

std::string section_of(const SettledConfiguration& settled)
{
    return compact(*member(settled.document, "config"));
}

std::string refusal(const std::string& section)
{
    try {
        settled(section);
    } catch (const BadConfiguration& bad) {
        return bad.what();
    }
    return "";
}

bool is_sticky(const std::string& path)
{
    struct stat st = {};
    return ::stat(path.c_str(), &st) == 0 && (st.st_mode & S_ISVTX) != 0;
}

} // namespace

TEST(ImageMount, KindIsDeterminedByTheLibrarysParser)
{
    EXPECT_EQ(read_mount("/data").kind, Kind::kVolume);
    EXPECT_EQ(read_mount("/data::rbind:bind").kind, Kind::kVolume);
    EXPECT_EQ(read_mount("/:/host").kind, Kind::kHost);
    EXPECT_EQ(read_mount("/:/host:rbind,dev,suid,rw").kind, Kind::kHost);
    EXPECT_EQ(read_mount("x:/host:bind:tmpfs").kind, Kind::kHost);
    EXPECT_EQ(read_mount("x:/tmp::tmpfs").kind, Kind::kMemory);
    EXPECT_EQ(read_mount("x:/p::proc").kind, Kind::kKernel);
    EXPECT_EQ(read_mount("x:/o:lowerdir=/:overlay").kind, Kind::kKernel);
}

TEST(ImageMount, OfTheHostIsLeftOutUnlessAllowed)
{
    EXPECT_EQ(key_of("/:/host:rbind,dev,suid,rw"), "none");
    EXPECT_EQ(key_of("/:/host:rbind,dev,suid,rw", true), "/:/host:rw,nosuid,nodev:bind");
    EXPECT_EQ(key_of("/:/host:rshared,bind,ro:bind", true), "/:/host:ro,nosuid,nodev:bind");
    EXPECT_EQ(key_of("etc:/host", true), "none"); // a relative host path is ambiguous
    EXPECT_EQ(key_of("/:/host:upperdir=x:bind", true), "none");
}

TEST(ImageMount, OfTheKernelsFileSystemsIsNeverKept)
{
    for (const bool allow : {false, true}) {
        EXPECT_EQ(key_of("x:/p::proc", allow), "none");
        EXPECT_EQ(key_of("x:/o:lowerdir=/:overlay", allow), "none");
        EXPECT_EQ(key_of("/dev/sda1:/d::ext4", allow), "none");
        EXPECT_EQ(key_of("x:/t:size=1m,dev,suid,mode=1777:tmpfs", allow),
                  "x:/t:size=1m,mode=1777,nosuid,nodev:tmpfs");
        EXPECT_EQ(key_of("/data", allow), "/data");
    }
}

TEST(ImageMount, WhoseKeyIsTooLongForItsOptionsIsLeftOut)
{
    const std::string key = "/a:/" + std::string(240, 'b') + ":ro:bind";
    EXPECT_EQ(key_of(key.c_str(), true), "none");
}

TEST(SettledConfiguration, LeavesOutTheHostsDirectoriesAndSaysSo)
{
    const SettledConfiguration made =
        settled(R"({"Volumes":{"/:/host:rbind,dev,suid,rw":{},"/data":{},"x:/p::proc":{}}})");
    EXPECT_EQ(section_of(made), R"({"WorkingDir":"/","Volumes":{"/data":{}},"Labels":{}})");
    EXPECT_EQ(made.notes, (Texts{"the image's mount of the host's / at /host is left out; "
                                 "--allow-image-mounts keeps it",
                                 "the image's mount of proc at /p is left out"}));
}

// Volumes are not mounted; in-memory filesystems are.
TEST(SettledConfiguration, RefusesMoreMountsThanTheDaemonMakesAtOnce)
{
    const auto volumes = [](int count, const std::string& from, const std::string& options) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += (i > 0 ? ",\"" : "\"") + from + std::to_string(i) + options + "\":{}";
        return R"({"Volumes":{)" + text + "}}";
    };
    EXPECT_EQ(refusal(volumes(100, "t:/m", ":ro:tmpfs")), "");
    EXPECT_EQ(refusal(volumes(101, "t:/m", ":ro:tmpfs")), "it has more than 100 mounts");
    EXPECT_EQ(refusal(volumes(1000, "/data", "")), "");
}

TEST(SettledConfiguration, ReducesAnUrgentPriorityToNormal)
{
    const auto of = [](const std::string& value, const std::string& name = "rtpPriority") {
        const SettledConfiguration made =
            settled(R"({"Labels":{"com.quenmark.zarnel.rtp.)" + name + R"(":")" + value + R"("}})");
        const Json* labels = member(member(made.document, "config"), "Labels");
        return text_of(labels, ("com.quenmark.zarnel.rtp." + name).c_str()) +
               (made.notes.empty() ? "" : " said");
    };
    EXPECT_EQ(of("100"), "100");
    EXPECT_EQ(of("0xff"), "0xff");
    for (const char* urgent : {"0", "99", "0x63", "0143", "-20", "4294967295", "", "x"})
        EXPECT_EQ(of(urgent), "100 said") << urgent;
    EXPECT_EQ(of("0", "RTPPRIORITY"), "100 said");
    EXPECT_EQ(of("0", "rtpOptions"), "0");
}

TEST(SettledConfiguration, RefusesDuplicateSettings)
{
    EXPECT_EQ(refusal(R"({"Labels":{"com.quenmark.zarnel.rtp.rtpPriority":"100",
                          "com.quenmark.zarnel.rtp-RtpPriority":"0"}})"),
              "duplicate label \"com.quenmark.zarnel.rtp-RtpPriority\"");
}

TEST(SettledConfiguration, RefusesWhatIsNotOfItsType)
{
    EXPECT_EQ(refusal(R"({"Env":["A=b",5]})"), "\"Env\" contains an element that is not a string");
    EXPECT_EQ(refusal(R"({"Cmd":"sh"})"), "\"Cmd\" is not an array");
    EXPECT_EQ(refusal(R"({"WorkingDir":{"a":1}})"), "\"WorkingDir\" is not a text");
    EXPECT_EQ(refusal(R"({"Volumes":[1]})"), "\"Volumes\" is not an object");
    EXPECT_EQ(refusal(R"({"Volumes":null,"Labels":null,"Env":null,"User":null})"), "");
}

TEST(SettledConfiguration, MakesOneAnnotationOfEachName)
{
    const SettledConfiguration made = settled(
        R"({"ExposedPorts":{"80/tcp":{},"443/tcp":{}},"StopSignal":"TERM","Labels":{
            "org.opencontainers.image.created":"label","zncontainer.sticky-directories":"/forged"}})",
        false, R"(,"created":"member","author":"a")");
    EXPECT_EQ(compact(*member(member(made.document, "config"), "Labels")),
              R"({"org.opencontainers.image.created":"label",)"
              R"("org.opencontainers.image.author":"a",)"
              R"("org.opencontainers.image.stopSignal":"TERM",)"
              R"("org.opencontainers.image.exposedPorts":"80/tcp,443/tcp"})");
}

TEST(AskedFor, ListsWhatIsBeyondRunningAProgram)
{
    const auto of = [](const std::string& section) {
        return image_requests(parse_json(configuration(section)).value());
    };
    EXPECT_EQ(of(R"({"User":"1000"})"), Texts{});
    EXPECT_EQ(of(R"({"Volumes":{"/data":{},"/:/h":{}},"ExposedPorts":{"80/tcp":{}},
                     "Labels":{"com.quenmark.zarnel.rtp.rtpPriority":"0"}})"),
              (Texts{"a volume at /data", "a mount of the host's / at /h", "the urgent priority 0",
                     "the port 80/tcp", "root's rights"}));
}

TEST(Sticky, DirectoriesAreThoseThatTheLayersLeaveSticky)
{
    StickyDirectories directories;
    EXPECT_EQ(directories.text(), "");
    const std::pair<const char*, std::uint32_t> told[] = {
        {"/tmp", 01777}, {"/var", 0755}, {"/var/tmp", 01777}, {"/a", 01755},  {"/a", 0755},
        {"/b", 07777},   {"/c", 02777},  {"/x:y", 01777},     {"/x/", 01777}, {"/x//y", 01777},
        {"x", 01777},    {"/..", 01777}, {"/./x", 01777},     {"/\\", 01777}, {"/\x1b", 01777}};
    for (const auto& [path, mode] : told)
        StickyDirectories::heard(path, mode, &directories);
    EXPECT_EQ(directories.text(), "/b:/tmp:/var/tmp");
    for (int i = 0; i < 100; i++)
        StickyDirectories::heard(fmt::format("/many/{:03}", i).c_str(), 01777, &directories);
    const std::string text = directories.text();
    EXPECT_EQ(std::count(text.begin(), text.end(), '/'), 4 + 2 * 61);
}

TEST(Sticky, ListIsAnAnnotationOfTheBundle)
{
    const layout::TempDir dir;
    const auto annotated = [&](const std::string& config) {
        layout::write_file(dir / "config.json", config);
        EXPECT_TRUE(annotate_sticky(dir.path(), "/tmp:/a")) << config;
        return compact(parse_json(read_file(dir / "config.json").value()).value());
    };
    EXPECT_EQ(
        annotated(R"({"root":{"path":"/r"}})"),
        R"({"root":{"path":"/r"},"annotations":{"zncontainer.sticky-directories":"/tmp:/a"}})");
    EXPECT_EQ(annotated(R"({"annotations":{"a":"b"},"hostname":"h"})"),
              R"({"annotations":{"a":"b","zncontainer.sticky-directories":"/tmp:/a"},)"
              R"("hostname":"h"})");
    layout::write_file(dir / "config.json", R"({"annotations":[]})");
    EXPECT_FALSE(annotate_sticky(dir.path(), "/tmp"));
    layout::write_file(dir / "config.json", "{}");
    EXPECT_TRUE(annotate_sticky(dir.path(), ""));
    EXPECT_EQ(read_file(dir / "config.json"), "{}");
    EXPECT_FALSE(annotate_sticky(dir / "none", "/tmp"));
}

TEST(Sticky, IsSetInsideTheRootOnly)
{
    const layout::TempDir dir;
    for (const char* made : {"outside", "root", "root/tmp", "root/real"})
        layout::fs::create_directory(dir / made);
    layout::fs::create_directory_symlink("/outside", dir / "root/link");
    layout::fs::create_directory_symlink(dir / "outside", dir / "root/far");
    layout::fs::create_directory_symlink("../outside", dir / "root/up");
    layout::write_file(dir / "root/file", "");
    EXPECT_TRUE(set_sticky(dir / "root", "/tmp:/link:/far:/up:/file:/none:/../outside:relative"));
    EXPECT_TRUE(is_sticky(dir / "root/tmp"));
    EXPECT_FALSE(is_sticky(dir / "root/real"));
    EXPECT_FALSE(is_sticky(dir / "outside"));
}

TEST(ContainerId, IsOneNameInADirectory)
{
    for (const char* good : {"a", "...", "of-x", "-", "a b"})
        EXPECT_TRUE(is_container_id(good)) << good;
    for (const std::string& bad :
         {std::string(), std::string("."), std::string(".."), std::string("a/../b"),
          std::string("/etc"), std::string("a\\b"), std::string(256, 'a'), std::string("a\0b", 3)})
        EXPECT_FALSE(is_container_id(bad)) << bad;
}

TEST(ContainerId, AnInvalidIdHasNeitherRecordNorBundle)
{
    for (const char* bad : {"..", ".", "a/../b", ""}) {
        EXPECT_FALSE(open_record(bad)) << bad;
        EXPECT_FALSE(RecordKeeper::begin(bad)) << bad;
        EXPECT_EQ(own_bundle(bad), "") << bad;
        remove_record(bad); // must not remove anything from the parent directory
    }
}
