// Tests of the options of run and create, and of what they make of a configuration.
#include "cli/containers/configure.hpp"
#include "cli/containers/container_filter.hpp"
#include "cli/containers/mount_options.hpp"
#include "cli/containers/rights_options.hpp"
#include "tests/support/test_tree.hpp"

#include <gtest/gtest.h>

using namespace zncctl;

namespace {

Arguments with(std::initializer_list<std::pair<const char*, const char*>> options)
{
    Arguments args;
    for (const auto& [name, value] : options)
        args.add_option(name, value);
    return args;
}

Json configured(const ContainerOptions& options, const Json* image, Json config)
{
    configure(config, options, image);
    return config;
}

const Json kImage = {{"Entrypoint", {"/entry"}}, {"Cmd", {"cmd"}}, {"Env", {"A=image"}}};
const Json kConfig = {{"hostname", "box"},
                      {"process", {{"args", {"/entry", "cmd"}}, {"env", {"A=image"}}}}};

} // namespace

TEST(ContainerOptions, AreReadWithoutChangingAnything)
{
    const ContainerOptions none = read_container_options(Arguments(), {});
    EXPECT_FALSE(none.changes_configuration());
    EXPECT_TRUE(read_container_options(Arguments(), {"ls"}).changes_configuration());
    EXPECT_TRUE(read_container_options(with({{"label", "a"}}), {}).changes_configuration());
    EXPECT_THROW(read_container_options(with({{"label", "a\nb"}}), {}), BadOption);
    EXPECT_THROW(read_container_options(with({{"env", "\xff=x"}}), {}), BadOption);
    EXPECT_THROW(read_container_options(Arguments(), {"\xff"}), BadOption);
    EXPECT_THROW(read_container_options(with({{"restart", "always"}}), {}), BadOption);
    EXPECT_THROW(read_container_options(with({{"env-file", "/dev/zero"}}), {}), std::runtime_error);
}

TEST(Configure, WithoutOptionsABundleStaysAsItIs)
{
    EXPECT_EQ(configured(ContainerOptions(), nullptr, kConfig), kConfig);
}

TEST(Configure, TheCommandFollowsTheEntryPoint)
{
    const auto words = [](const char* entrypoint, std::vector<std::string> command,
                          const Json* image) {
        Arguments args;
        if (entrypoint != nullptr)
            args.add_option("entrypoint", entrypoint);
        const Json config =
            configured(read_container_options(args, std::move(command)), image, kConfig);
        return texts_of(&config["process"]["args"]);
    };
    using Texts = std::vector<std::string>;
    EXPECT_EQ(words(nullptr, {}, &kImage), (Texts{"/entry", "cmd"}));
    EXPECT_EQ(words(nullptr, {"x"}, &kImage), (Texts{"/entry", "x"}));
    EXPECT_EQ(words("/other", {}, &kImage), (Texts{"/other"}));
    EXPECT_EQ(words("/other", {"x"}, &kImage), (Texts{"/other", "x"}));
    EXPECT_EQ(words("[\"/a\", \"b\"]", {"x"}, &kImage), (Texts{"/a", "b", "x"}));
    EXPECT_EQ(words("[not JSON", {}, &kImage), (Texts{"[not JSON"}));
    EXPECT_EQ(words("", {}, &kImage), (Texts{"cmd"}));
    EXPECT_EQ(words(nullptr, {"x"}, nullptr), (Texts{"x"}));
    EXPECT_EQ(words("", {}, nullptr), (Texts{"/entry", "cmd"}));
    const Json empty = Json::object();
    EXPECT_THROW(words("", {}, &empty), std::runtime_error);
}

TEST(Configure, VariablesAreReplacedByName)
{
    const Json config = configured(
        read_container_options(with({{"env", "A=mine"}, {"env", "B="}}), {}), &kImage, kConfig);
    EXPECT_EQ(
        texts_of(&config["process"]["env"]),
        (std::vector<std::string>{
            "A=mine", "HOME=/", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "HOSTNAME=box", "B="}));
}

TEST(Configure, AnImageKeepsItsPath)
{
    const Json image = {{"Entrypoint", {"/entry"}}, {"Env", {"PATH=/mine"}}};
    Json config = kConfig;
    config["process"]["env"] = {"PATH=/mine"};
    const Json changed = configured(ContainerOptions(), &image, config);
    EXPECT_EQ(texts_of(&changed["process"]["env"])[0], "PATH=/mine");
    EXPECT_EQ(texts_of(&changed["process"]["env"]).size(), 3U); // with HOME and HOSTNAME
}

