// Tests of the network options of zncctl and of what a container's own bundle gets from them.
#include "cli/containers/container_bundle.hpp"
#include "cli/containers/network.hpp"
#include "cli/containers/network_files.hpp"
#include "front/record.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

using namespace zncctl;

namespace {

std::vector<std::string> after(const std::vector<std::string>& args, const std::string& option)
{
    std::vector<std::string> values;
    for (auto it = args.begin(); it != args.end(); ++it)
        if (*it == option)
            values.push_back(*(it + 1));
    return values;
}

std::vector<std::string> namespaces_of(const Json& config)
{
    std::vector<std::string> types;
    for (const Json& entry : config.at("linux").at("namespaces"))
        types.push_back(entry.at("type"));
    std::sort(types.begin(), types.end());
    return types;
}

} // namespace

TEST(Port, IsReadWithAndWithoutAddressAndProtocol)
{
    const auto plain = read_port("8080:80");
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->address, "");
    EXPECT_EQ(plain->host, 8080);
    EXPECT_EQ(plain->container, 80);
    EXPECT_FALSE(plain->udp);
    const auto udp = read_port("127.0.0.1:53:5353/udp");
    ASSERT_TRUE(udp);
    EXPECT_EQ(udp->address, "127.0.0.1");
    EXPECT_EQ(udp->host, 53);
    EXPECT_EQ(udp->container, 5353);
    EXPECT_TRUE(udp->udp);
    const auto six = read_port("[::1]:1:65535/tcp");
    ASSERT_TRUE(six);
    EXPECT_EQ(six->address, "::1");
    EXPECT_EQ(six->container, 65535);
}

TEST(Port, IsRefusedIfPastaCouldReadItInAnotherWay)
{
    for (const char* text : {"",
                             "80",
                             ":",
                             "80:",
                             ":80",
                             "0:80",
                             "80:0",
                             "65536:1",
                             "1:65536",
                             "-1:80",
                             "+1:80",
                             "80:80/",
                             "80:80/sctp",
                             "80:80/udp/tcp",
                             "1-5:1-5",
                             "80,81:80",
                             "~80:80",
                             "all:80",
                             "127.0.0.1/80:80",
                             "lo:80:80",
                             "127.1:80:80",
                             "[::1]:80",
                             "[::1:80:80",
                             "::1:80:80",
                             "[]:80:80",
                             "[127.0.0.1]:80:80",
                             "127.0.0.1%lo:80:80",
                             " 80:80",
                             "80:80 "})
        EXPECT_FALSE(read_port(text)) << text;
}

TEST(PastaArguments, ForwardNothingThatIsNotPublished)
{
    const auto args = pasta_arguments({NetworkKind::kPasta, {}});
    for (const char* option : {"--tcp-ports", "--udp-ports", "--tcp-ns", "--udp-ns"})
        EXPECT_EQ(after(args, option), std::vector<std::string>{"none"}) << option;
    EXPECT_NE(std::find(args.begin(), args.end(), "--no-map-gw"), args.end());
}

TEST(PastaArguments, HavePublishedPortsByProtocol)
{
    const auto args = pasta_arguments(
        {NetworkKind::kPasta,
         {{"127.0.0.1", 8080, 80, false}, {"", 8081, 81, false}, {"::1", 53, 5353, true}}});
    EXPECT_EQ(after(args, "--tcp-ports"),
              (std::vector<std::string>{"127.0.0.1/8080:80", "8081:81"}));
    EXPECT_EQ(after(args, "--udp-ports"), std::vector<std::string>{"::1/53:5353"});
    EXPECT_EQ(after(args, "--tcp-ns"), std::vector<std::string>{"none"});
}

TEST(ResolverText, ReplacesServersThatOnlyTheHostCanReach)
{
    EXPECT_EQ(resolver_text("# comment\nsearch a.example b.example\nnameserver 127.0.0.53\n"
                            "nameserver\t192.0.2.7  \noptions edns0\nsortlist 1.2.3.4\n"
                            "nameserver ::1\nnameserver fe80::1%eth0\nnameserver 2001:db8::1\n"
                            "nameserver name\nnameserver"),
              "search a.example b.example\nnameserver 169.254.1.1\nnameserver 192.0.2.7\n"
              "options edns0\nnameserver 2001:db8::1\n");
    EXPECT_EQ(resolver_text(""), "");
}

