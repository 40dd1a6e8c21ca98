// What a peer's entry puts into a record, and the texts of its message.
#include <arpa/inet.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "core/log.h"
#include "core/text.h"
#include "events/mesh_client.h"
#include "events/mesh_walk.h"
#include "registry/client_node.h"
#include "registry/compare.h"

const blobmsg_policy mesh_msg_policy[MESH_MSG_ATTR_MAX] = {
    /* MESH_DEVICE_MAC */ {.name = "device_mac", .type = BLOBMSG_TYPE_STRING},
    /* MESH_DEVICE_ID */ {.name = "device_id", .type = BLOBMSG_TYPE_STRING},
    /* MESH_CLIENT_NUM */ {.name = "client_num", .type = BLOBMSG_TYPE_INT32},
    /* MESH_CLIENT_LIST */ {.name = "mesh_client_list", .type = BLOBMSG_TYPE_ARRAY},
};

const blobmsg_policy mesh_client_policy[MESH_CLIENT_ATTR_MAX] = {
    /* MESH_CLIENT_MAC */ {.name = "mac", .type = BLOBMSG_TYPE_STRING},
    /* MESH_CLIENT_IP */ {.name = "ip", .type = BLOBMSG_TYPE_STRING},
    /* MESH_CLIENT_NAME */ {.name = "name", .type = BLOBMSG_TYPE_STRING},
    /* MESH_CLIENT_GUEST */ {.name = "guest", .type = BLOBMSG_TYPE_STRING},
    /* MESH_CLIENT_CONNECTION_TYPE */ {.name = "connection_type", .type = BLOBMSG_TYPE_INT32},
    /* MESH_CLIENT_CLIENT_TYPE */ {.name = "client_type", .type = BLOBMSG_TYPE_INT32},
    /* MESH_CLIENT_SIGNAL */ {.name = "signal_strength", .type = BLOBMSG_TYPE_INT32},
    /* MESH_CLIENT_RXRATE */ {.name = "rxrate", .type = BLOBMSG_TYPE_INT32},
    /* MESH_CLIENT_TXRATE */ {.name = "txrate", .type = BLOBMSG_TYPE_INT32},
};

namespace
{

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Interface kinds by connection type: the radios keep their band, 8 is
// wired, and 5 to 7 have no kind of their own.
constexpr uint8_t connection_wire_type[] = {0, 1, 2, 3, 4, 0, 0, 0, 10};
constexpr uint8_t IOT_KIND_OFFSET = 5;

void mac_or_zero(const char *text, uint8_t out[6])
{
    str_to_mac(text ? std::string_view(text) : std::string_view(), out);
}

uint32_t ip_or_zero(const char *text)
{
    in_addr a{};
    return inet_pton(AF_INET, text, &a) == 1 ? a.s_addr : 0;
}

// Fields that every report of the peer renews.
void copy_entry(blob_attr *const *tb, const char *device_mac, const char *device_id, client_node *node)
{
    node->wire_type = mesh_wire_type(mesh_attr_int(tb[MESH_CLIENT_CONNECTION_TYPE]),
                                     mesh_attr_int(tb[MESH_CLIENT_CLIENT_TYPE]));
    // Only the exact word names the guest network.
    node->guest = std::strcmp(mesh_attr_text(tb[MESH_CLIENT_GUEST]), "GUEST") == 0 ? GUEST_NETWORK : 2;
    node->access_host = node->guest == GUEST_NETWORK ? 0 : 1;
    node->event_access_host = node->access_host;
    node->is_mesh_client = 1;
    node->signal = mesh_attr_int(tb[MESH_CLIENT_SIGNAL]);
    node->rxrate = mesh_attr_int(tb[MESH_CLIENT_RXRATE]);
    node->txrate = mesh_attr_int(tb[MESH_CLIENT_TXRATE]);
    if (device_mac)
        mac_or_zero(device_mac, node->connect_device_mac);
    if (device_id)
        copy_str(node->connect_device_id, device_id);
}

// A record for a new client. A peer's list is outside input and may name
// thousands of clients: when the pool is empty it may take the place of an
// offline client or of another peer's client, never of one that this node
// sees itself (a scan or a radio event holds it), which would otherwise be
// evicted by a long enough list.
client_node *mesh_record()
{
    if (!client_pool || !client_pool->head) {
        const client_node *victim = eviction_victim();
        bool offline =
            victim && (victim->status == STATUS_DISCONNECT || victim->status == STATUS_EVENT_OFFLINE);
        if (victim && !offline && victim->status != STATUS_MESH_ONLINE) {
            LR_LOG(7, "[lr] no record for a mesh client: the oldest is held by this node");
            return nullptr;
        }
    }
    return delete_oldest_node_from_list();
}

} // namespace

