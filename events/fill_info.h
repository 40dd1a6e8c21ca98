// Completes a record that an event has just put online, from what can be
// had at once: address and name from the DHCP data, interface kind and
// network from the port table. Runs with history_list_lock held for writing.
#pragma once

#include "events/assoc.h"

void fill_info(client_node *node, const assoc_event &event) noexcept;
void fill_dhcp_info(client_node *node, assoc_event event) noexcept;
void fill_ifinfo(client_node *node, assoc_event event) noexcept;
