// Traffic figures and MAC lists that other services of the router know:
// byte counts per client, heavy users, mesh agents, gaming-port clients.
// Each reader returns 0 with a fresh array the caller frees, or -1 with
// nothing delivered.
#pragma once

#include <cstdint>

struct tfstats_entry {
    uint8_t mac[6];
    int32_t total_byte;
    int32_t retx_byte;
    int32_t rerx_byte;
};

// Plain MAC arrays are packed runs of 6 bytes.
int ubus_get_tfstats(tfstats_entry **entries, int *count) noexcept;
int ubus_get_workaround_tfstats(tfstats_entry **wlan_entries, tfstats_entry **lan_entries, int *wlan_count,
                                int *lan_count) noexcept;
int ubus_get_hi_bw_occ_macs(uint8_t **macs, int *count) noexcept;
int ubus_get_mesh_agent(uint8_t **macs, int *count) noexcept;
int get_gaming_lan_macs(uint8_t **macs, int *count) noexcept;
