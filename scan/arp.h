// ARP requests that verify IPv4 neighbours, and the replies to them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr size_t ARP_FRAME_LEN = 42;
// A receive reads at most one Ethernet frame.
inline constexpr size_t ARP_RECV_MAX = 1514;

// What the LAN bridge looks like to the ARP sender: refreshed before every
// send; a failed read keeps the former values.
struct arp_lan_if {
    uint8_t mac[6];
    uint32_t ip; // network order
    int ifindex;
};

// One unicast ARP request from the LAN to a client, laid out byte for byte.
void build_arp_request(uint8_t (&frame)[ARP_FRAME_LEN], const uint8_t dst_mac[6], const uint8_t lan_mac[6],
                       uint32_t lan_ip, uint32_t target_ip) noexcept;

// The fields of a received ARP frame (Ethernet header included) that the
// scan looks at. False when the frame is too short to hold them.
struct arp_frame_info {
    uint16_t op;
    uint8_t sender_mac[6];
    uint32_t sender_ip; // network order
    char sender_ip_text[16];
};
bool parse_arp_frame(std::span<const uint8_t> frame, arp_frame_info &out) noexcept;

// Reads the LAN bridge's index, MAC and IPv4 address into `lan`. Returns 0,
// or -1 with `lan` untouched.
int read_lan_if(arp_lan_if &lan) noexcept;

// The sender's view of the bridge, refreshed on every send.
arp_lan_if lan_if_snapshot() noexcept;

// A send-only raw packet socket for the sender's requests, or -1. One socket
// serves the sender for a whole pass: closing a packet socket waits for the
// kernel to retire it (milliseconds), which per frame made a pass over 250
// clients take seconds.
int open_arp_send_socket() noexcept;

// Sends one request for (ip, mac) on fd after refreshing the bridge's
// values. Returns 0 or -1.
int send_arp_request(int fd, uint32_t ip, const uint8_t mac[6]) noexcept;

// Opens the raw socket that receives ARP frames, or -1.
int open_arp_socket() noexcept;

// One request on the shared socket `fd` and a wait of up to `wait_ms` for a
// reply from `ip`: 1 if one came, else 0.
int arp_check(int fd, uint32_t ip, const uint8_t mac[6], int wait_ms) noexcept;
