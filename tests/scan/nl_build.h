// Builds rtnetlink neighbour messages and datagrams the way the kernel lays
// them out, for the tests and fuzz seeds of the scan.
#pragma once

#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string>
#include <vector>

namespace nlb {

using bytes = std::vector<uint8_t>;

inline void pad4(bytes &b)
{
    while (b.size() % 4)
        b.push_back(0);
}

inline void put_attr(bytes &b, uint16_t type, const void *data, size_t len)
{
    rtattr a{};
    a.rta_len = static_cast<uint16_t>(sizeof(rtattr) + len);
    a.rta_type = type;
    const auto *p = reinterpret_cast<const uint8_t *>(&a);
    b.insert(b.end(), p, p + sizeof(a));
    const auto *d = static_cast<const uint8_t *>(data);
    b.insert(b.end(), d, d + len);
    pad4(b);
}

inline void finish(bytes &msg, uint16_t type, uint16_t flags = NLM_F_MULTI)
{
    nlmsghdr h{};
    h.nlmsg_len = static_cast<uint32_t>(msg.size());
    h.nlmsg_type = type;
    h.nlmsg_flags = flags;
    std::memcpy(msg.data(), &h, sizeof(h));
    pad4(msg);
}

struct neigh {
    uint8_t family = AF_INET;
    uint16_t state = NUD_REACHABLE;
    int32_t ifindex = 2;
    std::string ip;           // text, empty for no NDA_DST
    std::vector<uint8_t> mac; // empty for no NDA_LLADDR
};

inline bytes neigh_msg(const neigh &n)
{
    bytes m(sizeof(nlmsghdr), 0);
    ndmsg nd{};
    nd.ndm_family = n.family;
    nd.ndm_ifindex = n.ifindex;
    nd.ndm_state = n.state;
    const auto *p = reinterpret_cast<const uint8_t *>(&nd);
    m.insert(m.end(), p, p + sizeof(nd));
    if (!n.ip.empty()) {
        uint8_t addr[16] = {};
        size_t len = n.family == AF_INET6 ? 16 : 4;
        inet_pton(n.family, n.ip.c_str(), addr);
        put_attr(m, NDA_DST, addr, len);
    }
    if (!n.mac.empty())
        put_attr(m, NDA_LLADDR, n.mac.data(), n.mac.size());
    finish(m, RTM_NEWNEIGH);
    return m;
}

inline bytes done_msg()
{
    bytes m(sizeof(nlmsghdr) + 4, 0);
    finish(m, NLMSG_DONE);
    return m;
}

inline bytes error_msg()
{
    bytes m(sizeof(nlmsghdr) + sizeof(nlmsgerr), 0);
    finish(m, NLMSG_ERROR, 0);
    return m;
}

inline bytes cat(std::initializer_list<bytes> parts)
{
    bytes out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

inline std::vector<uint8_t> mac(uint8_t last, uint8_t first = 0x02)
{
    return {first, 0x11, 0x22, 0x33, 0x44, last};
}

}  // namespace nlb
