#include "network_files.hpp"

#include "network.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <vector>

namespace zncctl {
namespace {

// Splits a line at blanks and tabs.
std::vector<std::string> words_of(std::string_view line)
{
    std::vector<std::string> words;
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
        if (line.empty())
            return words;
        const std::size_t end = std::min(line.find_first_of(" \t\r"), line.size());
        words.emplace_back(line.substr(0, end));
        line.remove_prefix(end);
    }
}

// The address at which the container reaches the name server; "" if there is none.
std::string server_in_container(const std::string& address)
{
    constexpr unsigned kLoopbackNet = 127;
    in_addr four = {};
    in6_addr six = {};
    if (::inet_pton(AF_INET, address.c_str(), &four) == 1)
        return ntohl(four.s_addr) >> 24U == kLoopbackNet ? kPastaNameServer : address;
    if (::inet_pton(AF_INET6, address.c_str(), &six) != 1)
        return ""; // also a link-local address, which names an interface of the host
    return IN6_IS_ADDR_LOOPBACK(&six) ? kPastaNameServer : address;
}

bool is_host_name(std::string_view name)
{
    constexpr std::size_t kNameMax = 253;
    return !name.empty() && name.size() <= kNameMax &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '.' || c == '_';
           });
}

} // namespace

std::string resolver_text(std::string_view host)
{
    std::string text;
    std::vector<std::string> servers;
    while (!host.empty()) {
        const std::string_view line = host.substr(0, host.find('\n'));
        host.remove_prefix(std::min(line.size() + 1, host.size()));
        const std::vector<std::string> words = words_of(line);
        if (words.size() < 2)
            continue;
        if (words[0] == "search" || words[0] == "domain" || words[0] == "options")
            text += fmt::format("{}\n", line);
        if (words[0] != "nameserver")
            continue;
        const std::string server = server_in_container(words[1]);
        if (server.empty() || std::find(servers.begin(), servers.end(), server) != servers.end())
            continue;
        servers.push_back(server);
        text += fmt::format("nameserver {}\n", server);
    }
    return text;
}

std::string host_name_of(const std::string& id)
{
    constexpr std::size_t kKernelMax = 64;
    std::string name = id.substr(0, kKernelMax);
    for (char& c : name)
        if (!is_host_name({&c, 1}))
            c = '-';
    return name;
}

std::string hosts_text(const std::string& name)
{
    const std::string own = is_host_name(name) && name != "localhost" ? " " + name : "";
    return fmt::format("127.0.0.1 localhost{0}\n::1 localhost ip6-localhost ip6-loopback{0}\n",
                       own);
}

} // namespace zncctl
