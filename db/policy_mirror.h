// Settings of other services shown beside each client. Here: the clients
// of the daemon's own package that have settings but aren't in the list.
#pragma once

#include <cstdint>

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

// 0 with a fresh array the caller frees, or -1 with nothing delivered.
int get_lanroster_file_clients(file_client **rows, int *count) noexcept;
