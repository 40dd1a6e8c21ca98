// The intake of the kernel's neighbour events: an rtnetlink socket with a
// classic BPF filter that keeps everything but IPv4 neighbour and bridge
// forwarding events in the kernel, drained on the uloop thread into heap
// copies that are posted to the pool. Nothing here parses an event, and
// nothing here takes a client lock, so a storm can never stall the loop:
// when memory runs out the handler stops copying and only drains, until
// the socket is empty.
#pragma once

#include <cstdint>

#include "core/openwrt.h"

struct nl_event_socket {
    int sock;
    uloop_fd ufd;
};

// One datagram for the worker; it may hold several netlink messages. A
// driver datagram travels in the same record, so its parser knows where
// the copy ends.
struct nl_event_msg {
    uint8_t *buf;
    int32_t len;
};

// The receive buffer shared by the handlers; a longer datagram is cut.
inline constexpr int NL_RECV_BUF_SIZE = 16384;
// The neighbour group of NETLINK_ROUTE.
inline constexpr uint32_t NL_GROUP_NEIGH = 4;

extern nl_event_socket rtnl_event_socket;
// The radio driver's association events (see wlan_ops.h); -1 when the
// build has no driver table.
extern nl_event_socket wlan_event_socket;

// Sets up the event sockets: 0, or -1 (then nothing is left open).
int new_client_asscess_init() noexcept;
// Closes the event sockets (shutdown).
void close_event_sockets() noexcept;

// A non-blocking netlink socket of `protocol` bound to `groups` into `rec`,
// with `cb` registered on the loop: 0, or -1.
int create_nl_event(int protocol, uint32_t groups, uloop_fd_handler cb, nl_event_socket *rec) noexcept;
// Attaches the neighbour filter when `groups` is the neighbour group: 0
// when attached or not applicable, -1 on failure.
int set_nl_filter(int sock, uint32_t groups) noexcept;

void rtnl_event_handler(uloop_fd *ufd, unsigned int events) noexcept;
// The same drain on the driver socket; its tasks go through the driver
// table's event operation.
void wlan_nl_event_handler(uloop_fd *ufd, unsigned int events) noexcept;

void nl_event_msg_free(nl_event_msg *msg) noexcept;
