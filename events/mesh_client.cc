// The merge of one peer's client list into the live list.
#include "events/mesh_client.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "core/log.h"
#include "db/system_info.h"
#include "events/mesh_walk.h"
#include "registry/client_node.h"
#include "registry/compare.h"
#include "registry/rwlock_guard.h"

namespace
{

using mac_bytes = std::array<uint8_t, 6>;

struct free_deleter {
    void operator()(void *p) const noexcept
    {
        std::free(p);
    }
};

bool offline_status(uint8_t status)
{
    return status == STATUS_DISCONNECT || status == STATUS_EVENT_OFFLINE;
}

bool mac_is_zero(const uint8_t mac[6])
{
    static const uint8_t zero[6] = {};
    return std::memcmp(mac, zero, 6) == 0;
}

// The MACs of the entries with all nine keys, sorted, so that the second
// walk asks each record in a binary search instead of parsing the whole
// list once per record (a peer may send thousands of entries). Without
// memory for it the list itself is walked again; the outcome is the same.
class listed_macs
{
  public:
    explicit listed_macs(blob_attr *list) noexcept : list_(list)
    {
        size_t count = 0;
        for_each_mesh_element(list, [&count](blob_attr **) { count++; });
        if (count > 0)
            macs_.reset(static_cast<mac_bytes *>(std::calloc(1, count * sizeof(mac_bytes))));
        capacity_ = macs_ ? count : 0;
    }

    void add(const uint8_t mac[6]) noexcept
    {
        if (size_ < capacity_)
            std::memcpy(macs_.get()[size_++].data(), mac, 6);
    }

    void seal() noexcept
    {
        if (macs_)
            std::sort(macs_.get(), macs_.get() + size_);
    }

    bool contains(const uint8_t mac[6]) const noexcept
    {
        mac_bytes key;
        std::memcpy(key.data(), mac, 6);
        if (macs_)
            return std::binary_search(macs_.get(), macs_.get() + size_, key);
        bool found = false;
        for_each_mesh_element(list_, [&](blob_attr **tb) {
            mac_bytes m{};
            if (tb && !found) {
                str_to_mac(mesh_attr_text(tb[MESH_CLIENT_MAC]), m.data());
                found = m == key;
            }
        });
        return found;
    }

