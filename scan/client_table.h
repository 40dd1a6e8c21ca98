// The scan pass: one pass's picture of who is on the LAN, rebuilt from the
// kernel's neighbour table and verified by ARP, and the remembered IPv4
// neighbours that outlive passes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <span>

struct ip6_info;

struct client_table_entry {
    char hostname[65];
    uint32_t ip; // network order; 0 for a client seen through IPv6 only
    uint8_t ip6_local[16];
    ip6_info *ip6;
    uint8_t ip6_only;
    uint8_t mac[6];
    uint8_t wire_type;
    uint8_t guest;
    char ifname[16];
    int32_t device_type;
    int32_t type_source;
    client_table_entry *next;
};

struct client_table {
    client_table_entry *head;
    client_table_entry *tail;
};

// The list of the last pass, readable between passes under the read lock.
extern struct client_table client_table;
extern pthread_rwlock_t client_table_lock;

// Remembered IPv4 neighbours, indexed by the last octet of the address.
inline constexpr int ARP_ITEM_ROWS = 256;
struct arp_item {
    uint8_t mac[6];
    uint32_t ip; // network order, 0 = free row
    int32_t active;
};
extern struct arp_item arp_item[ARP_ITEM_ROWS];

// One IPv4 neighbour to verify in this pass. The sender thread walks the
// list while the receive loop writes `replied` under arp_probe_lock.
struct arp_probe {
    char ip_text[16];
    uint8_t mac[6];
    int32_t replied;
    arp_probe *next;
};
extern arp_probe *arp_probe_list;
extern pthread_mutex_t arp_probe_lock;

// Type source while no source gave a device type.
inline constexpr int32_t TYPE_SOURCE_NONE = 4;
inline constexpr int32_t TYPE_SOURCE_LEASE = 3;
inline constexpr char HOSTNAME_FALLBACK[] = "network device";

// Waits of the pass, in milliseconds.
inline constexpr int ARP_WAIT_MS = 4000;
inline constexpr int ARP_POLL_MS = 50;
inline constexpr int ARP_CHECK_FIRST_MS = 100;
inline constexpr int ARP_CHECK_SECOND_MS = 50;

// The pass: the number of entries, -1 when a source failed, -2 when another
// pass holds the table.
int create_client_table() noexcept;

client_table_entry *find_entry_by_mac(const uint8_t mac[6]) noexcept;
client_table_entry *find_entry_by_ip(uint32_t ip) noexcept;
client_table_entry *new_entry() noexcept;
void append_entry(client_table_entry *entry) noexcept;

// Row of the remembered table for an address in network order.
inline struct arp_item &arp_row(uint32_t ip) noexcept
{
    return arp_item[reinterpret_cast<const uint8_t *>(&ip)[3]];
}
void set_arp_row(uint32_t ip, const uint8_t mac[6]) noexcept;
void clear_arp_row(uint32_t ip) noexcept;

// Steps of the pass, each run with the write lock held.
void free_client_table_locked() noexcept;
void free_arp_probes_locked() noexcept;
void classify_ipv4_locked(std::span<const uint8_t> dump) noexcept;
void verify_arp_probes_locked() noexcept;
void drop_unanswered_probes_locked() noexcept;
void check_remembered_locked() noexcept;
// The forwarding tables of all bridges, hashed for the port phase: 0, or -1
// with the message of what failed. free_pass_fdb drops them.
int read_forwarding_locked() noexcept;
void free_pass_fdb() noexcept;
// The port phase: bridge port, wire type and guest of each entry.
void assign_ports_locked() noexcept;
// Clients upstream of a node that is no router: those on the gateway's port.
void mark_front_clients_locked() noexcept;
int name_entries_locked() noexcept;
void type_entries_locked() noexcept;
