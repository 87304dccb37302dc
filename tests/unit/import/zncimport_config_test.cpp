// Tests of the configuration and the manifest of a new image.
#include "import/output/image_config.hpp"

#include <gtest/gtest.h>

using namespace zncimport;
using zncctl::compact;
using zncctl::member;
using zncctl::parse_json;
using zncctl::text_of;

namespace {

class Config : public testing::Test {
  protected:
    void add_file(const std::string& name, const std::string& text)
    {
        auto file = std::make_shared<Node>();
        file->kind = Kind::kFile;
        file->data = {spool_.size(), text.size()};
        spool_.append(std::as_bytes(std::span(text)));
        put(name, file);
    }
    void add_link(const std::string& name, const std::string& target)
    {
        auto link = std::make_shared<Node>();
        link->kind = Kind::kSymlink;
        link->target = target;
        put(name, link);
    }
    void add_users()
    {
        add_file("etc/passwd", "root:x:0:0:root:/root:/bin/sh\nbroken\nbad:x:y:1::/:\n"
                               "app:x:1000:1001:An app:/app:/bin/sh\n\nlast:x:7:8::/:/x");
        add_file("etc/group", "root:x:0:\nstaff:x:50:app,root\n");
    }
    void put(const std::string& name, std::shared_ptr<Node> node)
    {
        const auto way = Tree::split(name, 128);
        tree_.parent_of(way, 0, 0).children[way.back()] = std::move(node);
    }

    zncctl::Json settled(const std::string& config)
    {
        image_.config = parse_json(config).value();
        report_ = Report();
        return settle_config(image_, tree_, spool_, options_, report_);
    }
    std::string section(const std::string& text)
    {
        const zncctl::Json config = settled("{\"config\":" + text + "}");
        return compact(*member(config, "config"));
    }
    // Returns the resulting "User", "" for none.
    std::string user(const std::string& text)
    {
        const zncctl::Json config = settled("{\"config\":{\"User\":\"" + text + "\"}}");
        return text_of(member(config, "config"), "User");
    }
    [[nodiscard]] std::size_t count(Change change) const
    {
        std::size_t found = 0;
        for (const Report::Item& item : report_.items())
            found += item.change == change ? 1 : 0;
        return found;
    }

    Tree tree_;
    Spool spool_ = Spool("/tmp");
    SourceImage image_;
    ConfigOptions options_;
    Report report_;
    const std::vector<NewLayer> layers_ = {{"sha256:aa", "sha256:bb", 123}};
};

} // namespace

TEST_F(Config, KeepsWhatItDoesNotKnow)
{
    EXPECT_EQ(compact(settled(R"({"architecture":"arm64","os":"linux","variant":"v8","x":[1,{}],
        "config":{"WorkingDir":"/w","Labels":{"a":"b"},"Env":["A=b"],"y":null}})")),
              R"({"architecture":"arm64","os":"linux","variant":"v8","x":[1,{}],)"
              R"("config":{"WorkingDir":"/w","Labels":{"a":"b"},"Env":["A=b"],"y":null}})");
    EXPECT_TRUE(report_.items().empty());
}

TEST_F(Config, MakesWhatIsMissing)
{
    image_.os = "linux";
    EXPECT_EQ(compact(settled("{}")),
              R"({"architecture":"amd64","os":"linux","config":{"WorkingDir":"/"}})");
    EXPECT_EQ(section("null"), R"({"WorkingDir":"/"})");
    EXPECT_EQ(section(R"({"WorkingDir":""})"), R"({"WorkingDir":"/"})");
    EXPECT_EQ(section(R"({"WorkingDir":null,"Cmd":null})"), R"({"WorkingDir":"/","Cmd":null})");
}

TEST_F(Config, OfASourceWithoutOneStartsAShell)
{
    for (const char* none : {"null", ""}) {
        image_.config = parse_json(none).value_or(zncctl::Json());
        const zncctl::Json config = settle_config(image_, tree_, spool_, options_, report_);
        EXPECT_EQ(text_of(config, "os"), "zarnel");
        EXPECT_EQ(text_of(config, "architecture"), "amd64");
        EXPECT_EQ(compact(*member(config, "config")), R"({"Cmd":["/bin/sh"],"WorkingDir":"/"})");
    }
}

TEST_F(Config, HasThePlatformThatIsAskedFor)
{
    options_.set_os = "zarnel";
    options_.set_arch = "arm";
    const char* text = R"({"architecture":"arm","os":"linux","variant":"v7"})";
    EXPECT_EQ(text_of(settled(text), "os"), "zarnel");
    EXPECT_EQ(text_of(settled(text), "variant"), "v7");
    options_.set_arch = "amd64";
    EXPECT_EQ(text_of(settled(text), "architecture"), "amd64");
    EXPECT_EQ(member(settled(text), "variant"), nullptr);
}