int str_to_mac(std::string_view text, uint8_t out[6]) noexcept
{
    uint8_t mac[6] = {};
    size_t pos = 0;
    bool ok = text.size() == 17;
    for (int i = 0; ok && i < 6; i++) {
        if (pos < text.size() && (text[pos] == ':' || text[pos] == '-'))
            pos++;
        int hi = pos < text.size() ? hex_value(text[pos]) : -1;
        int lo = pos + 1 < text.size() ? hex_value(text[pos + 1]) : -1;
        if (hi < 0 || lo < 0) {
            ok = false;
            break;
        }
        mac[i] = static_cast<uint8_t>(hi << 4 | lo);
        pos += 2;
    }
    if (!ok || pos != text.size()) {
        std::memset(out, 0, 6);
        return -1;
    }
    std::memcpy(out, mac, 6);
    return 0;
}

uint8_t mesh_wire_type(int32_t connection_type, int32_t client_type) noexcept
{
    if (connection_type < 0 || connection_type >= static_cast<int32_t>(sizeof(connection_wire_type)))
        return 0;
    uint8_t kind = connection_wire_type[connection_type];
    // The IoT rows stand five behind the radio rows; a wired IoT client has
    // no row of its own and stays wired.
    if (client_type == MESH_CLIENT_TYPE_IOT && kind + IOT_KIND_OFFSET < WIRE_TYPE_COUNT)
        kind = static_cast<uint8_t>(kind + IOT_KIND_OFFSET);
    return kind;
}

client_node *add_mesh_client(blob_attr *const *tb, const char *device_mac, const char *device_id) noexcept
{
    LR_LOG(7, "[lr] add_mesh_client");
    client_node *node = mesh_record();
    if (!node)
        return nullptr;
    mac_or_zero(mesh_attr_text(tb[MESH_CLIENT_MAC]), node->mac);
    node->ip = ip_or_zero(mesh_attr_text(tb[MESH_CLIENT_IP]));
    lr_time32 now = static_cast<lr_time32>(time(nullptr));
    node->access_time = now;
    node->first_access_time = now;
    stamp_connection(node);
    copy_str(node->hostname, MESH_CLIENT_HOSTNAME);
    copy_entry(tb, device_mac, device_id, node);
    set_node_status(node, STATUS_NEW_ACCESS);
    return node;
}

void update_mesh_client_info(blob_attr *const *tb, const char *device_mac, const char *device_id,
                             client_node *node) noexcept
{
    LR_LOG(7, "[lr] update_mesh_client_info");
    copy_entry(tb, device_mac, device_id, node);
}

void print_mesh_update_msg(const blob_attr *blob) noexcept
{
    blob_attr *tb[MESH_MSG_ATTR_MAX];
    if (!parse_mesh_message(blob, tb)) {
        LR_LOG(3, "[lr error] Invalid message\n");
        return;
    }
    LR_LOG(6, "======mesh_update_msg======");
    LR_LOG(6, "dev_mac : %s, dev_id : %s, client's num : %d", mesh_attr_text(tb[MESH_DEVICE_MAC]),
           mesh_attr_text(tb[MESH_DEVICE_ID]), mesh_attr_int(tb[MESH_CLIENT_NUM]));
    // A plain loop: a log line names the function it stands in.
    mesh_cursor cursor(tb[MESH_CLIENT_LIST]);
    blob_attr *e[MESH_CLIENT_ATTR_MAX];
    bool valid = false;
    for (int index = 0; cursor.next(e, valid);) {
        if (!valid) {
            LR_LOG(7, "error client_entry, continue");
            continue;
        }
        LR_LOG(6,
               "client(%d) mac=%s, ip=%s, name=%s, guest=%s, signal_strength=%d, connection_type=%d, "
               "client_type=%d, rxrate=%d, txrate=%d",
               index++, mesh_attr_text(e[MESH_CLIENT_MAC]), mesh_attr_text(e[MESH_CLIENT_IP]),
               mesh_attr_text(e[MESH_CLIENT_NAME]), mesh_attr_text(e[MESH_CLIENT_GUEST]),
               mesh_attr_int(e[MESH_CLIENT_SIGNAL]), mesh_attr_int(e[MESH_CLIENT_CONNECTION_TYPE]),
               mesh_attr_int(e[MESH_CLIENT_CLIENT_TYPE]), mesh_attr_int(e[MESH_CLIENT_RXRATE]),
               mesh_attr_int(e[MESH_CLIENT_TXRATE]));
    }
    LR_LOG(6, "===========================");
}
