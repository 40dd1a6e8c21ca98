// Name queries and the parsing of their replies: NetBIOS node status and
// reverse mDNS PTR over IPv4 and IPv6. Replies come from any device on the
// LAN, so every read here is bounds-checked against the bytes received.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// One receive: replies are read as they lie in a buffer of this size.
inline constexpr size_t NAME_REPLY_MAX = 1024;
inline constexpr size_t NETBIOS_QUERY_LEN = 50;
inline constexpr size_t MDNS_IP6_QUERY_LEN = 90;
// The longest IPv4 reverse query: four labels of three digits.
inline constexpr size_t MDNS_IP4_QUERY_MAX = 16 + 30;
// Room for the longest name any reply can carry (one label) and its end.
inline constexpr size_t NAME_TEXT_MAX = 256;
// A name kept in the cache is cut to this many characters.
inline constexpr size_t NAME_KEEP = 64;

// Identifiers on the wire: the sequence plus 0x1000; the sequence then
// moves on modulo 0x6000.
uint16_t next_query_id(uint16_t &sequence) noexcept;

// The node status query for the wildcard name. Returns its length (50).
size_t netbios_build_query(std::span<uint8_t, NETBIOS_QUERY_LEN> packet, uint16_t id) noexcept;

// Group entries looked at in a node status reply, and the characters the
// workgroup text can then reach.
inline constexpr size_t NETBIOS_GROUP_CANDIDATES = 53;
inline constexpr size_t NETBIOS_DOMAIN_MAX = NETBIOS_GROUP_CANDIDATES * 16;

struct netbios_result {
    char name[17];   // the first name of the table, trailing blanks cut
    size_t name_len; // its length
    bool has_domain; // a group name was found and every one is printable
    // The workgroup: the texts of all group entries one after the other
    // (16 characters at most each, of at most 53 entries), trailing blanks
    // cut.
    char domain[NETBIOS_DOMAIN_MAX + 1];
};
// Whether `reply` answers the query `id`; fills `out` when it does.
bool netbios_parse_reply(std::span<const uint8_t> reply, uint16_t id, netbios_result &out) noexcept;

// The reverse query of an IPv4 address (network order). Returns the
// length, L + 30, where L is the length of the address labels.
size_t mdns_build_ip4_query(std::span<uint8_t, MDNS_IP4_QUERY_MAX> packet, uint16_t id, uint32_t ip) noexcept;
// The reverse query of an IPv6 address given as 32 upper-case hex digits.
// Returns 90, or 0 when the text is not 32 hex digits.
int mdns_build_ip6_query(std::span<uint8_t, MDNS_IP6_QUERY_LEN> packet, uint16_t id,
                         const char *hex_text) noexcept;

// The name of a reply to an IPv4 query of `query_len` bytes: the first label
// of the answer's data, which follows the echoed question and a compressed
// answer name. Its length (up to 255), or -1 when the reply is refused.
int mdns_parse_ip4_reply(std::span<const uint8_t> reply, uint16_t id, size_t query_len,
                         std::span<char, NAME_TEXT_MAX> name) noexcept;
// The same for the IPv6 query, whose identifier is not compared. The label
// is cut to 64 characters. Its length (0 for none), or -1 when refused.
int mdns_parse_ip6_reply(std::span<const uint8_t> reply, std::span<char, NAME_TEXT_MAX> name) noexcept;