  private:
    blob_attr *list_;
    std::unique_ptr<mac_bytes[], free_deleter> macs_;
    size_t capacity_ = 0;
    size_t size_ = 0;
};

// Rows run here on this thread with the record itself, whatever a row's
// in_thread flag says: the record is final and the lock is held.
void run_rows_inline(const callback_pair *pairs, client_node *arg)
{
    for (const callback_pair *p = pairs; p && p->function; p++)
        p->function(arg);
}

void run_status_rows(int32_t status, client_node *node)
{
    for (const status_callback_row *row = status_callback_table; row->rows; row++) {
        if (row->status != status)
            continue;
        run_rows_inline(row->rows, node);
        // A corrected connection time has now been written once.
        if (status == STATUS_KEEP_ALIVE && node->clock_state == CLOCK_CORRECTED)
            node->clock_state = CLOCK_SET;
        return;
    }
}

void log_mesh_client(const char *what, const client_node *node)
{
    LR_LOG(6, "%s mesh client, mac = %02x-%02x, wired : %d, guest : %d, conn_state : %d", what, node->mac[4],
           node->mac[5], node->wire_type, node->guest, node->status);
}

struct peer_report {
    const char *device_mac;
    const char *device_id;
    uint8_t mac[6];
};

// First walk, one listed client: added, refreshed or reconnected.
void merge_entry(blob_attr **tb, const peer_report &peer)
{
    uint8_t mac[6];
    str_to_mac(mesh_attr_text(tb[MESH_CLIENT_MAC]), mac);
    LR_LOG(7, "[lr] mac=%02X-%02X", mac[4], mac[5]);
    client_node *node = find_node_by_mac(mac);
    int32_t event = 0;
    if (!node) {
        LR_LOG(7, "[lr] add by mesh mac=%02X-%02X", mac[4], mac[5]);
        node = add_mesh_client(tb, peer.device_mac, peer.device_id);
        if (!node)
            return;
        node->status = STATUS_MESH_ONLINE;
        event = STATUS_NEW_ACCESS;
        log_mesh_client("add", node);
    } else {
        LR_LOG(7, "[lr] exist mac=%02X-%02X", mac[4], mac[5]);
        uint8_t s = node->status;
        if (s == STATUS_ONLINE_LAST_TIME || s == STATUS_EVENT_ONLINE || s == STATUS_MESH_ONLINE) {
            LR_LOG(7, "[lr] update by mesh");
            update_mesh_client_info(tb, peer.device_mac, peer.device_id, node);
            event = STATUS_KEEP_ALIVE;
            log_mesh_client("update", node);
        } else if (offline_status(s)) {
            LR_LOG(7, "[lr] reconnect by mesh");
            unlink_node(node);
            set_node_status(node, STATUS_RECONNECT);
            update_mesh_client_info(tb, peer.device_mac, peer.device_id, node);
            stamp_connection(node);
            node->status = STATUS_MESH_ONLINE;
            event = STATUS_RECONNECT;
            log_mesh_client("reconnect", node);
        }
    }
    LR_LOG(7, "[lr] mac=%02X-%02X, status=%d", mac[4], mac[5], event);
    if (event != 0)
        run_status_rows(event, node);
}

// Second walk: the peer's online clients that its list no longer names go
// offline. A client of the scan has no peer MAC and is never touched here.
void remove_unlisted(const peer_report &peer, const listed_macs &listed)
{
    client_node *node = get_history_list();
    while (node) {
        client_node *next = node->next;
        if (!offline_status(node->status) && !mac_is_zero(node->connect_device_mac) &&
            std::memcmp(node->connect_device_mac, peer.mac, 6) == 0) {
            LR_LOG(7, "[lr] cur mesh dev client:mac=%02X-%02X, dev_mac=%s", node->mac[4], node->mac[5],
                   peer.device_mac);
            if (!listed.contains(node->mac)) {
                LR_LOG(7, "[lr] remove mesh client mac=%02X-%02X, dev_mac=%s", node->mac[4], node->mac[5],
                       peer.device_mac);
                unlink_node(node);
                dump_client_info(node);
                set_node_status(node, STATUS_DISCONNECT);
                node->status = STATUS_EVENT_OFFLINE;
                log_mesh_client("remove", node);
                run_status_rows(STATUS_DISCONNECT, node);
            }
        }
        node = next;
    }
}

void merge_peer_list(blob_attr **msg_tb, const peer_report &peer)
{
    blob_attr *list = msg_tb[MESH_CLIENT_LIST];
    rwlock_write_guard hold(history_list_lock);
    listed_macs listed(list);
    for_each_mesh_element(list, [&](blob_attr **tb) {
        if (!tb)
            return;
        merge_entry(tb, peer);
        uint8_t mac[6];
        str_to_mac(mesh_attr_text(tb[MESH_CLIENT_MAC]), mac);
        listed.add(mac);
    });
    listed.seal();
    remove_unlisted(peer, listed);
    run_rows_inline(end_of_pass_table, nullptr);
}

} // namespace

void mesh_client_update_handler(void *blob) noexcept
{
    std::unique_ptr<void, free_deleter> owned(blob);
    LR_LOG(7, "[lr] mesh_client_update_handler\n");
    auto *msg = static_cast<blob_attr *>(blob);
    blob_attr *tb[MESH_MSG_ATTR_MAX];
    if (!parse_mesh_message(msg, tb)) {
        LR_LOG(3, "[lr error] Invalid message\n");
        return;
    }
    if (log_level.load(std::memory_order_relaxed) > 5)
        print_mesh_update_msg(msg);
    peer_report peer{.device_mac = mesh_attr_text(tb[MESH_DEVICE_MAC]),
                     .device_id = mesh_attr_text(tb[MESH_DEVICE_ID]),
                     .mac = {}};
    str_to_mac(peer.device_mac, peer.mac);
    uint8_t self[6];
    str_to_mac(std::string_view(main_device_mac, strnlen(main_device_mac, sizeof(main_device_mac))), self);
    // Compared as bytes: this node's MAC in any case or separator is itself.
    if (std::memcmp(peer.mac, self, 6) == 0) {
        LR_LOG(7, "[lr] recv self mesh update, no need to handle");
        return;
    }
    merge_peer_list(tb, peer);
}
