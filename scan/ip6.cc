#include "scan/ip6.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/clock.h"
#include "core/locks.h"
#include "core/log.h"
#include "core/stop.h"
#include "core/text.h"
#include "core/unique_fd.h"
#include "registry/client_node.h"
#include "scan/client_table.h"
#include "scan/neigh.h"
#include "scan/topology.h"

ip6_info_list ip6_infos = {nullptr, nullptr};
ns_probe *ns_probe_list = nullptr;
pthread_mutex_t ns_probe_lock = PTHREAD_MUTEX_INITIALIZER;

namespace
{

constexpr const char *LAN_BRIDGE = "br-lan";

bool addr_text(const uint8_t addr[16], char (&text)[INET6_ADDRSTRLEN])
{
    return inet_ntop(AF_INET6, addr, text, sizeof(text)) != nullptr;
}

bool link_local_text(const char *text)
{
    return std::strncmp(text, "fe80::", 6) == 0;
}

bool same_as_last(const ip6_info *info, const uint8_t addr[16])
{
    return info->addresses_tail && std::memcmp(info->addresses_tail->addr, addr, 16) == 0;
}

void free_addresses(ip6_info *info)
{
    ip6_addr_node *a = info->addresses;
    while (a) {
        ip6_addr_node *next = a->next;
        free(a);
        a = next;
    }
    info->addresses = info->addresses_tail = nullptr;
}

} // namespace

ip6_info *new_ip6_info() noexcept
{
    auto *info = static_cast<ip6_info *>(calloc(1, sizeof(ip6_info)));
    if (!info)
        lr_write_line(STDERR_FILENO, "lanroster: out of memory.\n");
    return info;
}

void append_ip6_info(ip6_info *info) noexcept
{
    info->next = nullptr;
    if (ip6_infos.tail)
        ip6_infos.tail->next = info;
    else
        ip6_infos.head = info;
    ip6_infos.tail = info;
}

void ip6_add_address(ip6_info *info, const uint8_t addr[16], uint16_t ndm_state) noexcept
{
    char text[INET6_ADDRSTRLEN];
    if (!info || !addr_text(addr, text))
        return;
    auto *node = static_cast<ip6_addr_node *>(calloc(1, sizeof(ip6_addr_node)));
    if (!node)
        return;
    node->state = ndm_state == NUD_STATE_REACHABLE ? 1 : 0;
    std::memcpy(node->addr, addr, 16);
    if (info->addresses_tail)
        info->addresses_tail->next = node;
    else
        info->addresses = node;
    info->addresses_tail = node;
}

void ip6_remove_address(ip6_info *info, const uint8_t addr[16]) noexcept
{
    ip6_addr_node *prev = nullptr;
    for (ip6_addr_node *a = info->addresses; a; prev = a, a = a->next) {
        if (std::memcmp(a->addr, addr, 16) != 0)
            continue;
        if (prev)
            prev->next = a->next;
        else
            info->addresses = a->next;
        if (info->addresses_tail == a)
            info->addresses_tail = prev;
        free(a);
        return;
    }
}

void note_neighbour(client_table_entry *entry, ip6_info *info, const uint8_t addr[16], const uint8_t mac[6],
                    uint16_t ndm_state) noexcept
{
    char text[INET6_ADDRSTRLEN];
    if (addr_text(addr, text) && link_local_text(text)) {
        std::memcpy(entry->ip6_local, addr, 16);
        std::memcpy(info->mac, mac, 6);
        return;
    }
    // A reachable address overrides any stale count; a stale one leaves a
    // reachable count alone.
    if (ndm_state == NUD_STATE_REACHABLE) {
        if (info->state < IP6_ONE_REACHABLE)
            info->state = IP6_ONE_REACHABLE;
        else if (info->state == IP6_ONE_REACHABLE)
            info->state = IP6_TWO_REACHABLE;
        else
            info->state = IP6_MORE_REACHABLE;
    } else if (info->state < IP6_ONE_REACHABLE || info->state > IP6_MORE_REACHABLE) {
        if (info->state == IP6_NO_ITEM)
            info->state = IP6_ONE_STALE;
        else if (info->state == IP6_ONE_STALE)
            info->state = IP6_TWO_STALE;
        else
            info->state = IP6_MORE_STALE;
    }
    ip6_add_address(info, addr, ndm_state);
}

