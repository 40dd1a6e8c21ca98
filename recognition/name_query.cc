// The three name queries on the network. Each owns its socket, sends one
// query, waits at most its timeout for one reply and parses it with the
// bounds-checked readers of name_packet.
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "core/unique_fd.h"
#include "recognition/fing_state.h"
#include "recognition/name_probe.h"
#include "scan/lan_info.h"

namespace
{

// A lost increment only repeats an identifier; atomics keep that benign.
std::atomic<uint16_t> mdns_query_seq{1};
std::atomic<uint16_t> netbios_query_seq{1};

constexpr uint16_t NETBIOS_PORT = 137;
constexpr uint16_t MDNS_PORT = 5353;
constexpr char MDNS_GROUP_V4[] = "224.0.0.251";
constexpr char MDNS_GROUP_V6[] = "ff02::fb";

uint16_t take_id(std::atomic<uint16_t> &seq)
{
    uint16_t s = seq.load(std::memory_order_relaxed);
    uint16_t id = next_query_id(s);
    seq.store(s, std::memory_order_relaxed);
    return id;
}

// One reply into a zeroed buffer; its length, or -1.
ssize_t receive_reply(int fd, uint8_t (&buf)[NAME_REPLY_MAX])
{
    std::memset(buf, 0, sizeof(buf));
    ssize_t n;
    do {
        n = recvfrom(fd, buf, sizeof(buf), 0, nullptr, nullptr);
    } while (n < 0 && errno == EINTR);
    return n;
}

// Learnt names go to the client's section of the state store for the
// recognition report; only printable text is written.
void remember(const uint8_t mac[6], const char *option, const char *value)
{
    if (!mac || !value)
        return;
    // The workgroup is the longest text a probe learns.
    char text[NETBIOS_DOMAIN_MAX + 1];
    std::snprintf(text, sizeof(text), "%s", value);
    if (fing_text_clean(text) != 1)
        return;
    char section[13];
    fing_mac_text(mac, section);
    fing_state_ensure(FING_PACKAGE, section);
    fing_state_set(FING_PACKAGE, section, option, text);
}

void copy_name(std::span<char, NAME_TEXT_MAX> out, const char *name, size_t len)
{
    if (len >= NAME_TEXT_MAX)
        len = NAME_TEXT_MAX - 1;
    std::memcpy(out.data(), name, len);
    out[len] = '\0';
}

} // namespace

int netbios_probe(const char *ip_text, std::span<char, NAME_TEXT_MAX> out, int timeout_ms,
                  const uint8_t mac[6]) noexcept
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(NETBIOS_PORT);
    if (!ip_text || inet_pton(AF_INET, ip_text, &to.sin_addr) != 1)
        return 0;
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return 0;
    uint8_t query[NETBIOS_QUERY_LEN];
    uint16_t id = take_id(netbios_query_seq);
    netbios_build_query(query, id);
    ssize_t sent = sendto(fd.get(), query, sizeof(query), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    if (sent <= 0)
        return 0;
    if (socket_wait_readable(fd.get(), timeout_ms) != 0)
        return static_cast<int>(sent);
    uint8_t buf[NAME_REPLY_MAX];
    ssize_t n = receive_reply(fd.get(), buf);
    netbios_result r{};
    if (n <= 0 || !netbios_parse_reply(std::span<const uint8_t>(buf, static_cast<size_t>(n)), id, r))
        return 0;
    copy_name(out, r.name, r.name_len);
    remember(mac, "netbios_name", r.name);
    if (r.has_domain && r.domain[0])
        remember(mac, "netbios_domain", r.domain);
    return static_cast<int>(r.name_len);
}

int mdns_probe_v4(const char *ip_text, std::span<char, NAME_TEXT_MAX> out, int timeout_ms,
                  const uint8_t mac[6]) noexcept
{
    in_addr client{};
    if (!ip_text || inet_pton(AF_INET, ip_text, &client) != 1)
        return 0;
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return 0;
    // Bound to the LAN address with a port of its own, the query asks for a
    // legacy unicast reply to that port.
    sockaddr_in local{};
    local.sin_family = AF_INET;
    char lan_ip[sizeof(lan_info.ip)];
    std::memcpy(lan_ip, lan_info.ip, sizeof(lan_ip));
    lan_ip[sizeof(lan_ip) - 1] = '\0';
    if (inet_pton(AF_INET, lan_ip, &local.sin_addr) != 1 ||
        bind(fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof(local)) != 0)
        return 0;
    uint8_t query[MDNS_IP4_QUERY_MAX];
    uint16_t id = take_id(mdns_query_seq);
    size_t len = mdns_build_ip4_query(query, id, client.s_addr);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(MDNS_PORT);
    inet_pton(AF_INET, MDNS_GROUP_V4, &to.sin_addr);
    ssize_t sent = sendto(fd.get(), query, len, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    if (sent <= 0)
        return 0;
    if (socket_wait_readable(fd.get(), timeout_ms) != 0)
        return static_cast<int>(sent);
    uint8_t buf[NAME_REPLY_MAX];
    ssize_t n = receive_reply(fd.get(), buf);
    if (n <= 0)
        return 0;
    char name[NAME_TEXT_MAX];
    int got = mdns_parse_ip4_reply(std::span<const uint8_t>(buf, static_cast<size_t>(n)), id, len, name);
    if (got <= 0)
        return 0;
    copy_name(out, name, static_cast<size_t>(got));
    remember(mac, "mdns_name", name);
    return got;
}

int mdns_probe_v6(const char *ip6_text, std::span<char, NAME_TEXT_MAX> out, int timeout_ms,
                  const uint8_t /*mac*/[6]) noexcept
{
    uint8_t addr[16];
    if (!ip6_text || inet_pton(AF_INET6, ip6_text, addr) != 1)
        return 0;
    if (addr[0] == 0 && addr[1] == 0 && addr[2] == 0)
        return 0;
    unique_fd fd(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return 0;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, lan_bridge_name, sizeof(lan_bridge_name)) != 0) {
        std::printf("Failed to bind to interface %s\n", lan_bridge_name);
        std::fflush(stdout);
        return 0;
    }
    sockaddr_in6 local{};
    local.sin6_family = AF_INET6;
    local.sin6_addr = in6addr_any;
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof(local)) != 0)
        return 0;
    char hex[33];
    for (size_t i = 0; i < sizeof(addr); i++)
        std::snprintf(hex + 2 * i, 3, "%02hhX", addr[i]);
    uint8_t query[MDNS_IP6_QUERY_LEN];
    uint16_t id = take_id(mdns_query_seq);
    int len = mdns_build_ip6_query(query, id, hex);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(MDNS_PORT);
    to.sin6_scope_id = if_nametoindex(lan_bridge_name);
    inet_pton(AF_INET6, MDNS_GROUP_V6, &to.sin6_addr);
    if (sendto(fd.get(), query, static_cast<size_t>(len), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)) <=
        0) {
        std::printf("errno:%s\n", std::strerror(errno));
        std::fflush(stdout);
        return 0;
    }
    if (socket_wait_readable(fd.get(), timeout_ms) != 0)
        return 0;
    uint8_t buf[NAME_REPLY_MAX];
    ssize_t n = receive_reply(fd.get(), buf);
    if (n <= 0)
        return 0;
    char name[NAME_TEXT_MAX];
    if (mdns_parse_ip6_reply(std::span<const uint8_t>(buf, static_cast<size_t>(n)), name) < 0)
        return 0;
    copy_name(out, name, std::strlen(name));
    return static_cast<int>(n);
}
