#include "scan/neigh.h"


#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/log.h"
#include "core/unique_fd.h"

namespace
{

constexpr size_t NLHDR_LEN = sizeof(nlmsghdr); // 16
constexpr size_t NDMSG_LEN = sizeof(ndmsg);    // 12
constexpr size_t RTA_HDR_LEN = sizeof(rtattr); // 4

static_assert(NLHDR_LEN == 16 && NDMSG_LEN == 12 && RTA_HDR_LEN == 4);

size_t align4(size_t n)
{
    return (n + 3) & ~size_t{3};
}

uint16_t rd16(const uint8_t *p)
{
    uint16_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

uint32_t rd32(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

// Header fields of the message at the front of `rest`, if it is whole.
bool message_at(std::span<const uint8_t> rest, uint32_t &len, uint16_t &type)
{
    if (rest.size() < NLHDR_LEN)
        return false;
    len = rd32(rest.data());
    type = rd16(rest.data() + 4);
    return len >= NLHDR_LEN && len <= rest.size();
}

void parse_attrs(std::span<const uint8_t> attrs, neigh_msg &out)
{
    while (attrs.size() >= RTA_HDR_LEN) {
        uint16_t len = rd16(attrs.data());
        uint16_t type = rd16(attrs.data() + 2);
        if (len < RTA_HDR_LEN || len > attrs.size())
            return;
        auto payload = attrs.subspan(RTA_HDR_LEN, len - RTA_HDR_LEN);
        if (type == NDA_DST)
            out.dst = payload;
        else if (type == NDA_LLADDR)
            out.lladdr = payload;
        size_t step = align4(len);
        if (step >= attrs.size())
            return;
        attrs = attrs.subspan(step);
    }
}

} // namespace

bool neigh_walker::next(neigh_msg &out) noexcept
{
    uint32_t len = 0;
    uint16_t type = 0;
    while (message_at(rest_, len, type)) {
        auto msg = rest_.subspan(0, len);
        size_t step = align4(len);
        rest_ = step >= rest_.size() ? std::span<const uint8_t>{} : rest_.subspan(step);
        if (type == NLMSG_DONE || type == NLMSG_ERROR) {
            rest_ = {};
            return false;
        }
        if (type != RTM_NEWNEIGH || msg.size() < NLHDR_LEN + NDMSG_LEN)
            continue;
        const uint8_t *nd = msg.data() + NLHDR_LEN;
        out = neigh_msg{};
        out.family = nd[0];
        int32_t ifindex;
        std::memcpy(&ifindex, nd + 4, sizeof(ifindex));
        out.ifindex = ifindex;
        out.state = rd16(nd + 8);
        parse_attrs(msg.subspan(NLHDR_LEN + NDMSG_LEN), out);
        return true;
    }
    rest_ = {};
    return false;
}

neigh_datagram check_neigh_datagram(std::span<const uint8_t> dgram) noexcept
{
    uint32_t len = 0;
    uint16_t type = 0;
    while (message_at(dgram, len, type)) {
        if (type == NLMSG_DONE)
            return neigh_datagram::done;
        if (type == NLMSG_ERROR)
            return neigh_datagram::error;
        size_t step = align4(len);
        dgram = step >= dgram.size() ? std::span<const uint8_t>{} : dgram.subspan(step);
    }
    return dgram.empty() ? neigh_datagram::more : neigh_datagram::remnant;
}

int append_datagram(uint8_t **buffer, int *capacity, int used, std::span<const uint8_t> dgram) noexcept
{
    size_t cap = *capacity > 0 ? static_cast<size_t>(*capacity) : 0;
    size_t need = static_cast<size_t>(used) + dgram.size();
    if (need > static_cast<size_t>(INT32_MAX))
        return -1;
    if (need > cap || !*buffer) {
        while (need > cap)
            cap += NEIGH_GROW_STEP;
        auto *grown = static_cast<uint8_t *>(realloc(*buffer, cap ? cap : NEIGH_GROW_STEP));
        if (!grown)
            return -1;
        *buffer = grown;
        *capacity = static_cast<int>(cap ? cap : NEIGH_GROW_STEP);
    }
    if (!dgram.empty())
        std::memcpy(*buffer + used, dgram.data(), dgram.size());
    return static_cast<int>(need);
}

int dump_neighbours_on(int fd, uint8_t **buffer, int *capacity) noexcept
{
    struct {
        nlmsghdr nlh;
        ndmsg nd;
    } req{};
    static_assert(sizeof(req) == 28);
    req.nlh.nlmsg_len = sizeof(req);
    req.nlh.nlmsg_type = RTM_GETNEIGH;
    req.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
    req.nlh.nlmsg_seq = static_cast<uint32_t>(time(nullptr));
    req.nd.ndm_family = AF_UNSPEC;
    // The send is not checked: a lost request shows as a receive error.
    ssize_t sent = send(fd, &req, sizeof(req), 0);
    (void)sent;

    uint8_t dgram[NEIGH_RECV_BUF];
    int used = 0;
    for (;;) {
        ssize_t n = recv(fd, dgram, sizeof(dgram), 0);
        if (n < 0) {
            lr_write_line(STDERR_FILENO, "ARP_sniffer: netlink receive error\n");
            return -1;
        }
        if (n == 0) {
            lr_write_line(STDERR_FILENO, "ARP_sniffer: EOF on netlink\n");
            return -1;
        }
        std::span<const uint8_t> got(dgram, static_cast<size_t>(n));
        neigh_datagram kind = check_neigh_datagram(got);
        if (kind == neigh_datagram::error) {
            lr_write_line(STDERR_FILENO, "ARP_sniffer: NLMSG_ERROR\n");
            return -1;
        }
        if (kind == neigh_datagram::remnant) {
            lr_write_line(STDERR_FILENO, "ARP_sniffer: Remnant of size.\n");
            return -1;
        }
        used = append_datagram(buffer, capacity, used, got);
        if (used < 0) {
            lr_write_line(STDERR_FILENO, "ARP_sniffer: out of memory!\n");
            return -1;
        }
        if (kind == neigh_datagram::done)
            return used;
    }
}

int dump_neighbours(uint8_t **buffer, int *capacity) noexcept
{
    unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    // Port id 0: the kernel picks a free one. The process id belongs to the
    // event socket, which is bound first.
    local.nl_pid = 0;
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr *>(&local), sizeof(local)) < 0) {
        lr_write_line(STDERR_FILENO, "ARP_sniffer: netlink socket open error.\n");
        return -1;
    }
    return dump_neighbours_on(fd.get(), buffer, capacity);
}

int find_neigh_mac(std::span<const uint8_t> buf, const char *ip_text, uint8_t mac[6]) noexcept
{
    neigh_walker walk(buf);
    neigh_msg m;
    while (walk.next(m)) {
        if (m.dst.size() != 4 || m.lladdr.size() < 6)
            continue;
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, m.dst.data(), text, sizeof(text));
        if (std::strcmp(text, ip_text) == 0) {
            std::memcpy(mac, m.lladdr.data(), 6);
            return 1;
        }
    }
    return 0;
}