TEST_F(Config, TakesItsTimeFromTheSourceOrTheOption)
{
    EXPECT_EQ(member(settled("{}"), "created"), nullptr);
    EXPECT_EQ(text_of(settled(R"({"created":"2020-01-01T00:00:00.5Z"})"), "created"),
              "2020-01-01T00:00:00.5Z");
    options_.source_date_epoch = 1700000000;
    EXPECT_EQ(text_of(settled(R"({"created":"2020-01-01T00:00:00Z"})"), "created"),
              "2023-11-14T22:13:20Z");
    for (const std::int64_t bad : {INT64_MAX, std::int64_t{253402300800}}) {
        options_.source_date_epoch = bad;
        EXPECT_THROW(settled("{}"), Failure);
    }
}

TEST_F(Config, RefusesTypesThatTheLibraryWouldMisread)
{
    for (const char* bad :
         {R"({"config":[]})", R"({"config":"x"})", R"({"config":{"Env":["a",1]}})",
          R"({"config":{"Cmd":"sh"}})", R"({"config":{"Entrypoint":[null]}})",
          R"({"config":{"WorkingDir":1}})", R"({"config":{"User":0}})",
          R"({"config":{"Volumes":["/a"]}})", R"({"config":{"volumes":{"/a":{}}}})",
          R"({"Config":{}})", R"({"config":{"env":[]}})", R"([])", R"("text")"})
        EXPECT_THROW(settled(bad), Failure) << bad;
}

TEST_F(Config, GivesUsersByNumbers)
{
    add_users();
    for (const auto& [text, numbers] : {std::pair{"app", "1000:1001"},
                                        {"app:staff", "1000:50"},
                                        {"app:010", "1000:10"},
                                        {"1000", "1000:1001"},
                                        {"010", "10"},
                                        {"0", "0"},
                                        {"root", "0"},
                                        {"0:0", "0:0"},
                                        {"5:staff", "5:50"},
                                        {"5:6", "5:6"},
                                        {":staff", "0:50"},
                                        {"last", "7:8"},
                                        {"app:", "1000:1001"},
                                        {"4294967294", "4294967294"}}) {
        EXPECT_EQ(user(text), numbers) << text;
        EXPECT_EQ(count(Change::kUser), 0U) << text;
        EXPECT_EQ(count(Change::kUserNumbers), std::string(text) == numbers ? 0U : 1U) << text;
    }
}

TEST_F(Config, KeepsAUserThatIsLookedUpLater)
{
    options_.keep_user = true;
    for (const char* text : {"app", "nosuch:nogroup", "0010"}) {
        EXPECT_EQ(user(text), text);
        EXPECT_EQ(count(Change::kUser), 0U) << text;
        EXPECT_EQ(count(Change::kUserNumbers), 0U) << text;
    }
}

TEST_F(Config, MakesUsersThatTheImageDoesNotKnowNobody)
{
    add_users();
    for (const char* text : {"nobody", "bad", "broken", "0x10", "4294967295",
                             "99999999999999999999", "-1", "nobody:50", "1 0"}) {
        EXPECT_EQ(user(text), "65534:65534") << text;
        EXPECT_EQ(count(Change::kUser), 1U) << text;
    }
    for (const char* text : {"app:none", "app:staff:x"}) {
        EXPECT_EQ(user(text), "1000:1001") << text;
        EXPECT_EQ(count(Change::kUser), 1U) << text;
    }
}

TEST_F(Config, NeedsNoUserFiles)
{
    EXPECT_EQ(user("1000"), "1000");
    EXPECT_EQ(user("1000:5"), "1000:5");
    EXPECT_EQ(user("app"), "65534:65534");
    EXPECT_EQ(count(Change::kUser), 1U);
    EXPECT_EQ(user(""), "");
    EXPECT_TRUE(report_.items().empty());
}

TEST_F(Config, FollowsLinksToTheUserFilesInsideTheImage)
{
    add_file("real/users", "app:x:12:13::/:\n");
    add_link("etc", "/private/etc");
    add_link("private/etc/passwd", "../../real/users");
    EXPECT_EQ(user("app"), "12:13");
    add_link("private/etc/passwd", "passwd");
    EXPECT_EQ(user("app"), "65534:65534");
    add_link("private/etc/passwd", "../../../../../../etc/passwd");
    EXPECT_EQ(user("app"), "65534:65534");
}

