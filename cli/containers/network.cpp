#include "network.hpp"

#include "container.hpp"
#include "front/files.hpp"
#include "front/record.hpp"
#include "front/words.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <fmt/format.h>
#include <sys/stat.h>

#include "zarnel/ns_control.h"
#include "zarnel/ns_network.h"

namespace zncctl {
namespace {

constexpr const char* kPasta = "/usr/bin/pasta";
constexpr const char* kVariable = "ZNCCTL_NETWORK";
constexpr const char* kOtherNetworks =
    "'--network none' runs the container without a network, '--network host' with the host's";

bool is_installed()
{
    struct stat st = {};
    return ::stat(kPasta, &st) == 0 && S_ISREG(st.st_mode) && ::access(kPasta, X_OK) == 0;
}

std::optional<NetworkKind> kind_of(std::string_view name)
{
    if (name == "none")
        return NetworkKind::kNone;
    if (name == "host")
        return NetworkKind::kHost;
    if (name == "pasta")
        return NetworkKind::kPasta;
    return std::nullopt;
}

bool is_address(const std::string& text, int family)
{
    std::array<unsigned char, sizeof(in6_addr)> address{};
    return ::inet_pton(family, text.c_str(), address.data()) == 1;
}

// Removes the address and its colon from the front of `rest`. False if it is invalid.
bool take_address(std::string_view& rest, std::string& address)
{
    const std::size_t colon = rest.rfind(':', rest.rfind(':') - 1);
    if (rest.find(':') == rest.rfind(':'))
        return true; // no address given
    if (colon == rest.npos)
        return false;
    std::string_view text = rest.substr(0, colon);
    rest = rest.substr(colon + 1);
    const bool brackets = text.size() > 2 && text.front() == '[' && text.back() == ']';
    if (brackets)
        text = text.substr(1, text.size() - 2);
    address = text;
    return is_address(address, brackets ? AF_INET6 : AF_INET);
}

std::optional<std::uint16_t> port_number(std::string_view text)
{
    const auto number = to_number<std::uint16_t>(text);
    return number && *number != 0 ? number : std::nullopt;
}

int unknown_network(std::string_view name, const char* where)
{
    return usage_failure(
        fmt::format("{} is \"none\", \"host\" or \"pasta\", not '{}'", where, printable(name)));
}

// The kind of network, from the option, the environment or the default.
int read_kind(const Arguments& args, bool from_image, NetworkKind& kind)
{
    const char* name = args.value("network");
    const char* where = "--network";
    if (name == nullptr && from_image) {
        name = std::getenv(kVariable); // NOLINT(concurrency-mt-unsafe): there is one thread
        where = kVariable;
    }
    if (name == nullptr) {
        kind = from_image ? NetworkKind::kPasta : NetworkKind::kConfigured;
        return kExitOk;
    }
    const auto known = kind_of(name);
    if (!known)
        return unknown_network(name, where);
    kind = *known;
    return kExitOk;
}

// The last message of pasta, except messages about the system log, which may not exist.
std::string last_line(std::string_view output)
{
    std::string last;
    while (!output.empty()) {
        const std::string_view line = output.substr(0, output.find('\n'));
        output.remove_prefix(std::min(line.size() + 1, output.size()));
        if (!line.empty() && line.find("to syslog") == line.npos)
            last = line;
    }
    return last;
}

int pasta_failure(const std::string& id, int error, std::string_view output)
{
    const std::string said = last_line(output);
    errno = error;
    const int status = failure(id, fmt::format("pasta cannot connect the container's network: {}",
                                               said.empty() ? error_text() : printable(said)));
    print_hint(kOtherNetworks);
    return status;
}

std::string forwarding(const PublishedPort& port)
{
    return fmt::format("{}{}{}:{}", port.address, port.address.empty() ? "" : "/", port.host,
                       port.container);
}

} // namespace

std::optional<PublishedPort> read_port(std::string_view text)
{
    PublishedPort port;
    if (const std::size_t slash = text.find('/'); slash != text.npos) {
        port.udp = text.substr(slash) == "/udp";
        if (!port.udp && text.substr(slash) != "/tcp")
            return std::nullopt;
        text = text.substr(0, slash);
    }
    if (!take_address(text, port.address))
        return std::nullopt;
    const std::size_t colon = text.find(':');
    if (colon == text.npos)
        return std::nullopt;
    const auto host = port_number(text.substr(0, colon));
    const auto container = port_number(text.substr(colon + 1));
    if (!host || !container)
        return std::nullopt;
    port.host = *host;
    port.container = *container;
    return port;
}

int read_network(const Arguments& args, bool from_image, int failed, Network& network)
{
    if (const int status = read_kind(args, from_image, network.kind); status != kExitOk)
        return status;
    for (const std::string& text : args.values("publish")) {
        const auto port = read_port(text);
        if (!port)
            return usage_failure(
                fmt::format("--publish is [IP:]HOSTPORT:PORT[/udp], not '{}'", printable(text)));
        network.ports.push_back(*port);
    }
    const bool pasta = network.kind == NetworkKind::kPasta;
    if (!pasta && !network.ports.empty())
        return usage_failure("--publish needs '--network pasta'");
    if (!pasta || is_installed())
        return kExitOk;
    failure("", fmt::format("the network needs {}, which is not installed (Debian package passt); "
                            "{}",
                            kPasta, kOtherNetworks));
    return failed;
}

std::vector<std::string> pasta_arguments(const Network& network)
{
    // Without --no-map-gw the gateway's address would lead to the host's loopback interface.
    std::vector<std::string> args = {"pasta",         "--foreground",  "--quiet",
                                     "--config-net",  "--netns",       ZNNS_NET_NAMESPACE,
                                     "--pid",         ZNNS_NET_READY,  "--no-map-gw",
                                     "--dns-forward", kPastaNameServer};
    for (const bool udp : {false, true}) {
        const char* option = udp ? "--udp-ports" : "--tcp-ports";
        const std::size_t before = args.size();
        for (const PublishedPort& port : network.ports)
            if (port.udp == udp)
                args.insert(args.end(), {option, forwarding(port)});
        if (args.size() == before) // pasta's default is to forward every port that is listened on
            args.insert(args.end(), {option, "none"});
    }
    args.insert(args.end(), {"--tcp-ns", "none", "--udp-ns", "none"});
    return args;
}

int connect_network(const std::string& id, const Network& network)
{
    if (network.kind != NetworkKind::kPasta)
        return kExitOk;
    const nsid_t ns = znnsFind(id.c_str());
    const znc::UniqueFd end = ns == -1 ? znc::UniqueFd() : make_network_end(id);
    if (!end)
        return pasta_failure(id, errno, "");
    const std::vector<std::string> args = pasta_arguments(network);
    std::vector<const char*> words;
    words.reserve(args.size() + 1);
    for (const std::string& arg : args)
        words.push_back(arg.c_str());
    words.push_back(nullptr);
    std::array<char, 1024> said{};
    if (znnsNetConnect(ns, kPasta, words.data(), end.get(), said.data(), said.size()) == OK)
        return kExitOk;
    return pasta_failure(id, errno, said.data());
}

void end_network_of_stopped(const std::string& id)
{
    const NetworkEnd network(id);
    if (network && status_of(id) == STATE_STOPPED) {
        network.ask();
        static_cast<void>(network.wait());
    }
}

} // namespace zncctl
