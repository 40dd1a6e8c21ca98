#include "scan/lan_info.h"

#include <cstdio>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <span>
#include <sys/socket.h>

#include "core/log.h"
#include "core/unique_fd.h"
#include "scan/exec.h"
#include "scan/neigh.h"

struct lan_info lan_info = {.ip = {},
                            .gateway_mac = {},
                            .ifindex = {},
                            .ifname = {},
                            .ifnum = 0,
                            .gateway = {},
                            .prefix_len = 0,
                            .gateway_port = -1};

int32_t prefix_from_mask(const char *mask, int32_t old) noexcept
{
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!mask || std::sscanf(mask, "%u.%u.%u.%u", &a, &b, &c, &d) != 4)
        return old;
    uint32_t word = (a & 0xff) << 24 | (b & 0xff) << 16 | (c & 0xff) << 8 | (d & 0xff);
    if (word == 0)
        return old;
    return 32 - __builtin_ctz(word);
}

uint32_t ip_text_to_host(std::string_view text) noexcept
{
    uint32_t word = 0;
    uint32_t part = 0;
    for (char ch : text) {
        if (ch >= '0' && ch <= '9') {
            part = part * 10 + static_cast<uint32_t>(ch - '0');
        } else if (ch == '.') {
            word = (word << 8) + part;
            part = 0;
        }
    }
    return (word << 8) + part;
}

bool ip_in_lan_prefix(std::string_view ip_text, std::string_view lan_ip_text, int32_t prefix_len) noexcept
{
    // A shift by 32 or more leaves nothing to compare, as on the router's
    // ARM cores: a prefix of 0 takes every address in.
    int32_t shift = 32 - prefix_len;
    uint32_t a = ip_text_to_host(ip_text);
    uint32_t b = ip_text_to_host(lan_ip_text);
    if (shift >= 32)
        return true;
    if (shift <= 0)
        return a == b;
    return (a >> shift) == (b >> shift);
}

bool ip_in_lan(const char *ip_text, const char *lan_ip_text) noexcept
{
    if (!ip_text || !lan_ip_text)
        return false;
    return ip_in_lan_prefix(ip_text, lan_ip_text, lan_info.prefix_len);
}

int32_t parse_port_column(std::string_view line) noexcept
{
    size_t i = 0;
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\n' || line[i] == '\r'))
        i++;
    if (i == line.size() || line[i] < '0' || line[i] > '9')
        return -1;
    int32_t port = 0;
    while (i < line.size() && line[i] >= '0' && line[i] <= '9' && port < 100000)
        port = port * 10 + (line[i++] - '0');
    return port;
}

namespace
{

// One IPv4 neighbour request, one reply datagram.
int read_ipv4_neighbours(uint8_t *buf, size_t size)
{
    unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!fd)
        return -1;
    struct {
        nlmsghdr nlh;
        ndmsg nd;
    } req{};
    req.nlh.nlmsg_len = sizeof(req);
    req.nlh.nlmsg_type = RTM_GETNEIGH;
    req.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT;
    req.nd.ndm_family = AF_INET;
    if (send(fd.get(), &req, sizeof(req), 0) < 0)
        return -1;
    ssize_t n = recv(fd.get(), buf, size, 0);
    return n < 0 ? -1 : static_cast<int>(n);
}

} // namespace

void get_gateway_mac(const char *gateway_text) noexcept
{
    uint8_t buf[NEIGH_RECV_BUF];
    int n = read_ipv4_neighbours(buf, sizeof(buf));
    uint8_t mac[6] = {};
    if (n <= 0 || !find_neigh_mac(std::span<const uint8_t>(buf, static_cast<size_t>(n)), gateway_text, mac)) {
        std::memset(lan_info.gateway_mac, 0, sizeof(lan_info.gateway_mac));
        lan_info.gateway_port = -1;
        return;
    }
    std::memcpy(lan_info.gateway_mac, mac, 6);
    char mac_text[18];
    std::snprintf(mac_text, sizeof(mac_text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
    // The MAC text is ours, printed from kernel bytes in hex: nothing of a
    // client reaches this shell line.
    char cmd[64];
    std::snprintf(cmd, sizeof(cmd), "brctl showmacs br-lan | grep %s", mac_text);
    char out[NEIGH_RECV_BUF];
    int got = exec_and_res(cmd, out, sizeof(out) - 1);
    if (got < 1)
        return;
    int32_t port = parse_port_column(std::string_view(out, static_cast<size_t>(got)));
    if (port < 0)
        return;
    lan_info.gateway_port = port;
    LR_LOG(7, "[lr] port_no %d", lan_info.gateway_port);
}