TEST_F(Config, DoesNotReadImplausiblyLargeUserFiles)
{
    add_file("etc/passwd", "app:x:12:13::/:\n" + std::string(std::size_t{10} << 20U, '\n'));
    EXPECT_EQ(user("app"), "65534:65534");
}

TEST_F(Config, RemovesVolumesAndMakesTheirDirectories)
{
    add_file("srv/file", "text");
    add_link("lnk", "/srv");
    add_link("dead", "/none");
    EXPECT_EQ(
        section(R"({"Volumes":{"/data/db":{},"/srv/file/x":{},"/lnk/sub":{},"/a:/b:rw:bind":{},
        "rel":{},"/../../etc":{},"/dead/x":{},"/srv":{}},"WorkingDir":"/"})"),
        R"({"WorkingDir":"/"})");
    EXPECT_EQ(count(Change::kVolume), 8U);
    ASSERT_NE(tree_.find("data/db", 128), nullptr);
    EXPECT_EQ(tree_.find("data/db", 128)->kind, Kind::kDirectory);
    EXPECT_EQ(tree_.find("data/db", 128)->mode, 0755U);
    EXPECT_NE(tree_.find("srv/sub", 128), nullptr);
    EXPECT_EQ(tree_.find("srv/file", 128)->kind, Kind::kFile);
    EXPECT_EQ(tree_.find("dead", 128)->kind, Kind::kSymlink);
    for (const char* none : {"none", "rel", "a", "etc", "a:"})
        EXPECT_EQ(tree_.find(none, 128), nullptr) << none;
    EXPECT_EQ(section(R"({"Volumes":null,"WorkingDir":"/"})"), R"({"WorkingDir":"/"})");
    EXPECT_EQ(count(Change::kVolume), 0U);
}

TEST_F(Config, PutsDirectoriesOfVolumesIntoTheHighestLayer)
{
    image_.layers.resize(3);
    section(R"({"Volumes":{"/data":{}}})");
    ASSERT_NE(tree_.find("data", 128), nullptr);
    EXPECT_EQ(tree_.find("data", 128)->layer, 2U);
}

TEST_F(Config, EndsWithTheNewLayersAndTheirHistory)
{
    const std::vector<NewLayer> two = {{"sha256:aa", "sha256:bb", 1},
                                       {"sha256:cc", "sha256:dd", 2}};
    EXPECT_EQ(finish_config(parse_json(R"({"created":"T","rootfs":{"diff_ids":["old"]},"x":1,
                                           "history":[{},{}]})")
                                .value(),
                            two),
              R"({"created":"T","rootfs":{"type":"layers","diff_ids":["sha256:bb","sha256:dd"]},)"
              R"("x":1,"history":[{"created":"T","created_by":"zncctl import"},)"
              R"({"created":"T","created_by":"zncctl import"}]})");
    EXPECT_EQ(finish_config(parse_json("{}").value(), layers_),
              R"({"rootfs":{"type":"layers","diff_ids":["sha256:bb"]},)"
              R"("history":[{"created_by":"zncctl import"}]})");
}

TEST_F(Config, MayNotBecomeLongerThanDocumentsMayBe)
{
    const std::string text = "{\"x\":\"" + std::string(Limits{}.json, 'a') + "\"}";
    EXPECT_THROW(finish_config(parse_json(text).value(), layers_), Failure);
}

TEST_F(Config, HasAManifestWithTheSourcesAnnotations)
{
    EXPECT_EQ(
        new_manifest(image_, "{}", layers_),
        R"({"schemaVersion":2,"mediaType":"application/vnd.oci.image.manifest.v1+json",)"
        R"("config":{"mediaType":"application/vnd.oci.image.config.v1+json","digest":)"
        R"("sha256:44136fa355b3678a1146ad16f7e8649e94fb4fc21fe77e8310c060f61caaff8a",)"
        R"("size":2},"layers":[{"mediaType":)"
        R"("application/vnd.oci.image.layer.v1.tar+gzip","digest":"sha256:aa","size":123}]})");
    image_.manifest_digest = "sha256:cc";
    image_.annotations = parse_json(R"({"a":"b","n":1,"org.opencontainers.image.ref.name":"t",
        "zncontainer.import.source.digest":"sha256:older"})")
                             .value();
    const zncctl::Json manifest = parse_json(new_manifest(image_, "{}", layers_)).value();
    EXPECT_EQ(compact(*member(manifest, "annotations")),
              R"({"a":"b","zncontainer.import.source.digest":"sha256:cc"})");
}
