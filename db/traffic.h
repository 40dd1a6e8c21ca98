// Traffic figures and MAC lists that other services of the router know:
// byte counts per client, heavy users, mesh agents, gaming-port clients.
// The services are asked through the `ubus` command line and answer JSON.
// Each reader returns 0 with a fresh array the caller frees, or -1 with
// nothing delivered.
#pragma once

#include <cstddef>
#include <cstdint>

struct tfstats_entry {
    uint8_t mac[6];
    int32_t total_byte;
    int32_t retx_byte;
    int32_t rerx_byte;
};

// Bus output is read into a buffer of this size; a longer answer is cut and
// then fails in the parser.
inline constexpr size_t UBUS_REPLY_BUF = 93248;
// A service that has not answered within this time is killed.
inline constexpr int UBUS_CALL_TIMEOUT_MS = 5000;
// More rows than any LAN has: a `total` beyond it is not believed.
inline constexpr int TFSTATS_ROWS_MAX = 4096;
// The forwarding records looked at, and the bridge file that holds them.
inline constexpr int BR_FDB_RECORDS = 256;
inline constexpr char BR_FORWARD_FILE[] = "/sys/class/net/br-lan/brforward";
// A segment's traffic above this many bytes is over the limit.
inline constexpr long long TFSTATS_SEG_LIMIT = 52428800;

// Plain MAC arrays are packed runs of 6 bytes.
int ubus_get_tfstats(tfstats_entry **entries, int *count) noexcept;
// The wired array exists (non-null) even when it has no row: a wired client
// then shows zeros rather than a figure of the wireless array.
int ubus_get_workaround_tfstats(tfstats_entry **wlan_entries, tfstats_entry **lan_entries, int *wlan_count,
                                int *lan_count) noexcept;
int ubus_get_hi_bw_occ_macs(uint8_t **macs, int *count) noexcept;
int ubus_get_mesh_agent(uint8_t **macs, int *count) noexcept;
int get_gaming_lan_macs(uint8_t **macs, int *count) noexcept;
// 1 when the client's traffic in the segment passes TFSTATS_SEG_LIMIT.
int tfstats_seg_over_limit(const char *ip, const char *type) noexcept;

// The interface behind the gaming port, from package "switch": 0, or -1.
int get_gaming_port_name(char *name_out, size_t size) noexcept;
int get_port_no_by_name(const char *ifname, int *port_no) noexcept;
struct br_fdb_record {
    uint8_t mac[6];
    uint8_t port_no;
    uint8_t rest[9];
};
static_assert(sizeof(br_fdb_record) == 16);
// At most BR_FDB_RECORDS records; 0 records is a failure.
int get_br_fdb(br_fdb_record **records, int *count) noexcept;

struct mesh_access_entry {
    uint8_t mac[6];
    int32_t access_time;
    int32_t access_uptime;
};
// The mesh service's file of client access times, read whole up to
// MESH_ACCESS_FILE_MAX bytes.
inline constexpr char MESH_ACCESS_FILE[] = "/tmp/client_list.json";
inline constexpr size_t MESH_ACCESS_FILE_MAX = 1 << 20;
// An empty array is success with no rows and a count of 0.
int get_mesh_access(mesh_access_entry **entries, int *count) noexcept;

// The parsers of the services' answers, on text already read (`len` bytes,
// not necessarily terminated).
int parse_tfstats(const char *text, size_t len, tfstats_entry **entries, int *count,
                  bool workaround) noexcept;
int parse_hi_bw_occ(const char *text, size_t len, uint8_t **macs, int *count) noexcept;
int parse_mesh_agent(const char *text, size_t len, uint8_t **macs, int *count) noexcept;
int parse_seg_over_limit(const char *text, size_t len) noexcept;
int parse_mesh_access(const char *text, size_t len, mesh_access_entry **entries, int *count) noexcept;
