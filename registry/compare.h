// The compare pass: lays one scan's client_table over the live list and
// turns every difference into a status of a client_node and a row of the
// status callback table; then the end-of-pass table runs.
#pragma once

#include <cstdint>
#include <sys/sysinfo.h>
#include <type_traits>

#include "registry/client_node.h"

struct client_table_entry;

// One status change in hand; node is NULL for a new client. The status may
// be changed while the event is handled.
struct status_event {
    int32_t status;
    client_node *node;
};
static_assert(std::is_standard_layout_v<status_event>);

// A callback of the tables. Status rows get an event snapshot, which they
// must not keep; the end-of-pass rows get NULL.
using registry_callback = int (*)(client_node *arg) noexcept;

// One pair of a row list: run inline on the calling thread, or on a
// thread of its own when in_thread is set. A list ends at a NULL function.
struct callback_pair {
    uint8_t in_thread;
    registry_callback function;
};
static_assert(std::is_standard_layout_v<callback_pair>);

// One row of the status callback table; the table ends at a row with no list.
struct status_callback_row {
    int32_t status;
    const callback_pair *rows;
};

extern const status_callback_row status_callback_table[];
extern const callback_pair end_of_pass_table[];

// The file whose existence says that the system clock has been set.
inline constexpr char NTP_SERVER_FILE[] = "/tmp/NTPServer";

// 0, or -2 when the table lock is busy. The caller vouches that `head`
// outlives the call; for the live scan list use compare_scan_list.
int compare_client_table(client_table_entry *head) noexcept;
// The compare pass over the last scan's list, which it reads only once it
// holds the table's read lock: read before, a whole pass of the other worker
// could free it in between. Skipped (0) when the list is empty.
int compare_scan_list() noexcept;

int find_client_for_compare(const client_table_entry *entry, status_event *event) noexcept;
void default_opt_before_event_callback(status_event *event, const client_table_entry *entry) noexcept;
void fill_node_from_entry(client_node *node, const client_table_entry *entry, status_event *event) noexcept;
// The value handed to the callbacks: the record's identity, addresses,
// type, times and names, everything else zero.
client_node make_event_snapshot(const client_node *node) noexcept;

// Runs a row list with `arg`. After each inline pair, `after_inline` (if
// given) is called with `record`.
void run_callback_pairs(const callback_pair *pairs, client_node *arg,
                        void (*after_inline)(client_node *record) noexcept, client_node *record) noexcept;
// Runs the row list of `status` from `table`, if it has one.
void run_status_callbacks(const status_callback_row *table, int32_t status, client_node *snapshot,
                          client_node *record) noexcept;

// The last steps of a pass, with history_list_lock held for writing: lost
// clients go offline, statuses settle, the end-of-pass table runs.
void settle_history_list_locked() noexcept;
