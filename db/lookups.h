// Small lookups that serve the bus replies: the vendor of a MAC from the
// OUI dictionary, the kernel's device class of each client, and the brand
// and system version kept in the history store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

struct uloop_timeout;
struct client_node;

struct device_type_info {
    uint8_t mac[6];
    int32_t type; // row of the client category table
};

struct fing_info {
    uint8_t mac[6];
    char brand[64];
    char system_version[64];
};

// The dictionary is held only while it is in use: released this long after
// the last query.
inline constexpr int MAC_OUI_DICT_HOLD_MS = 10000;
// Vendor texts handed out by the dictionary, terminator included.
inline constexpr size_t VENDOR_TEXT_SIZE = 128;

extern uloop_timeout mac_oui_dict_clean_timeout;

// Loads the dictionary and arms its release: 0, or -1.
int init_mac_oui_dict() noexcept;
// 0 and the vendor in `out` (VENDOR_TEXT_SIZE bytes), or -1. Holds uci_lock
// for the whole call; loop thread only, like the release.
int query_name_by_mac_oui_v2(const uint8_t mac[6], char *out) noexcept;
// The release, on the main loop.
void mac_oui_dict_clean_cb(uloop_timeout *timeout) noexcept;

// Readers of the client list: 0 with a fresh array the caller frees, or -1.
int get_pctl_device_type_info(device_type_info **rows, int *count) noexcept;
int get_fing_info(fing_info **rows, int *count) noexcept;

// The pctl reader on any stream, at most `max` rows (the second pass of
// get_pctl_device_type_info); the rows filled. With `rows` null it counts
// the lines that have both fields.
int pctl_device_lines(FILE *file, device_type_info *rows, int max) noexcept;

// The new clients of this pass, from the file of the new-client notifier:
// at most NEW_CLIENT_MAX MACs travel at once.
inline constexpr int NEW_CLIENT_MAX = 388;
inline constexpr char NEW_CLIENTS_FILE[] = "/tmp/new_access_clients";
// 0 with the MACs in `macs` (room for NEW_CLIENT_MAX) and their count, or -1
// when the file does not open.
int get_new_client(uint8_t (*macs)[6], int *count) noexcept;
// Row of the end-of-pass table: brings the policy mirrors of the new clients
// up to date. 0, or -1 when the file could not be read.
int new_client_database_update(client_node *unused) noexcept;
