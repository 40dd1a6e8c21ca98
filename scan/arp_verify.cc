// Steps of the scan pass that decide which IPv4 neighbours are here: the
// classification of the dump, the ARP verification of the unsure ones, and
// the check of remembered neighbours that left the kernel's table.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>

#include "core/clock.h"
#include "core/locks.h"
#include "core/stop.h"
#include "core/unique_fd.h"
#include "scan/arp.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"
#include "scan/neigh.h"
#include "scan/topology.h"

arp_probe *arp_probe_list = nullptr;
pthread_mutex_t arp_probe_lock = PTHREAD_MUTEX_INITIALIZER;

void free_arp_probes_locked() noexcept
{
    mutex_guard g(arp_probe_lock);
    arp_probe *p = arp_probe_list;
    while (p) {
        arp_probe *next = p->next;
        free(p);
        p = next;
    }
    arp_probe_list = nullptr;
}

namespace
{

bool usable_ipv4(const neigh_msg &m)
{
    return m.family == AF_INET && m.state != NUD_STATE_NOARP;
}

uint32_t dst_ip(const neigh_msg &m)
{
    uint32_t ip = 0;
    std::memcpy(&ip, m.dst.data(), 4);
    return ip;
}

bool in_lan(uint32_t ip)
{
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ip, text, sizeof(text));
    return ip_in_lan(text, lan_info.ip);
}

// How many IPv4 neighbours inside the LAN, neither failed nor NOARP, carry
// this MAC.
int count_lan_addresses(std::span<const uint8_t> dump, const uint8_t mac[6])
{
    int count = 0;
    neigh_walker walk(dump);
    neigh_msg m;
    while (walk.next(m)) {
        if (m.family != AF_INET || m.dst.size() != 4 || m.lladdr.size() < 6)
            continue;
        if (m.state == NUD_STATE_FAILED || m.state == NUD_STATE_NOARP)
            continue;
        if (std::memcmp(m.lladdr.data(), mac, 6) == 0 && in_lan(dst_ip(m)))
            count++;
    }
    return count;
}

void add_probe(uint32_t ip, const uint8_t mac[6])
{
    auto *p = static_cast<arp_probe *>(calloc(1, sizeof(arp_probe)));
    if (!p)
        return;
    inet_ntop(AF_INET, &ip, p->ip_text, sizeof(p->ip_text));
    std::memcpy(p->mac, mac, 6);
    mutex_guard g(arp_probe_lock);
    p->next = arp_probe_list;
    arp_probe_list = p;
}

void add_entry(uint32_t ip, const uint8_t mac[6])
{
    client_table_entry *e = new_entry();
    if (!e)
        return;
    e->ip = ip;
    std::memcpy(e->mac, mac, 6);
    append_entry(e);
    set_arp_row(ip, mac);
}

} // namespace

void classify_ipv4_locked(std::span<const uint8_t> dump) noexcept
{
    neigh_walker walk(dump);
    neigh_msg m;
    while (walk.next(m)) {
        if (!usable_ipv4(m) || m.dst.size() != 4)
            continue;
        uint32_t ip = dst_ip(m);
        bool has_mac = m.lladdr.size() >= 6;
        if (!has_mac) {
            if (m.state & NUD_STATE_FAILED)
                clear_arp_row(ip);
            continue;
        }
        if (!in_lan(ip))
            continue;
        const uint8_t *mac = m.lladdr.data();
        if (station_is_active(mac) == 1 && count_lan_addresses(dump, mac) < 2) {
            add_entry(ip, mac);
            continue;
        }
        add_probe(ip, mac);
    }
}