TEST(Configure, TheUserOfTheImageMustExistUnlessAnotherIsGiven)
{
    Json image = kImage;
    image["User"] = "no-such-user";
    Json config = kConfig;
    config["root"] = {{"path", "/"}};
    EXPECT_THROW(configured(ContainerOptions(), &image, config), std::runtime_error);
    const Json changed =
        configured(read_container_options(with({{"user", "4711"}}), {}), &image, config);
    EXPECT_EQ(changed["process"]["user"]["uid"], 4711);
}

TEST(Configure, LimitsAreAddedToThoseOfABundle)
{
    Json config = kConfig;
    config["linux"] = {{"resources", {{"memory", {{"swap", 7}}}, {"cpu", {{"shares", 2}}}}}};
    const Json changed =
        configured(read_container_options(with({{"memory", "1m"}}), {}), nullptr, config);
    EXPECT_EQ(changed["linux"]["resources"]["memory"], (Json{{"swap", 7}, {"limit", 1 << 20}}));
    EXPECT_EQ(changed["linux"]["resources"]["cpu"], (Json{{"shares", 2}}));
}

TEST(Configure, AMountReplacesOneAtTheSamePlace)
{
    Json config = kConfig;
    config["mounts"] = {{{"destination", "/a"}, {"type", "tmpfs"}},
                        {{"destination", "/b"}, {"type", "tmpfs"}}};
    const Json changed =
        configured(read_container_options(with({{"volume", "/:/a:ro"}}), {}), nullptr, config);
    ASSERT_EQ(changed["mounts"].size(), 2U);
    EXPECT_EQ(changed["mounts"][0]["destination"], "/b");
    EXPECT_EQ(changed["mounts"][1]["source"], "/");
}

TEST(Configure, AReadOnlyRootHasPlacesForTemporaryFiles)
{
    Arguments args;
    args.add_option("read-only", "");
    args.add_option("tmpfs", "/run/lock");
    const Json config = configured(read_container_options(args, {}), nullptr, kConfig);
    EXPECT_EQ(config["root"]["readonly"], true);
    std::vector<std::string> places;
    for (const Json& mount : config["mounts"])
        places.push_back(mount["destination"]);
    EXPECT_EQ(places, (std::vector<std::string>{"/run/lock", "/tmp", "/var/tmp"}));
}

TEST(Mounts, OuterOnesComeFirstAndPathsArePlain)
{
    const Json mounts = read_mounts(
        with({{"volume", "/:/a//b/./c/"}, {"tmpfs", "/a"}, {"mount", "type=tmpfs,dst=/a/b"}}));
    ASSERT_EQ(mounts.size(), 3U);
    EXPECT_EQ(mounts[0]["destination"], "/a");
    EXPECT_EQ(mounts[1]["destination"], "/a/b");
    EXPECT_EQ(mounts[2]["destination"], "/a/b/c");
}

TEST(Mounts, LinksOfTheHostAreResolved)
{
    const test_tree::TempDir dir;
    std::filesystem::create_symlink("/", dir / "link");
    const std::string volume = (dir / "link") + ":/a";
    EXPECT_EQ(read_mounts(with({{"volume", volume.c_str()}}))[0]["source"], "/");
}

TEST(Mounts, WrongOnesAreRefused)
{
    for (const char* volume :
         {"", "/", "/:", ":/a", "/:a", "/:/", "/://", "/:/.", "/:/a/..", "/:/a:", "/:/a:suid",
          "/:/a:shared", "/:/a:ro:rw", "name:/a", "/:/a\n"})
        EXPECT_THROW(read_mounts(with({{"volume", volume}})), BadOption) << volume;
    EXPECT_THROW(read_mounts(with({{"volume", "/nothing-here:/a"}})), std::runtime_error);
    for (const char* mount : {"", "type=bind", "type=bind,source=/", "type=odd,target=/a",
                              "type=bind,source=/,target=/a,size=1"})
        EXPECT_THROW(read_mounts(with({{"mount", mount}})), BadOption) << mount;
    EXPECT_THROW(read_mounts(with({{"tmpfs", "/a"}, {"volume", "/:/a/"}})), BadOption);
}

