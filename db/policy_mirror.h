// Settings of other services shown beside each client: speed limits, the
// black list, QoS priority and schedules, parental-control owners, and the
// clients of the daemon's own package that have settings but aren't in
// the list. The daemon only mirrors them; nothing here writes a package.
#pragma once

#include <cstdint>

#include "db/db_util.h"

struct speed_limit_row {
    uint8_t mac[6];
    uint8_t enable;
    int32_t up_band;
    int32_t down_band;
};

struct black_list_row {
    uint8_t mac[6];
};

struct qos_row {
    uint8_t mac[6];
    uint8_t prio;
    int32_t prio_time;
    int32_t time_period;
    uint8_t schedule_enable;
    int32_t owner_id;
    int32_t time_mode;
    uint8_t slots[4];
    uint8_t qos_status;
    uint8_t repeats;
    uint8_t client_type_changed;
    char type[32]; // a 32-character value has no terminator
};

struct owner_row {
    int32_t owner_id;
    char name[65];
};

struct file_client {
    uint8_t mac[6];
    char name[65];
    char type[32]; // a 32-character value has no terminator
    int32_t owner_id;
    uint8_t prio;
    int32_t prio_time;
    int32_t time_period;
    uint8_t schedule_enable;
    int32_t time_mode;
    uint8_t slots[4]; // first byte 0xff: no slot
    uint8_t qos_status;
    uint8_t repeats;
    int32_t access_time;
};

// Readers: 0 with a fresh array the caller frees (none for a count of 0),
// or -1 with nothing delivered.
int get_client_speed_limit(speed_limit_row **rows, int *count) noexcept;
// Also refreshes access_enable and access_mode_black of system_info; -1
// when access control is off or isn't a black list.
int get_black_list(black_list_row **rows, int *count) noexcept;
int get_qos(qos_row **rows, int *count) noexcept;
int get_parentalctl(owner_row **rows, int *count) noexcept;
int get_lanroster_file_clients(file_client **rows, int *count) noexcept;

// Mirrors into the records. With a null scope: every record, taking
// history_list_lock for writing after the read. With a list: only its
// MACs, and the caller already holds the write lock. 0 or -1 (nothing
// changed); update_parentalctl always 0.
int update_client_speed_limit(const mac_list *scope) noexcept;
int update_black_list(const mac_list *scope) noexcept;
int update_qos(const mac_list *scope) noexcept;
int update_parentalctl(const mac_list *scope) noexcept;

// How many characters of a file client's name and type are kept: a fixed
// limit of that reader, narrower than the fields.
inline constexpr size_t FILE_CLIENT_TEXT_KEEP = 4;
