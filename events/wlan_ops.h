// Radio drivers tell associations in their own ways; this table of
// operations hides that from the intake and the event handler. One table is
// compiled in and chosen by the global pointer; a null pointer (or a null
// operation) means a build without driver events, which still starts.
#pragma once

#include "core/openwrt.h"
#include "events/nl_intake.h"

struct wlan_ops {
    // Opens the driver's event socket into `rec` and registers `cb`: 0 or -1.
    int (*wlan_aware_init)(nl_event_socket *rec, uloop_fd_handler cb);
    // Asks the driver for the association events of one radio: 0 or other.
    int (*enable_assoc_event)(const char ifname[16]);
    // One datagram copy of the intake, owned by the callee, which frees it.
    int (*wlan_event_handle)(nl_event_msg *msg);
};

// The table in use, set statically to the adapter of the build.
extern const wlan_ops *wlan_adapter;

// Dispatchers through `wlan_adapter`: 0 when there is no table or no such
// operation, else the operation's result.
int wlan_aware_init(nl_event_socket *rec, uloop_fd_handler cb) noexcept;
int enable_assoc_event(const char ifname[16]) noexcept;
// Frees `msg` itself when no operation takes it, so no copy is lost.
int wlan_event_handle(nl_event_msg *msg) noexcept;

// The pool task of the driver intake: wlan_event_handle on its nl_event_msg.
void wlan_event_task(void *msg) noexcept;