namespace
{

constexpr int ARP_DRAIN_MAX = 256;

int32_t replied(const arp_probe *p)
{
    return __atomic_load_n(&p->replied, __ATOMIC_RELAXED);
}

// The sender walks the list twice and sends one request per probe that has
// not answered yet; a failed send is tried once more at once.
void *arp_sender(void *) noexcept
{
    unique_fd fd(open_arp_send_socket());
    if (!fd)
        return nullptr;
    for (int round = 0; round < 2; round++) {
        for (const arp_probe *p = arp_probe_list; p; p = p->next) {
            if (replied(p))
                continue;
            uint32_t ip = 0;
            if (inet_pton(AF_INET, p->ip_text, &ip) != 1)
                continue;
            if (send_arp_request(fd.get(), ip, p->mac) < 0)
                send_arp_request(fd.get(), ip, p->mac);
        }
    }
    return nullptr;
}

bool all_answered()
{
    mutex_guard g(arp_probe_lock);
    for (const arp_probe *p = arp_probe_list; p; p = p->next) {
        if (p->replied)
            continue;
        bool sibling = false;
        for (const arp_probe *q = arp_probe_list; q && !sibling; q = q->next)
            sibling = q != p && q->replied && std::memcmp(q->mac, p->mac, 6) == 0;
        if (!sibling)
            return false;
    }
    return true;
}

void take_reply(const arp_frame_info &info)
{
    bool found = false;
    {
        mutex_guard g(arp_probe_lock);
        for (arp_probe *p = arp_probe_list; p; p = p->next) {
            if (std::memcmp(p->mac, info.sender_mac, 6) == 0 &&
                std::strcmp(p->ip_text, info.sender_ip_text) == 0) {
                __atomic_store_n(&p->replied, 1, __ATOMIC_RELAXED);
                found = true;
                break;
            }
        }
    }
    if (!found)
        return;
    for (client_table_entry *e = client_table.head; e; e = e->next)
        if (e->ip == info.sender_ip && std::memcmp(e->mac, info.sender_mac, 6) == 0)
            return;
    add_entry(info.sender_ip, info.sender_mac);
}

// One turn of the receive loop: waits up to 50 ms for a frame, then takes
// every frame already queued, so that the replies of two addresses of one
// MAC that came together both count before the loop looks at the probes.
void receive_frames(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{0, static_cast<suseconds_t>(ARP_POLL_MS) * 1000};
    if (select(fd + 1, &set, nullptr, nullptr, &tv) <= 0)
        return;
    uint8_t frame[ARP_RECV_MAX];
    ssize_t n;
    // Bounded, so that a storm of ARP frames can't keep the loop from
    // looking at the clock.
    for (int taken = 0; taken < ARP_DRAIN_MAX && (n = recv(fd, frame, sizeof(frame), 0)) > 0; taken++) {
        arp_frame_info info{};
        if (parse_arp_frame(std::span<const uint8_t>(frame, static_cast<size_t>(n)), info) && info.op == 2)
            take_reply(info);
    }
}

} // namespace

void verify_arp_probes_locked() noexcept
{
    if (!arp_probe_list)
        return;
    unique_fd fd(open_arp_socket());
    if (!fd)
        return;
    pthread_t sender;
    if (pthread_create(&sender, nullptr, arp_sender, nullptr) != 0)
        return;
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        receive_frames(fd.get());
        if (all_answered())
            break;
        if (elapsed_ms(start) >= ARP_WAIT_MS || lr_stopping())
            break;
    }
    fd.reset();
    pthread_join(sender, nullptr);
}

void drop_unanswered_probes_locked() noexcept
{
    {
        mutex_guard g(arp_probe_lock);
        for (const arp_probe *p = arp_probe_list; p; p = p->next) {
            uint32_t ip = 0;
            if (!p->replied && inet_pton(AF_INET, p->ip_text, &ip) == 1)
                clear_arp_row(ip);
        }
    }
    free_arp_probes_locked();
}

void check_remembered_locked() noexcept
{
    unique_fd fd(open_arp_socket());
    if (!fd)
        return;
    for (struct arp_item &row : arp_item) {
        // Each check waits up to 150 ms; a stop must not wait for all 256.
        if (lr_stopping())
            return;
        if (row.ip == 0 || row.active != 0)
            continue;
        uint32_t ip = row.ip;
        uint8_t mac[6];
        std::memcpy(mac, row.mac, 6);
        bool keep;
        if (!in_lan(ip))
            keep = false;
        else if (station_is_active(mac) == 1)
            keep = true;
        else
            keep = arp_check(fd.get(), ip, mac, ARP_CHECK_FIRST_MS) == 1 ||
                   arp_check(fd.get(), ip, mac, ARP_CHECK_SECOND_MS) == 1;
        if (!keep) {
            row = {};
            continue;
        }
        add_entry(ip, mac);
    }
}
