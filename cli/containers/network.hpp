// network.hpp - the network of a container: reads --network, --publish and ZNCCTL_NETWORK, and
// connects the network by pasta, a program that needs no network device of the host. Used by run
// and create.
#ifndef ZNC_CLI_CONTAINERS_NETWORK_HPP
#define ZNC_CLI_CONTAINERS_NETWORK_HPP

#include "front/command.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zncctl {

enum class NetworkKind {
    kConfigured, // what the bundle's configuration says
    kNone,       // loopback only
    kHost,       // the host's network
    kPasta       // a network of its own, connected by pasta
};

// A port of the host that is forwarded to the container.
struct PublishedPort {
    std::string address; // "": all addresses
    std::uint16_t host = 0;
    std::uint16_t container = 0;
    bool udp = false;
};

struct Network {
    NetworkKind kind = NetworkKind::kConfigured;
    std::vector<PublishedPort> ports;
};

// Parses "[IP:]HOSTPORT:PORT[/tcp|/udp]"; an IPv6 address is in brackets.
std::optional<PublishedPort> read_port(std::string_view text);

// Reads the options --network and --publish. Without --network, a container made from an image
// gets the network that the environment variable ZNCCTL_NETWORK names, else pasta; one made from a
// bundle gets what the bundle's configuration says. Returns kExitOk, or another exit status after
// printing a message: kExitUsage, or `failed` if pasta is needed and not installed.
int read_network(const Arguments& args, bool from_image, int failed, Network& network);

// Connects the network of a container that was just created. Returns kExitOk, or kExitFailure after
// printing a message.
int connect_network(const std::string& id, const Network& network);

// The arguments for pasta.
std::vector<std::string> pasta_arguments(const Network& network);

// The address at which pasta answers name queries in the container, by asking the host's server.
inline constexpr const char* kPastaNameServer = "169.254.1.1";

// Ends a container's network if the container has stopped.
void end_network_of_stopped(const std::string& id);

} // namespace zncctl

#endif
