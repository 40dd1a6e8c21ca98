// The daemon's face on the bus: the connection, the objects `lanroster` and
// `mac_oui`, the listener of the events "lanroster.*", and what every bus
// handler shares: the reply buffer and the typed reply helpers.
//
// Every method runs on the uloop thread from start to end, so reply_buf,
// ubus_ctx and update_timer need no lock and no worker may touch them.
#pragma once

#include <cstdint>

#include "core/openwrt.h"

// The server connection; null before lanroster_ubus_init and after
// lanroster_ubus_deinit.
extern ubus_context *ubus_ctx;

// The socket lanroster_ubus_init connects to. A build for a newer firmware
// sets LANROSTER_UBUS_SOCKET (CMake option of the same name) to
// "/var/run/ubus/ubus.sock".
#ifndef LANROSTER_UBUS_SOCKET
#define LANROSTER_UBUS_SOCKET "/var/run/ubus.sock"
#endif
inline constexpr char UBUS_SOCKET_PATH[] = LANROSTER_UBUS_SOCKET;

// Connects, publishes both objects, registers the event listener and adds
// the connection to the loop: 0, or -1 when the bus can't be used. Call
// after uloop_init. There is no reconnection.
int lanroster_ubus_init() noexcept;
// Removes `lanroster`, then `mac_oui`, frees the connection and clears
// ubus_ctx. The event listener goes with the connection.
void lanroster_ubus_deinit() noexcept;

// The one buffer every handler composes its reply in. Its allocation is
// reused from one reply to the next up to REPLY_BUF_KEEP bytes; a larger one
// (a client list of a full pool is some 400 KB) is given back once the reply
// is sent, so the daemon's steady state stays small on the router.
extern blob_buf reply_buf;
inline constexpr int REPLY_BUF_KEEP = 64 * 1024;

// Sends reply_buf as the data of request `req`, then shrinks it.
int send_reply_buf(ubus_context *ctx, ubus_request_data *req) noexcept;
// Frees an allocation of reply_buf larger than REPLY_BUF_KEEP and starts it
// afresh, empty; a smaller one is kept as it is.
void shrink_reply_buf() noexcept;

// A table with an empty name, at the root of a reply or inside an array;
// the cookie goes to blob_nest_end.
void *reply_open_table() noexcept;
// A blobmsg INT32 field; a negative value goes out as its 32-bit pattern.
void reply_add_u32(const char *key, int64_t value) noexcept;
// A blobmsg STRING field, terminator included.
void reply_add_string(const char *key, const char *text) noexcept;

// The objects and their method tables, in their order.
extern ubus_object lanroster_object;
extern ubus_object mac_oui_object;
extern ubus_object_type lanroster_type;
extern ubus_object_type mac_oui_type;
extern const ubus_method lanroster_methods[];
extern const ubus_method mac_oui_methods[];
inline constexpr int LANROSTER_METHOD_COUNT = 13;

// The listener of "lanroster.*".
extern ubus_event_handler event_listener;
inline constexpr char EVENT_PREFIX[] = "lanroster.";
inline constexpr char EVENT_PATTERN[] = "lanroster.*";

// Event names behind the prefix and the task each one posts; compared in
// table order, the table ends at a row with no name. A row without a task
// is treated as an unknown name.
struct event_task_row {
    const char *name;
    void (*task)(void *message) noexcept;
};
extern const event_task_row event_task_table[];

// Called by the bus library on the loop thread: posts a task that owns a
// copy of the message. An unknown name behind the prefix is dropped.
void event_dispatch(ubus_context *ctx, ubus_event_handler *ev, const char *type, blob_attr *msg) noexcept;

// Event copies made and dropped because no task takes them (unknown names),
// for the diagnostics and the tests.
extern uint32_t event_copies_dropped;
