#include "scan/arp.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "core/locks.h"
#include "core/text.h"
#include "core/unique_fd.h"
#include "scan/lan_info.h"

namespace
{

pthread_mutex_t lan_if_lock = PTHREAD_MUTEX_INITIALIZER;
arp_lan_if lan_if_values{};

void put16(uint8_t *p, uint16_t host)
{
    uint16_t v = htons(host);
    std::memcpy(p, &v, 2);
}

int64_t now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace

void build_arp_request(uint8_t (&f)[ARP_FRAME_LEN], const uint8_t dst_mac[6], const uint8_t lan_mac[6],
                       uint32_t lan_ip, uint32_t target_ip) noexcept
{
    std::memcpy(f + 0, dst_mac, 6);
    std::memcpy(f + 6, lan_mac, 6);
    put16(f + 12, ETHERTYPE_ARP);
    put16(f + 14, 1);
    put16(f + 16, ETHERTYPE_IP);
    f[18] = 6;
    f[19] = 4;
    put16(f + 20, 1);
    std::memcpy(f + 22, lan_mac, 6);
    std::memcpy(f + 28, &lan_ip, 4);
    std::memset(f + 32, 0, 6);
    std::memcpy(f + 38, &target_ip, 4);
}

bool parse_arp_frame(std::span<const uint8_t> frame, arp_frame_info &out) noexcept
{
    if (frame.size() < ARP_FRAME_LEN)
        return false;
    out.op = static_cast<uint16_t>(frame[20] << 8 | frame[21]);
    std::memcpy(out.sender_mac, frame.data() + 22, 6);
    std::memcpy(&out.sender_ip, frame.data() + 28, 4);
    inet_ntop(AF_INET, &out.sender_ip, out.sender_ip_text, sizeof(out.sender_ip_text));
    return true;
}

int read_lan_if(arp_lan_if &lan) noexcept
{
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return -1;
    // The interface list in a 512-byte buffer, searched from the end.
    alignas(ifreq) char buf[512];
    ifconf ifc{};
    ifc.ifc_len = sizeof(buf);
    ifc.ifc_buf = buf;
    if (ioctl(fd.get(), SIOCGIFCONF, &ifc) < 0)
        return -1;
    int count = ifc.ifc_len / static_cast<int>(sizeof(ifreq));
    ifreq *found = nullptr;
    for (int i = count - 1; i >= 0; i--) {
        if (std::strncmp(ifc.ifc_req[i].ifr_name, lan_bridge_name, IFNAMSIZ) == 0) {
            found = &ifc.ifc_req[i];
            break;
        }
    }
    if (!found)
        return -1;
    ifreq req{};
    std::memcpy(req.ifr_name, found->ifr_name, IFNAMSIZ);
    if (ioctl(fd.get(), SIOCGIFFLAGS, &req) < 0)
        return -1;
    if (ioctl(fd.get(), SIOCGIFADDR, &req) < 0)
        return -1;
    uint32_t ip;
    std::memcpy(&ip, &reinterpret_cast<sockaddr_in *>(&req.ifr_addr)->sin_addr, 4);
    if (ioctl(fd.get(), SIOCGIFHWADDR, &req) < 0)
        return -1;
    uint8_t mac[6];
    std::memcpy(mac, req.ifr_hwaddr.sa_data, 6);
    if (ioctl(fd.get(), SIOCGIFINDEX, &req) < 0)
        return -1;
    lan.ip = ip;
    std::memcpy(lan.mac, mac, 6);
    lan.ifindex = req.ifr_ifindex;
    return 0;
}

arp_lan_if lan_if_snapshot() noexcept
{
    mutex_guard g(lan_if_lock);
    return lan_if_values;
}

namespace
{

arp_lan_if refresh_lan_if()
{
    mutex_guard g(lan_if_lock);
    arp_lan_if fresh = lan_if_values;
    if (read_lan_if(fresh) == 0)
        lan_if_values = fresh;
    return lan_if_values;
}

int send_on(int fd, const arp_lan_if &lan, uint32_t ip, const uint8_t mac[6])
{
    uint8_t frame[ARP_FRAME_LEN];
    build_arp_request(frame, mac, lan.mac, lan.ip, ip);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETH_P_ARP);
    to.sll_ifindex = lan.ifindex;
    to.sll_halen = 6;
    std::memcpy(to.sll_addr, mac, 6);
    ssize_t n = sendto(fd, frame, sizeof(frame), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    return n == static_cast<ssize_t>(sizeof(frame)) ? 0 : -1;
}

} // namespace

int open_arp_send_socket() noexcept
{
    // Protocol 0: the socket never sees incoming frames.
    return socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
}

int send_arp_request(int fd, uint32_t ip, const uint8_t mac[6]) noexcept
{
    arp_lan_if lan = refresh_lan_if();
    return send_on(fd, lan, ip, mac);
}

int open_arp_socket() noexcept
{
    return socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ARP));
}

int arp_check(int fd, uint32_t ip, const uint8_t mac[6], int wait_ms) noexcept
{
    arp_lan_if lan = refresh_lan_if();
    if (send_on(fd, lan, ip, mac) < 0)
        return 0;
    char want[16] = {};
    inet_ntop(AF_INET, &ip, want, sizeof(want));
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int64_t deadline = now_ms() + wait_ms;
    for (;;) {
        int64_t left = deadline - now_ms();
        if (left <= 0)
            return 0;
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval tv{static_cast<time_t>(left / 1000), static_cast<suseconds_t>((left % 1000) * 1000)};
        int r = select(fd + 1, &set, nullptr, nullptr, &tv);
        if (r < 0 && errno != EINTR)
            return 0;
        if (r <= 0)
            continue;
        uint8_t frame[ARP_RECV_MAX];
        ssize_t n = recv(fd, frame, sizeof(frame), 0);
        arp_frame_info info{};
        if (n > 0 && parse_arp_frame(std::span<const uint8_t>(frame, static_cast<size_t>(n)), info) &&
            info.op == 2 && std::strcmp(info.sender_ip_text, want) == 0)
            return 1;
    }
}
