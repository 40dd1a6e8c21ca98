// Client lists of the other mesh nodes.
//
// This node's scan cannot see the clients of the other nodes, so meshd sends
// each node's complete client list as the bus event "meshd_client_update".
// The handler merges one peer's list into the live list: listed clients are
// added, refreshed or reconnected and held in status 7, which no scan ages;
// that peer's clients missing from its list go offline. The daemon only
// consumes these lists; it publishes none.
#pragma once

#include <cstdint>
#include <string_view>

#include "core/openwrt.h"

struct client_node;

// Keys of the message.
enum {
    MESH_DEVICE_MAC,
    MESH_DEVICE_ID,
    MESH_CLIENT_NUM,
    MESH_CLIENT_LIST,
    MESH_MSG_ATTR_MAX,
};
extern const blobmsg_policy mesh_msg_policy[MESH_MSG_ATTR_MAX];

// Keys of one entry of "mesh_client_list"; an entry counts only with all nine.
enum {
    MESH_CLIENT_MAC,
    MESH_CLIENT_IP,
    MESH_CLIENT_NAME,
    MESH_CLIENT_GUEST,
    MESH_CLIENT_CONNECTION_TYPE,
    MESH_CLIENT_CLIENT_TYPE,
    MESH_CLIENT_SIGNAL,
    MESH_CLIENT_RXRATE,
    MESH_CLIENT_TXRATE,
    MESH_CLIENT_ATTR_MAX,
};
extern const blobmsg_policy mesh_client_policy[MESH_CLIENT_ATTR_MAX];

// "client_type" of a client on the IoT network.
inline constexpr int32_t MESH_CLIENT_TYPE_IOT = 3;
// The record's host name for every client a peer brings in; the peer's own
// name for it is only printed.
inline constexpr char MESH_CLIENT_HOSTNAME[] = "network_device";

// Task of the bus event: merges one peer's list and frees `blob` (the byte
// copy of the event's message attribute) on every path.
void mesh_client_update_handler(void *blob) noexcept;
// Prints a message at level 6; called only when the log level is above 5.
void print_mesh_update_msg(const blob_attr *blob) noexcept;

// Both with history_list_lock held for writing; `tb` is a parsed entry with
// all nine keys, `device_mac` and `device_id` the reporting node's texts
// (either may be null: that field is then left alone).
client_node *add_mesh_client(blob_attr *const *tb, const char *device_mac, const char *device_id) noexcept;
void update_mesh_client_info(blob_attr *const *tb, const char *device_mac, const char *device_id,
                             client_node *node) noexcept;

// Exactly 17 characters; before each of the 6 pairs of hex digits (either
// case) one ':' or '-' may be skipped. 0, or -1 with `out` cleared.
int str_to_mac(std::string_view text, uint8_t out[6]) noexcept;

// The interface kind of a peer's client: the connection type's row, the IoT
// row of it for client type 3; anything outside the table gives 0.
uint8_t mesh_wire_type(int32_t connection_type, int32_t client_type) noexcept;
