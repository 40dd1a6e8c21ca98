// The client list query: the live list merged with the data sources into
// one reply, filtered and shaped by the ten keys of the request.
#pragma once

#include <cstdint>
#include <ctime>

#include "db/lookups.h"
#include "db/policy_mirror.h"
#include "db/stations.h"
#include "db/traffic.h"

// The request; a value counts as true when it isn't 0.
struct hist_list_request {
    int32_t online_type; // 0 offline, 1 online, anything else all clients
    int32_t v6;
    int32_t access_limit;
    int32_t speed_limit;
    int32_t qos;
    int32_t tfstats;
    int32_t wireless;
    int32_t qos_schedule;
    int32_t high_bandwidth_occupancy;
    int32_t lanroster_file;
};

// Where the query gathers its sources; the db readers in the daemon, tests
// swap in their own.
struct hist_source_ops {
    int (*tfstats)(tfstats_entry **entries, int *count) noexcept;
    int (*workaround_tfstats)(tfstats_entry **wlan, tfstats_entry **lan, int *wlan_count,
                              int *lan_count) noexcept;
    int (*hi_bw_occ_macs)(uint8_t **macs, int *count) noexcept;
    int (*wireless_info)(wireless_station **rows, int *count) noexcept;
    int (*fing_info)(fing_info **rows, int *count) noexcept;
    int (*device_type_info)(device_type_info **rows, int *count) noexcept;
    int (*mesh_agent)(uint8_t **macs, int *count) noexcept;
    int (*gaming_lan_macs)(uint8_t **macs, int *count) noexcept;
    int (*file_clients)(file_client **rows, int *count) noexcept;
    int (*vendor)(const uint8_t mac[6], char *out) noexcept;
    time_t (*now)() noexcept;
};
extern hist_source_ops hist_sources;
extern const hist_source_ops hist_sources_default;

// Text of an IPv6 address, "::" when its first 4 bytes are zero.
void ip6_text(const uint8_t addr[16], char (&out)[46]) noexcept;
// Text of a client's IPv6 summary state.
const char *ip6_state_text(int32_t state) noexcept;

// Gathers the sources with no lock held, walks the live list under the read
// side of history_list_lock and composes the whole reply in reply_buf.
void compose_hist_list_new(const hist_list_request &request) noexcept;
