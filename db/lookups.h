// Small lookups that serve the bus replies: the vendor of a MAC from the
// OUI dictionary, the kernel's device class of each client, and the brand
// and system version kept in the history store.
#pragma once

#include <cstddef>
#include <cstdint>

struct uloop_timeout;

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
