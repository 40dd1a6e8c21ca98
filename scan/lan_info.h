// The description of the LAN itself: address, mask, member interfaces and
// the gateway, and the helpers that read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr int LAN_IF_ROWS = 8;

struct lan_info {
    char ip[16];
    uint8_t gateway_mac[6];
    int32_t ifindex[LAN_IF_ROWS];
    char ifname[LAN_IF_ROWS][16];
    uint8_t ifnum;
    char gateway[16];
    int32_t prefix_len;
    int32_t gateway_port;
};

// Filled at start-up and by the bus method lan_update, on the uloop thread
// only; read anywhere without a lock.
extern struct lan_info lan_info;

// The fixed name of the LAN bridge.
inline constexpr char lan_bridge_name[] = "br-lan";

// Length of the netmask in dotted text: 32 minus the lowest set bit. An
// empty, unparsable or all-zero mask gives `old`.
int32_t prefix_from_mask(const char *mask, int32_t old) noexcept;

// Dotted text to a host-order word by a plain digit scan: digits accumulate,
// a dot shifts the word by 8; anything else is skipped, nothing is checked.
uint32_t ip_text_to_host(std::string_view text) noexcept;

// Whether `ip_text` is in the LAN of `lan_ip_text` under lan_info's prefix.
bool ip_in_lan(const char *ip_text, const char *lan_ip_text) noexcept;
bool ip_in_lan_prefix(std::string_view ip_text, std::string_view lan_ip_text, int32_t prefix_len) noexcept;

// The port number in the first column of a `brctl showmacs` line: leading
// white space skipped, then a decimal. -1 when there is none.
int32_t parse_port_column(std::string_view line) noexcept;

// Reads the `network` package of "/etc/config" into lan_info (start-up,
// bus method).
void update_lan_info_by_uci() noexcept;
// Looks the gateway up in the neighbour table and the bridge.
void get_gateway_mac(const char *gateway_text) noexcept;