void free_ip6_infos_locked() noexcept
{
    ip6_info *info = ip6_infos.head;
    while (info) {
        ip6_info *next = info->next;
        free_addresses(info);
        free(info);
        info = next;
    }
    ip6_infos = {nullptr, nullptr};
    // Entries of the former pass are gone already; any left would point here.
    for (client_table_entry *e = client_table.head; e; e = e->next)
        e->ip6 = nullptr;
}

void free_ns_probes_locked() noexcept
{
    mutex_guard g(ns_probe_lock);
    ns_probe *p = ns_probe_list;
    while (p) {
        ns_probe *next = p->next;
        free(p);
        p = next;
    }
    ns_probe_list = nullptr;
}

namespace
{

// Multicast and reserved space is no neighbour; link-local is, though its
// first byte is 0xfe.
bool wanted_address(const uint8_t addr[16])
{
    return addr[0] < 0xf0 || (addr[0] == 0xfe && addr[1] == 0x80);
}

} // namespace

void add_ns_probe(const char *text, const uint8_t mac[6]) noexcept
{
    auto *p = static_cast<ns_probe *>(calloc(1, sizeof(ns_probe)));
    if (!p)
        return;
    copy_str(p->ip_text, text);
    std::memcpy(p->mac, mac, 6);
    mutex_guard g(ns_probe_lock);
    if (ns_probe_list) {
        p->next = ns_probe_list->next;
        ns_probe_list->next = p;
    } else {
        ns_probe_list = p;
    }
}

namespace
{

// An entry and ip6_info for a client the IPv4 phases did not see.
client_table_entry *new_ip6_only_entry(const uint8_t mac[6], ip6_info **info)
{
    client_table_entry *e = new_entry();
    if (!e)
        return nullptr;
    *info = new_ip6_info();
    if (!*info) {
        free(e);
        return nullptr;
    }
    e->ip6 = *info;
    e->ip6_only = 1;
    std::memcpy(e->mac, mac, 6);
    std::memcpy((*info)->mac, mac, 6);
    return e;
}

// Gives an IPv4 entry its ip6_info; ip6_only stays 0.
ip6_info *attach_ip6_info(client_table_entry *e)
{
    ip6_info *info = new_ip6_info();
    if (!info)
        return nullptr;
    std::memcpy(info->mac, e->mac, 6);
    e->ip6 = info;
    append_ip6_info(info);
    return info;
}

void feed_station(const uint8_t addr[16], const uint8_t mac[6], uint16_t state)
{
    client_table_entry *e = find_entry_by_mac(mac);
    if (!e) {
        ip6_info *info = nullptr;
        e = new_ip6_only_entry(mac, &info);
        if (!e)
            return;
        note_neighbour(e, info, addr, mac, state);
        append_ip6_info(info);
        append_entry(e);
        return;
    }
    if (!e->ip6 && !attach_ip6_info(e))
        return;
    note_neighbour(e, e->ip6, addr, mac, state);
}

} // namespace

void classify_ipv6_locked(std::span<const uint8_t> dump) noexcept
{
    int lan_index = static_cast<int>(if_nametoindex(LAN_BRIDGE));
    neigh_walker walk(dump);
    neigh_msg m;
    while (walk.next(m)) {
        if (m.family != AF_INET6 || !(m.state & IP6_NEIGH_STATES) || m.ifindex != lan_index)
            continue;
        if (m.dst.size() != 16 || m.lladdr.size() < 6)
            continue;
        uint8_t addr[16];
        std::memcpy(addr, m.dst.data(), 16);
        char text[INET6_ADDRSTRLEN];
        if (!addr_text(addr, text) || !wanted_address(addr))
            continue;
        const uint8_t *mac = m.lladdr.data();
        if (station_radio(mac) >= 0)
            feed_station(addr, mac, m.state);
        add_ns_probe(text, mac);
    }
}