TEST(HostsText, NamesTheContainerUnlessItsNameDoesNotFit)
{
    EXPECT_EQ(hosts_text("web-1"), "127.0.0.1 localhost web-1\n"
                                   "::1 localhost ip6-localhost ip6-loopback web-1\n");
    for (const char* name : {"", "localhost", "a b", "a\n192.0.2.1 bank", "a#"})
        EXPECT_EQ(hosts_text(name),
                  "127.0.0.1 localhost\n::1 localhost ip6-localhost ip6-loopback\n")
            << name;
}

TEST(HostName, IsTheIdAsFarAsAHostNameCanBe)
{
    EXPECT_EQ(host_name_of("web_1.a"), "web_1.a");
    EXPECT_EQ(host_name_of("a b\nc"), "a-b-c");
    EXPECT_EQ(host_name_of(std::string(200, 'x')), std::string(64, 'x'));
}

TEST(AddNetwork, KeepsANamespaceOfItsOwnByDefault)
{
    Json config = Json::object();
    add_network(config, {NetworkKind::kNone, {}}, "/own");
    EXPECT_EQ(member(config, "linux"), nullptr);
    EXPECT_EQ(config.at("mounts").size(), 2U); // hosts and hostname
}

TEST(AddNetwork, SharesOnlyTheNetworkWithTheHost)
{
    Json config = Json::object();
    add_network(config, {NetworkKind::kHost, {}}, "/own");
    EXPECT_EQ(namespaces_of(config),
              (std::vector<std::string>{"cgroup", "ipc", "mount", "pid", "uts"}));
    Json listed = {{"linux", {{"namespaces", {{{"type", "pid"}}, {{"type", "network"}}}}}}};
    add_network(listed, {NetworkKind::kHost, {}}, "/own");
    EXPECT_EQ(namespaces_of(listed), std::vector<std::string>{"pid"});
}

TEST(AddNetwork, ReplacesANetworkNamespaceThatTheConfigurationNames)
{
    Json config = {
        {"linux",
         {{"namespaces",
           {{{"type", "mount"}}, {{"type", "network"}, {"path", "/run/netns/other"}}}}}}};
    add_network(config, {NetworkKind::kPasta, {}}, "/own");
    EXPECT_EQ(namespaces_of(config), (std::vector<std::string>{"mount", "network"}));
    for (const Json& entry : config["linux"]["namespaces"])
        EXPECT_EQ(member(entry, "path"), nullptr);
}

TEST(AddNetwork, MountsItsFilesBelowThoseOfTheUser)
{
    Json config = {{"mounts", {{{"destination", "/etc/hosts"}, {"source", "/mine"}}}}};
    add_network(config, {NetworkKind::kPasta, {}}, "/own");
    const Json& mounts = config.at("mounts");
    ASSERT_EQ(mounts.size(), 4U);
    EXPECT_EQ(mounts[0].at("source"), "/own/hosts");
    EXPECT_EQ(mounts[2].at("destination"), "/etc/resolv.conf");
    EXPECT_EQ(mounts[3].at("source"), "/mine");
}

TEST(NetworkEnd, EndCanBeRequestedAndWaitedFor)
{
    const std::string id = "network-end";
    EXPECT_FALSE(NetworkEnd(id));
    znc::UniqueFd runner = make_network_end(id);
    ASSERT_TRUE(runner);
    {
        const NetworkEnd end(id);
        ASSERT_TRUE(end);
        end.ask();
        remove_record(id); // the network has not ended: it can still be found
        EXPECT_TRUE(NetworkEnd(id));
        char byte = 0;
        EXPECT_EQ(::read(runner.get(), &byte, 1), 1);
        runner.reset();
        EXPECT_TRUE(end.wait());
        end.ask(); // without effect, and without a signal
    }
    EXPECT_FALSE(NetworkEnd(id));
    remove_record(id);
    EXPECT_TRUE(recorded_ids().empty());
}
