// IPv6 neighbours of the scan pass: each client with IPv6 gets an ip6_info
// with a summary state and its global addresses, its link-local address goes
// into the scan entry, and every address is verified by a Neighbor
// Solicitation whose Advertisement raises the summary to "alive".
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <span>

struct client_table_entry;
struct ip6_addr_node;

struct ip6_info {
    int32_t state; // summary, IP6_* below
    ip6_addr_node *addresses;
    ip6_addr_node *addresses_tail;
    uint8_t mac[6];
    ip6_info *next;
};

// Summary values: negative counts stale addresses, 1 to 3 reachable ones,
// 4 to 6 addresses that answered a solicitation.
enum : int32_t {
    IP6_MORE_STALE = -3,
    IP6_TWO_STALE = -2,
    IP6_ONE_STALE = -1,
    IP6_NO_ITEM = 0,
    IP6_ONE_REACHABLE = 1,
    IP6_TWO_REACHABLE = 2,
    IP6_MORE_REACHABLE = 3,
    IP6_ONE_ALIVE = 4,
    IP6_TWO_ALIVE = 5,
    IP6_MORE_ALIVE = 6,
};

// The ip6_info list of the pass; it lives until the same phase of the next
// pass, so the compare pass can copy the addresses out of it.
struct ip6_info_list {
    ip6_info *head;
    ip6_info *tail;
};
extern ip6_info_list ip6_infos;

// One address to solicit. A new item goes directly behind the head.
struct ns_probe {
    char ip_text[40];
    uint8_t mac[6];
    int32_t replied;
    ns_probe *next;
};
extern ns_probe *ns_probe_list;
extern pthread_mutex_t ns_probe_lock;

inline constexpr uint16_t NUD_STATE_REACHABLE = 0x02;
// Neighbour states that count: any but INCOMPLETE and FAILED.
inline constexpr uint16_t IP6_NEIGH_STATES = 0xde;
inline constexpr size_t NS_MESSAGE_LEN = 32;
// Frames read while waiting for Advertisements.
inline constexpr size_t NA_RECV_MAX = 256;
inline constexpr int NS_WAIT_MS = 4000;

ip6_info *new_ip6_info() noexcept;
void append_ip6_info(ip6_info *info) noexcept;
// Adds at the tail, state 1 when `ndm_state` is NUD_REACHABLE, else 0.
void ip6_add_address(ip6_info *info, const uint8_t addr[16], uint16_t ndm_state) noexcept;
void ip6_remove_address(ip6_info *info, const uint8_t addr[16]) noexcept;
void note_neighbour(client_table_entry *entry, ip6_info *info, const uint8_t addr[16], const uint8_t mac[6],
                    uint16_t ndm_state) noexcept;

// Steps of the IPv6 phase, each with the client table write-locked.
void free_ip6_infos_locked() noexcept;
void free_ns_probes_locked() noexcept;
void classify_ipv6_locked(std::span<const uint8_t> dump) noexcept;
// One address to solicit, behind the head of the list.
void add_ns_probe(const char *text, const uint8_t mac[6]) noexcept;
// What an Advertisement from (addr, mac) does: the probe it answers is
// marked and the client's summary rises. False when no probe asked for it.
bool take_advertisement_locked(const uint8_t addr[16], const uint8_t mac[6]) noexcept;
void verify_ns_probes_locked() noexcept;
// The whole phase: old list and probes freed, stations refreshed, the dump
// classified, the probes verified.
void run_ipv6_phases_locked(std::span<const uint8_t> dump) noexcept;

// The Neighbor Solicitation for `target` from a LAN MAC, byte for byte.
void build_ns_message(uint8_t (&msg)[NS_MESSAGE_LEN], const uint8_t target[16],
                      const uint8_t lan_mac[6]) noexcept;
// The solicited-node multicast address of `target`.
void solicited_node_address(uint8_t (&out)[16], const uint8_t target[16]) noexcept;
// One solicitation on "br-lan" for the address text: 0, or -1.
int send_ns(const char *address_text) noexcept;

// The fields of a received frame that the wait looks at. False unless the
// frame is long enough and carries a Neighbor Advertisement.
struct na_frame_info {
    uint8_t source_mac[6];
    uint8_t source[16];
};
bool parse_na_frame(std::span<const uint8_t> frame, na_frame_info &out) noexcept;
