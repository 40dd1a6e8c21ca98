// The older read methods of `lanroster`: the kernel's neighbour table as it
// stands (get_ARP), the scan list and a guest test (get), the live list and
// its counts (get_hist_list, get_hist_list_num), and one client's identity
// for a mesh peer, told through a file (get_dev_info).
//
// Their replies differ from get_hist_list_new in small ways that callers
// rely on: "UNKNOW" for an unknown guest, "unknown" for an unknown type, the
// interface kind of an offline client kept, global_ip_num before the pairs.
#pragma once

#include <cstdint>

#include "core/openwrt.h"

struct client_node;
struct client_table_entry;
struct ip6_info;

// The text form of a client. Cleared by the caller before each use.
struct client_entry_text {
    char hostname[65]; // the first 64 bytes of the record's name
    char ip[40];
    // IPv6 family only. The pairs of global addresses are read from the
    // entry's ip6 list as they are sent, so no copy of them is made.
    const char *global_state;
    int32_t global_ip_num;
    char ip6_local[40];
    char mac[18];
    char wire_type[32];
    char guest[10];
};

// The family arguments.
inline constexpr char FAMILY_V4[] = "v4";
inline constexpr char FAMILY_V6[] = "v6";

// Where get_dev_info leaves its answer; "%s" is the peer's MAC text as it came.
inline constexpr char MESH_DEV_FILE_FORMAT[] = "/tmp/mesh_dev_%s";
// At most this many interface MACs of a get_dev_info request are looked at.
inline constexpr int DEV_INFO_INTERFACES_MAX = 20;
// The buffer get_ARP hands the neighbour dump to start with.
inline constexpr int ARP_DUMP_BUF = 16384;

// Texts of an entry for `family` ("v4" or "v6"). A scan entry without IPv6
// (a null ip6) has an empty IPv6 side.
void format_client_entry(const client_table_entry *entry, client_entry_text *text,
                         const char *family) noexcept;
// Copies what the text form needs from a record into a cleared entry; with
// "v6" and `ip6` given also the link-local address, and `ip6` is filled with
// the record's summary and its own address list (borrowed under the
// caller's read hold) and hung on the entry. -1 when an argument is null.
int node_to_entry(client_table_entry *entry, const client_node *node, const char *family,
                  ip6_info *ip6) noexcept;
// The first record in status 5 with this MAC; the caller holds
// history_list_lock.
client_node *find_online_node(const uint8_t mac[6]) noexcept;

// The replies, composed in reply_buf; false when the request gets none.
bool compose_get(blob_attr *msg) noexcept;
bool compose_history_list_get(blob_attr *msg) noexcept;
bool compose_history_list_num_get(blob_attr *msg) noexcept;
// Never a reply: the answer is the file.
void compose_history_dev_info_list_get(blob_attr *msg) noexcept;
// The neighbour table's IPv4 rows; -1 when the dump could not be taken.
int compose_get_arp() noexcept;