TEST(Capabilities, AreAddedToAndDroppedFromTheDefault)
{
    const auto process = [](std::initializer_list<std::pair<const char*, const char*>> options,
                            Json config) {
        apply_capabilities(config, read_container_options(with(options), {}));
        return config["capabilities"];
    };
    using Texts = std::vector<std::string>;
    const Json root = Json::object();
    EXPECT_TRUE(process({}, root).is_null());
    const Json dropped = process({{"cap-drop", "chown,cap_kill"}}, root);
    EXPECT_EQ(dropped["bounding"].size(), 9U);
    EXPECT_EQ(dropped["bounding"], dropped["effective"]);
    EXPECT_EQ(texts_of(&process({{"cap-drop", "ALL"}, {"cap-add", "kill"}}, root)["bounding"]),
              Texts{"CAP_KILL"});
    EXPECT_EQ(process({{"cap-add", "all"}, {"cap-drop", "KILL"}}, root)["bounding"].size(), 40U);
    const Json user = {{"user", {{"uid", 1}, {"gid", 1}}}};
    const Json added = process({{"cap-add", "KILL"}}, user);
    EXPECT_EQ(added["bounding"].size(), 11U);
    EXPECT_EQ(texts_of(&added["ambient"]), Texts{"CAP_KILL"});
    EXPECT_EQ(texts_of(&added["effective"]), Texts{"CAP_KILL"});
    const Json configured_ones = {{"capabilities", {{"bounding", {"CAP_CHOWN"}}}}};
    EXPECT_EQ(texts_of(&process({{"cap-add", "KILL"}}, configured_ones)["bounding"]),
              (Texts{"CAP_CHOWN", "CAP_KILL"}));
}

TEST(Seccomp, AProfileWithoutConditionsStays)
{
    const Json profile = {{"defaultAction", "SCMP_ACT_ERRNO"},
                          {"syscalls", {{{"names", {"read"}}, {"action", "SCMP_ACT_ALLOW"}}}}};
    EXPECT_EQ(seccomp_of_profile(profile, {}), profile);
}

TEST(Seccomp, RulesWhoseConditionsDoNotHoldAreLeftOut)
{
    const auto rule = [](Json includes, Json excludes) {
        return Json{{"names", {"read"}},
                    {"action", "SCMP_ACT_ALLOW"},
                    {"args", nullptr},
                    {"includes", std::move(includes)},
                    {"excludes", std::move(excludes)}};
    };
    const auto kept = [&](Json includes, Json excludes) {
        const Json profile = {{"defaultAction", "SCMP_ACT_ERRNO"},
                              {"syscalls", {rule(std::move(includes), std::move(excludes))}}};
        return seccomp_of_profile(profile, {"CAP_CHOWN"})["syscalls"].size() == 1;
    };
    const Json none = Json::object();
    EXPECT_TRUE(kept(none, none));
    EXPECT_TRUE(kept({{"caps", {"CAP_CHOWN"}}}, none));
    EXPECT_FALSE(kept({{"caps", {"CAP_CHOWN", "CAP_KILL"}}}, none));
    EXPECT_FALSE(kept(none, {{"caps", {"CAP_KILL", "CAP_CHOWN"}}}));
    EXPECT_TRUE(kept({{"minKernel", "3.2"}}, none));
    EXPECT_FALSE(kept({{"minKernel", "999.0"}}, none));
    EXPECT_FALSE(kept(none, {{"minKernel", "3.2"}}));
    EXPECT_FALSE(kept({{"arches", {"odd"}}}, none));
    EXPECT_TRUE(kept(none, {{"arches", {"odd"}}}));
}

TEST(Filter, OneOfEachKeyMustMatch)
{
    const Json labels = {{"a", "1"}, {"b", ""}};
    const FilteredContainer one = {"web1", "images/shop:v2", "exited", 3, &labels};
    const auto matches = [&](const std::vector<std::string>& filters) {
        return ContainerFilter(filters).matches(one);
    };
    for (const std::vector<std::string>& filters : {std::vector<std::string>{},
                                                    {"name=eb"},
                                                    {"id=we"},
                                                    {"status=stopped"},
                                                    {"label=b"},
                                                    {"label=a=1"},
                                                    {"ancestor=images/shop"},
                                                    {"ancestor=images/shop:v2"},
                                                    {"exited=3"},
                                                    {"name=no", "name=web"}})
        EXPECT_TRUE(matches(filters)) << filters.size();
    for (const std::vector<std::string>& filters : {std::vector<std::string>{"name=db"},
                                                    {"id=eb"},
                                                    {"status=running"},
                                                    {"label=c"},
                                                    {"label=a=2"},
                                                    {"ancestor=images"},
                                                    {"exited=0"},
                                                    {"name=web", "label=c"}})
        EXPECT_FALSE(matches(filters)) << filters[0];
    for (const char* filter : {"", "name", "odd=x", "status=up", "exited=x"})
        EXPECT_THROW(ContainerFilter({filter}), std::runtime_error) << filter;
}
