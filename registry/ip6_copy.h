// The IPv6 side of a record, taken over from one pass's ip6_info.
#pragma once

struct client_node;
struct ip6_info;

// Replaces the record's global addresses by copies of those of `info`, in
// order, and its summary by the pass's; with no info the list is emptied
// and the summary is 0. An address that can't be allocated is left out.
void copy_ip6_globals(client_node *node, const ip6_info *info) noexcept;
