// Neighbor Solicitations on the LAN bridge and the Advertisements that
// answer them.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/unique_fd.h"
#include "scan/ip6.h"

namespace
{

constexpr const char *LAN_BRIDGE = "br-lan";
constexpr int MAX_INTERFACE_NUM = 16;
constexpr size_t IFCONF_BUF = 512;

constexpr size_t ETH_SOURCE_AT = 6;
constexpr size_t IP6_SOURCE_AT = 22;
constexpr size_t ICMP6_TYPE_AT = 54;
constexpr uint8_t NEIGHBOR_SOLICIT = 135;
constexpr uint8_t NEIGHBOR_ADVERT = 136;

// The bridge's MAC, found through the interface list; zero when any step
// fails, and the solicitation goes out all the same.
void lan_bridge_mac(uint8_t (&mac)[6])
{
    std::memset(mac, 0, sizeof(mac));
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        fputs("Create socket failed", stderr);
        return;
    }
    alignas(ifreq) char buf[IFCONF_BUF];
    ifconf ifc{};
    ifc.ifc_len = sizeof(buf);
    ifc.ifc_buf = buf;
    if (ioctl(fd.get(), SIOCGIFCONF, &ifc) < 0) {
        fputs("Get a list of interface addresses failed", stderr);
        return;
    }
    int count = ifc.ifc_len / static_cast<int>(sizeof(ifreq));
    if (count > MAX_INTERFACE_NUM) {
        fputs("Get interface_num greater than MAX_INTERFACE_NUM", stderr);
        count = MAX_INTERFACE_NUM;
    }
    for (int i = count - 1; i >= 0; i--) {
        ifreq req{};
        std::memcpy(&req, buf + static_cast<size_t>(i) * sizeof(ifreq), sizeof(ifreq));
        if (std::strncmp(req.ifr_name, LAN_BRIDGE, IFNAMSIZ) != 0)
            continue;
        if (ioctl(fd.get(), SIOCGIFHWADDR, &req) < 0) {
            fputs("Get the hardware address of a device failed", stderr);
            return;
        }
        std::memcpy(mac, req.ifr_hwaddr.sa_data, 6);
        return;
    }
}

} // namespace

void build_ns_message(uint8_t (&msg)[NS_MESSAGE_LEN], const uint8_t target[16],
                      const uint8_t lan_mac[6]) noexcept
{
    std::memset(msg, 0, sizeof(msg));
    msg[0] = NEIGHBOR_SOLICIT;
    // Code, checksum (the kernel fills it in) and reserved stay zero.
    std::memcpy(msg + 8, target, 16);
    msg[24] = 1; // source link-layer address
    msg[25] = 1; // in units of 8 bytes
    std::memcpy(msg + 26, lan_mac, 6);
}

void solicited_node_address(uint8_t (&out)[16], const uint8_t target[16]) noexcept
{
    static const uint8_t prefix[13] = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0xff};
    std::memcpy(out, prefix, sizeof(prefix));
    std::memcpy(out + 13, target + 13, 3);
}

int send_ns(const char *address_text) noexcept
{
    uint8_t target[16];
    if (!address_text || inet_pton(AF_INET6, address_text, target) != 1)
        return -1;
    uint8_t mac[6];
    lan_bridge_mac(mac);
    int raw = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    if (raw < 0) {
        fprintf(stderr, "fd error code:%d\n", raw);
        fputs("send_ns: Socket error\n", stderr);
        return -1;
    }
    unique_fd fd(raw);
    if (setsockopt(raw, SOL_SOCKET, SO_BINDTODEVICE, LAN_BRIDGE, static_cast<socklen_t>(strlen(LAN_BRIDGE))) <
        0) {
        fprintf(stderr, "Failed to bind to interface %s", LAN_BRIDGE);
        return -1;
    }
    int hops = 255;
    if (setsockopt(raw, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof(hops)) < 0) {
        fputs("failed setting IPV6_MULTICAST_HOPS", stderr);
        return -1;
    }
    uint8_t msg[NS_MESSAGE_LEN];
    build_ns_message(msg, target, mac);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    uint8_t group[16];
    solicited_node_address(group, target);
    std::memcpy(&to.sin6_addr, group, 16);
    to.sin6_scope_id = if_nametoindex(LAN_BRIDGE);
    if (sendto(raw, msg, sizeof(msg), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)) < 0) {
        fputs("send_ns: sendmsg error\n", stderr);
        return -1;
    }
    return 0;
}

bool parse_na_frame(std::span<const uint8_t> frame, na_frame_info &out) noexcept
{
    if (frame.size() <= ICMP6_TYPE_AT || frame[ICMP6_TYPE_AT] != NEIGHBOR_ADVERT)
        return false;
    std::memcpy(out.source_mac, frame.data() + ETH_SOURCE_AT, 6);
    std::memcpy(out.source, frame.data() + IP6_SOURCE_AT, 16);
    return true;
}
