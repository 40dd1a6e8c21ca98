// The single decision point of the real-time events: an association or a
// leave, told by the kernel's neighbour and bridge events or by a radio
// driver, moves the client in the live list at once instead of waiting for
// the next scan pass. The records so moved carry the statuses 6 (online by
// event) and 8 (offline by event) until the next compare pass settles them.
#pragma once

#include <cstdint>

#include "registry/client_node.h"

// One event, handed by value. It is cleared before use, so a field nobody
// told is 0 or empty.
struct assoc_event {
    uint8_t remove; // 0 the client is there, 1 it left; other values do nothing
    uint8_t mac[6];
    uint8_t active_port; // 1: look `ifname` up in the port table; 0: wired defaults
    uint32_t ip;         // network order, 0 when not known
    char ifname[16];     // LAN port or radio, empty when not known
};

// Decides and applies one event under history_list_lock (write), the
// callbacks of the status included. Always 0.
int assco_event_handler(assoc_event event) noexcept;

// The move itself, with the lock held: the changed record, or NULL. `node`
// and `prev` are the match of the walk and its predecessor (NULL at the
// head); `status` is 1 (new), 3 (back) or 4 (gone).
client_node *update_client_by_event(const assoc_event &event, int status, client_node *node,
                                    client_node *prev) noexcept;

// Shared by the association and mesh handlers, with the lock held:
// the uptime of a connection and whether the clock could be trusted then.
void stamp_connection(client_node *node) noexcept;
// A record taken offline by an event: status 8, its addresses, port and
// peer go, and the leave time is now.
void dump_client_info(client_node *node) noexcept;
