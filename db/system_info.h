// What this device can do and how it is set up: the capability record and
// the identity texts beside it. Read everywhere without a lock: each field
// is a single value written by one side.
//
// The snapshot is taken once at start; the facts that can change at run
// time are refreshed by the update_* tasks when their package changes. The
// factory profile and the identity texts are read only once.
#pragma once

#include <cstdint>

struct system_info {
    uint8_t sys_mode; // 0 router, 1 ap, 2 repeater, 3 client
    uint8_t wan_type; // 0 other, 1 "v6plus", 2 "dslite"
    uint8_t qos_enable;
    uint8_t support_tfstats;
    uint8_t support_tfstats_workaround;
    uint8_t access_enable;
    uint8_t access_mode_black;
    uint8_t support_high_bandwidth_occupancy;
    uint8_t support_client_speed_limit;
    uint8_t support_qos_schedule;
    uint8_t support_easymesh;
    uint8_t support_weavelink;
    uint8_t support_mlo;
    uint8_t support_gaming_lan;
};

inline constexpr uint8_t SYS_MODE_ROUTER = 0;
inline constexpr uint8_t SYS_MODE_AP = 1;
inline constexpr uint8_t SYS_MODE_REPEATER = 2;
inline constexpr uint8_t SYS_MODE_CLIENT = 3;

extern struct system_info system_info;

// False only when meshd says this node is the controller.
extern bool is_mesh_agent;
// As "boardprobe MAC" printed it, in the form AA-BB-CC-DD-EE-FF.
extern char main_device_mac[18];
extern char main_device_id[64];
// Twelve upper-case hex digits of the MAC of "br-lan".
extern char self_mac[13];

// The whole snapshot, at start on the main thread: 0, or -1 when the
// device can't be read (access_control, profile), and the daemon ends.
int get_system_info() noexcept;

// Refresh tasks (and steps of get_system_info). The argument is ignored.
// Each holds uci_lock for its whole run; 0, or -1 with the field as it was.
int update_sysmode(void *arg) noexcept;
int update_mesh_role(void *arg) noexcept;
int update_wan_type(void *arg) noexcept;
int update_qos_switch(void *arg) noexcept;
int update_tfstats_switch(void *arg) noexcept;

// The one-shot steps.
int get_access_control() noexcept;
int get_profile_support() noexcept;
int get_device_identity() noexcept;
void print_system_info() noexcept;

// Twelve upper-case hex digits of the MAC of `ifname` into `out` (13
// bytes); 0, or -1 with `out` untouched.
int get_if_mac_text(const char *ifname, char *out) noexcept;

// How long "boardprobe" may take to answer before start-up goes on
// without the identity it would have printed.
inline constexpr int BOARDPROBE_TIMEOUT_MS = 3000;
