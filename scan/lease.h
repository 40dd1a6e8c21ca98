// Lease and hook files: the DHCP lease file of the router's own server, the
// DHCPv6 lease file and the JSON hook file of non-router nodes. Other
// programs write all three; the daemon only reads them.
#pragma once

#include <cstdint>
#include <string_view>

struct json_object;

inline constexpr int LEASE_ROWS_START = 64;
inline constexpr int LEASE_ROWS_STEP = 64;
inline constexpr const char *DHCPV6_LEASE_FILE = "/tmp/dhcpv6.leases";
inline constexpr const char *DHCPV6_LOCK_FILE = "/var/run/dhcp6s_leases.lck";
inline constexpr const char *HOOK_FILE = "/tmp/dhcp_hook.file";

// Path of the DHCP lease file, from the `dhcp` package at start-up; empty
// when no section names one.
extern char lease_file_name[100];

struct lease_row {
    uint8_t mac[6];
    char hostname[64];
    char ip[20];
    int32_t type;
};

struct ip6_lease_row {
    char ip6[46];
    char hostname[64];
    ip6_lease_row *next;
};

struct hook_client {
    char name[65];
    char ipaddr[16];
    int32_t type;
    int32_t obt_name_ok;
};

// Fills *rows (a malloc'd array of *capacity rows, grown by 64 rows as
// needed) from the DHCP lease file. Returns the row count (0 when the file
// is missing), -2 if growing failed; *rows stays the caller's to free.
int read_dhcp_leases(lease_row **rows, int *capacity) noexcept;
// Reads the lease file afresh: 1 and a copy of the first row with `mac`,
// else 0. Holds no state, so any thread may call it.
int find_lease_by_mac(lease_row *out, const uint8_t mac[6]) noexcept;
// Rebuilds the DHCPv6 lease list under the lock its writer takes.
void read_dhcpv6_leases() noexcept;
// Host name of a DHCPv6 lease for a 16-byte address: a new 64-byte string
// for the caller to free, or nullptr.
char *dhcpv6_hostname(const uint8_t address[16]) noexcept;
// The hook file's record for `mac`: 1 on a hit, else 0.
int hook_lookup(hook_client *out, const uint8_t mac[6]) noexcept;

// The parsers behind the readers, for the tests and fuzzers.

// Columns of the lease line scan. They are set once per file and only
// overwritten by the columns a line has: a short line keeps the rest from
// the line before, which is how the lease file has always been read.
struct lease_scan {
    int expiry = -1;
    char mac[18] = {};
    char ip[40] = {};
    char hostname[64] = {};
    char client_id[128] = {};
    int type = -1;
};
// Scans one line into `scan` and, when the columns now make a lease,
// fills `row` and returns true.
bool parse_lease_line(std::string_view line, lease_scan &scan, lease_row &row) noexcept;
// Hex digits accumulate, any other character ends a byte; at most 6 bytes.
void decode_lease_mac(std::string_view text, uint8_t mac[6]) noexcept;
// One "name address" line of the DHCPv6 file; false when it has no address.
bool parse_dhcpv6_line(std::string_view line, ip6_lease_row &row) noexcept;
// A 17-character "xx:xx:xx:xx:xx:xx" or "xx-xx-xx-xx-xx-xx" MAC.
bool decode_hook_mac(std::string_view text, uint8_t mac[6]) noexcept;
// hook_lookup over a parsed file; `root` stays the caller's.
int hook_lookup_in(json_object *root, hook_client *out, const uint8_t mac[6]) noexcept;
// The DHCPv6 list as last read (owned by the lease reader).
const ip6_lease_row *dhcpv6_lease_list() noexcept;
