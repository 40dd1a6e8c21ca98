// Lease and hook files: the DHCP lease file, the DHCPv6 lease file and the
// hook file of non-router nodes. The readers are not in yet: each call below
// reports no data, so the scan pass runs as on a LAN without leases.
#pragma once

#include <cstdint>

inline constexpr int LEASE_ROWS_START = 64;

// Path of the DHCP lease file, from the `dhcp` package at start-up; empty
// when no section names one.
extern char lease_file_name[100];

struct lease_row {
    uint8_t mac[6];
    char hostname[64];
    char ip[20];
    int32_t type;
};

struct hook_client {
    char name[65];
    char ipaddr[16];
    int32_t type;
    int32_t obt_name_ok;
};

// Fills *rows (a malloc'd array of *capacity rows, grown as needed) from the
// DHCP lease file. Returns the row count, -2 if growing failed.
int read_dhcp_leases(lease_row **rows, int *capacity) noexcept;
// Rebuilds the DHCPv6 lease list.
void read_dhcpv6_leases() noexcept;
// Host name of a DHCPv6 lease for a 16-byte address: a new 64-byte string
// for the caller to free, or nullptr.
char *dhcpv6_hostname(const uint8_t address[16]) noexcept;
// The hook file's record for `mac`: 1 on a hit, else 0.
int hook_lookup(hook_client *out, const uint8_t mac[6]) noexcept;