bool take_advertisement_locked(const uint8_t addr[16], const uint8_t mac[6]) noexcept
{
    char text[INET6_ADDRSTRLEN];
    if (!addr_text(addr, text))
        return false;
    bool found = false;
    {
        mutex_guard g(ns_probe_lock);
        for (ns_probe *p = ns_probe_list; p && !found; p = p->next) {
            if (std::memcmp(p->mac, mac, 6) == 0 && std::strcmp(p->ip_text, text) == 0) {
                __atomic_store_n(&p->replied, 1, __ATOMIC_RELAXED);
                found = true;
            }
        }
    }
    if (!found)
        return false;
    client_table_entry *e = find_entry_by_mac(mac);
    if (!e) {
        // A client only an answer vouches for: the address counts as a
        // global one whatever its kind, link-local too.
        ip6_info *info = nullptr;
        e = new_ip6_only_entry(mac, &info);
        if (!e)
            return true;
        info->state = IP6_ONE_ALIVE;
        ip6_add_address(info, addr, NUD_STATE_REACHABLE);
        append_ip6_info(info);
        append_entry(e);
        return true;
    }
    if (!e->ip6 && !attach_ip6_info(e))
        return true;
    ip6_info *info = e->ip6;
    if (link_local_text(text)) {
        std::memcpy(e->ip6_local, addr, 16);
        return true;
    }
    int32_t s = info->state;
    if (s < IP6_ONE_ALIVE) {
        info->state = IP6_ONE_ALIVE;
    } else if (same_as_last(info, addr)) {
        return true;
    } else if (s == IP6_ONE_ALIVE) {
        info->state = IP6_TWO_ALIVE;
    } else if (s == IP6_TWO_ALIVE) {
        info->state = IP6_MORE_ALIVE;
    }
    ip6_remove_address(info, addr);
    ip6_add_address(info, addr, NUD_STATE_REACHABLE);
    return true;
}

namespace
{

constexpr int NA_DRAIN_MAX = 256;
constexpr int NA_RCVBUF = 1 << 20;
constexpr int NA_POLL_MS = 50;

// The sender walks the list once; a failed send is tried once more.
void *ns_sender(void *) noexcept
{
    for (const ns_probe *p = ns_probe_list; p; p = p->next) {
        if (__atomic_load_n(&p->replied, __ATOMIC_RELAXED) == 1)
            continue;
        if (send_ns(p->ip_text) < 0)
            send_ns(p->ip_text);
    }
    return nullptr;
}

// Unlike IPv4, a reply for another address of the same MAC doesn't stand in.
bool all_replied()
{
    mutex_guard g(ns_probe_lock);
    for (const ns_probe *p = ns_probe_list; p; p = p->next)
        if (p->replied != 1)
            return false;
    return true;
}

// Frames of the bridge only: its ports carry the same frames once more.
int open_na_socket()
{
    unique_fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IPV6)));
    if (!fd)
        return -1;
    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_IPV6);
    sll.sll_ifindex = static_cast<int>(if_nametoindex(LAN_BRIDGE));
    // Unbound, the socket still sees every answer, but twice (on the port
    // and on the bridge), which can raise an alive count early.
    if (sll.sll_ifindex > 0 && bind(fd.get(), reinterpret_cast<sockaddr *>(&sll), sizeof(sll)) != 0)
        sll.sll_ifindex = 0;
    // A pass solicits hundreds of addresses at once, and their answers
    // arrive together: room for all of them, and none taken by the
    // solicitations the sender itself puts on the bridge.
    int rcvbuf = NA_RCVBUF;
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    int ignore = 1;
    setsockopt(fd.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &ignore, sizeof(ignore));
    int flags = fcntl(fd.get(), F_GETFL);
    if (flags >= 0)
        fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
    return fd.release();
}

void receive_advertisements(int fd)
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{0, static_cast<suseconds_t>(NA_POLL_MS) * 1000};
    if (select(fd + 1, &set, nullptr, nullptr, &tv) <= 0)
        return;
    uint8_t frame[NA_RECV_MAX];
    ssize_t n;
    for (int taken = 0; taken < NA_DRAIN_MAX && (n = recv(fd, frame, sizeof(frame), 0)) > 0; taken++) {
        na_frame_info info{};
        if (parse_na_frame(std::span<const uint8_t>(frame, static_cast<size_t>(n)), info))
            take_advertisement_locked(info.source, info.source_mac);
    }
}

} // namespace

void verify_ns_probes_locked() noexcept
{
    if (!ns_probe_list)
        return;
    unique_fd fd(open_na_socket());
    if (!fd)
        return;
    pthread_t sender;
    if (pthread_create(&sender, nullptr, ns_sender, nullptr) != 0)
        return;
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        receive_advertisements(fd.get());
        if (all_replied() || elapsed_ms(start) >= NS_WAIT_MS || lr_stopping())
            break;
    }
    fd.reset();
    pthread_join(sender, nullptr);
}

void run_ipv6_phases_locked(std::span<const uint8_t> dump) noexcept
{
    free_ip6_infos_locked();
    free_ns_probes_locked();
    refresh_stations();
    classify_ipv6_locked(dump);
    verify_ns_probes_locked();
    free_ns_probes_locked();
}
