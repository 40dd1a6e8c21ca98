// What this device can do and how it is set up: the capability record and
// the identity texts beside it. Read everywhere without a lock: each field
// is a single value written by one side.
//
// The readers that fill the record come with the capability snapshot; until
// then every field keeps its initial value (a router with no optional
// feature, an unknown identity).
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
