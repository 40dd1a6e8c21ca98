// The decision of a real-time event and the move of its record.
#include "events/assoc.h"

#include <arpa/inet.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "core/log.h"
#include "events/fill_info.h"
#include "registry/compare.h"
#include "registry/rwlock_guard.h"

namespace
{

enum class verdict { add, reconnect, remove, nothing };

const char *verdict_word(verdict v) noexcept
{
    switch (v) {
    case verdict::add:
        return "ASSOC_add";
    case verdict::reconnect:
        return "ASSOC_reconnect";
    case verdict::remove:
        return "ASSOC_remove";
    default:
        return "ASSOC_nothing";
    }
}

void log_verdict(verdict v, const assoc_event &event) noexcept
{
    char ip[INET_ADDRSTRLEN] = "";
    in_addr addr{event.ip};
    inet_ntop(AF_INET, &addr, ip, sizeof(ip));
    LR_LOG(6, "[lr] %s mac=%02X-%02X, ifname : %s, wired : %d, ip=%s", verdict_word(v), event.mac[4],
           event.mac[5], event.ifname, event.active_port, ip);
}

// Unlinks `node`, whose predecessor in the live list is `prev`.
void unlink_after(client_node *node, client_node *prev) noexcept
{
    if (prev)
        prev->next = node->next;
    else
        set_history_list(node->next);
    node->next = nullptr;
}

// Walk for a join: the first record of the MAC anywhere in the list.
verdict decide_join(const assoc_event &event, client_node **node, client_node **prev, int *status) noexcept
{
    client_node *before = nullptr;
    for (client_node *n = get_history_list(); n; before = n, n = n->next) {
        if (!node_mac_equal(n->mac, event.mac))
            continue;
        LR_LOG(7, "[lr] in hist already mac=%02X-%02X ,status = %d", n->mac[4], n->mac[5], n->status);
        *node = n;
        *prev = before;
        if (n->status == STATUS_DISCONNECT || n->status == STATUS_EVENT_OFFLINE) {
            *status = STATUS_RECONNECT;
            return verdict::reconnect;
        }
        return verdict::nothing;
    }
    *status = STATUS_NEW_ACCESS;
    return verdict::add;
}

// Walk for a leave: the online part only, which ends at the first record of
// status 4; a record already at 8 does not end it.
verdict decide_leave(const assoc_event &event, client_node **node, client_node **prev, int *status) noexcept
{
    client_node *before = nullptr;
    for (client_node *n = get_history_list(); n && n->status != STATUS_DISCONNECT; before = n, n = n->next) {
        if (!node_mac_equal(n->mac, event.mac))
            continue;
        if (n->status == STATUS_EVENT_OFFLINE)
            return verdict::nothing;
        *node = n;
        *prev = before;
        *status = STATUS_DISCONNECT;
        return verdict::remove;
    }
    return verdict::nothing;
}

} // namespace

// Time of the connection: the uptime it happened at, and whether the clock
// could be trusted then.
void stamp_connection(client_node *node) noexcept
{
    struct sysinfo info {
    };
    node->access_uptime = sysinfo(&info) == 0 ? static_cast<int32_t>(info.uptime) : 0;
    node->clock_state = access(NTP_SERVER_FILE, F_OK) != 0 ? CLOCK_NOT_SET : CLOCK_SET;
}

// A record taken offline by an event: its addresses, port and peer go.
void dump_client_info(client_node *node) noexcept
{
    LR_LOG(7, "[lr] dump_client_info del_node=%p", static_cast<void *>(node));
    node->status = STATUS_DISCONNECT;
    node->ip = 0;
    node->ip6_state = 0;
    node->ip6_only = 0;
    std::memset(node->ip6_local, 0, sizeof(node->ip6_local));
    free_ip6_globals(node);
    node->leave_time = static_cast<lr_time32>(time(nullptr));
    std::memset(node->ifname, 0, sizeof(node->ifname));
    node->is_mesh_client = 0;
    std::memset(node->connect_device_mac, 0, sizeof(node->connect_device_mac));
    std::memset(node->connect_device_id, 0, sizeof(node->connect_device_id));
}

client_node *update_client_by_event(const assoc_event &event, int status, client_node *node,
                                    client_node *prev) noexcept
{
    lr_time32 now = static_cast<lr_time32>(time(nullptr));
    switch (status) {
    case STATUS_NEW_ACCESS:
        node = delete_oldest_node_from_list();
        if (!node)
            return nullptr; // the event is lost; the next pass may add the client
        node->access_time = now;
        node->first_access_time = now;
        stamp_connection(node);
        node->ip = event.ip;
        std::memcpy(node->mac, event.mac, sizeof(node->mac));
        fill_info(node, event);
        set_node_status(node, STATUS_NEW_ACCESS);
        node->status = STATUS_EVENT_ONLINE;
        return node;
    case STATUS_RECONNECT:
        unlink_after(node, prev);
        node->access_time = now;
        stamp_connection(node);
        node->ip = event.ip;
        fill_info(node, event);
        set_node_status(node, STATUS_RECONNECT);
        node->status = STATUS_EVENT_ONLINE;
        return node;
    case STATUS_DISCONNECT:
        unlink_after(node, prev);
        dump_client_info(node);
        set_node_status(node, STATUS_DISCONNECT);
        node->status = STATUS_EVENT_OFFLINE;
        return node;
    default:
        return nullptr;
    }
}

int assco_event_handler(assoc_event event) noexcept
{
    LR_LOG(7, "[lr] assco_event_handler mac=%02X-%02X ", event.mac[4], event.mac[5]);
    rwlock_write_guard hold(history_list_lock);
    client_node *node = nullptr;
    client_node *prev = nullptr;
    int status = 0;
    if (event.remove == 0 || event.remove == 1) {
        verdict v = event.remove == 0 ? decide_join(event, &node, &prev, &status)
                                      : decide_leave(event, &node, &prev, &status);
        log_verdict(v, event);
    }
    if (status == 0)
        return 0;
    client_node *changed = update_client_by_event(event, status, node, prev);
    if (!changed)
        return 0;
    LR_LOG(7, "[lr] status=%d", status);
    // The rows get the record itself: nothing else moves it while the lock
    // is held.
    run_status_callbacks(status_callback_table, status, changed, changed);
    run_callback_pairs(end_of_pass_table, nullptr, nullptr, nullptr);
    return 0;
}
