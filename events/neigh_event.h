// The worker side of the rtnetlink intake: neighbour (IPv4) and bridge
// forwarding events turned into joins and leaves of the live list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/rtnetlink.h>

struct nl_event_msg;

// Highest neighbour attribute type that is kept (NDA_* up to 11).
inline constexpr int NL_NEIGH_ATTR_MAX = 11;

// Walks `len` bytes of rtattr records from `first` and keeps in
// table[type] a pointer to each record of a type up to `max`; the table
// (max + 1 rows) is cleared first. The walk stops at a record shorter than
// its header or longer than what remains.
void parse_nl_attrs(const rtattr **table, const uint8_t *first, int max, int len) noexcept;

// Task of the rtnetlink intake: handles every neighbour message of the
// datagram and frees `msg` (an nl_event_msg).
void nl_neigh_handle(void *msg) noexcept;

// 1 when `index` is one of the LAN's member interfaces ("network.lan"),
// else 0.
int is_lan_ifindex(int index) noexcept;

// 1 when `mac` sits on the bridge's gateway port, else 0.
int filter_front_client(const uint8_t mac[6]) noexcept;

// Takes the port number of `ifname` as the gateway's port: 0, or -1 with
// nothing changed.
int update_gateway_info(const char *ifname) noexcept;

// The name of port `port_no` of "br-lan", read from the bridge's own port
// files: 0, or -1 when no member has that number.
int lan_port_name(char (&out)[16], unsigned port_no) noexcept;
