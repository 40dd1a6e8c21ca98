// Interfaces of the LAN side: the radio interfaces, their stations, the
// class of every bridge port, and the system mode.
#pragma once

#include <array>
#include <vector>

#include <cstddef>
#include <cstdint>
#include <pthread.h>

// The option `mode` of the `sysmode` package; empty when unknown.
extern char sys_mode_text[16];

// One LAN port or radio interface. Rows are only appended, so a reader
// without a lock never sees a torn row; it may see one not yet classified.
inline constexpr int PORT_INFO_ROWS = 64;
struct port_info {
    char ifname[16];
    uint8_t wire_type;
    uint8_t guest;
};
extern struct port_info port_info_table[PORT_INFO_ROWS];
extern uint8_t port_count;

// Radio interfaces from `wireless` and then `weavelink`, read at start-up,
// and the radio members of "br-lan".
inline constexpr int RADIO_LIST_ROWS = 24;
extern char radio_list[RADIO_LIST_ROWS][16];
extern int radio_count;
extern char lan_wlanif[RADIO_LIST_ROWS][16];
extern int lan_wlanif_num;

// Station list, LAN wireless member list and every iwinfo call. Taken
// before uci_lock, never after.
extern pthread_mutex_t wlan_lock;


// Interface kinds of a port (the index of the interface-kind table).
enum : uint8_t {
    WIRE_2G = 1,
    WIRE_5G = 2,
    WIRE_5G_2 = 3,
    WIRE_6G = 4,
    WIRE_MLO = 5,
    WIRE_IOT_2G = 6,
    WIRE_IOT_5G = 7,
    WIRE_IOT_5G_2 = 8,
    WIRE_MESH_CONFIG = 9,
    WIRE_WIRED = 10,
    WIRE_OTHER = 11,
};
inline constexpr uint8_t GUEST_YES = 1;
inline constexpr uint8_t GUEST_NO = 2;

void read_sysmode() noexcept;
void read_radio_list() noexcept;
void get_lan_wlanif() noexcept;

// A factory key of the profile ("profile.@<section_type>[0].<key>"), copied
// into `out` and terminated. Returns its length, 0 when absent. The caller
// holds uci_lock.
inline constexpr size_t PROFILE_VALUE_SIZE = 33;
int read_profile(const char *section_type, const char *key, char *out, size_t out_size) noexcept;

// Fills `wire_type` and `guest` of row `index` of port_info_table.
void classify_port(int index) noexcept;

// The row of `name`, or -1.
int find_port_row(const char *name) noexcept;
// Appends a row for `name` (15 characters kept) and classifies it. Returns
// its index, or -1 when the table is full.
int add_port_row(const char *name) noexcept;

void refresh_stations() noexcept;
// 1 when the station was active within 60000 ms, 0 when not, -1 when the MAC
// is no station.
int station_is_active(const uint8_t mac[6]) noexcept;
int station_radio(const uint8_t mac[6]) noexcept;
// The MACs of the station list as last refreshed.
std::vector<std::array<uint8_t, 6>> station_macs() noexcept;

// Whether the system mode is set and is neither "router" nor "hotspot".
bool sys_mode_is_node() noexcept;
