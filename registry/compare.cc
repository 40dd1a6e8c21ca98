#include "registry/compare.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <pthread.h>
#include <unistd.h>

#include "core/log.h"
#include "core/text.h"
#include "db/system_info.h"
#include "db/lookups.h"
#include "recognition/fing_report.h"
#include "recognition/http_user_agent.h"
#include "recognition/new_client_notify.h"
#include "registry/history_list_mgmt.h"
#include "registry/ip6_copy.h"
#include "registry/rwlock_guard.h"
#include "scan/client_table.h"
#include "scan/topology.h"

namespace
{

// Rows of each status. A new client is queued for the smart-home service,
// the new-client notifier and the recognition batches before the store
// write.
const callback_pair new_access_rows[] = {
    {.in_thread = 0, .function = smart_home_client_add},
    {.in_thread = 0, .function = new_access_client_add},
    {.in_thread = 0, .function = fing_report_client_add},
    {.in_thread = 0, .function = uci_update_cfg_file},
    {.in_thread = 0, .function = nullptr},
};
const callback_pair keep_alive_rows[] = {
    {.in_thread = 0, .function = uci_update_access_time},
    {.in_thread = 0, .function = nullptr},
};
const callback_pair reconnect_rows[] = {
    {.in_thread = 0, .function = uci_update_cfg_file},
    {.in_thread = 0, .function = nullptr},
};
const callback_pair disconnect_rows[] = {
    {.in_thread = 0, .function = uci_update_leave_time},
    {.in_thread = 0, .function = nullptr},
};

bool clock_is_set()
{
    return access(NTP_SERVER_FILE, F_OK) == 0;
}

// Whether this node is a mesh agent in repeater mode, the one case in which
// a scan entry may overwrite the port class of a client reported by a mesh
// peer.
bool mesh_repeater_node()
{
    return is_mesh_agent && system_info.sys_mode == SYS_MODE_REPEATER;
}

void log_event(const client_node *node, int status, bool is_new)
{
    char ip_text[INET_ADDRSTRLEN] = {};
    struct in_addr a {
    };
    a.s_addr = node->ip;
    inet_ntop(AF_INET, &a, ip_text, sizeof(ip_text));
    if (is_new)
        LR_LOG(6,
               "update client by compare, status(%d)(new), mac(%02x-%02x), ip(%s), ifname(%s), "
               "wired(%d), guest(%d), hostname(%s)",
               status, node->mac[4], node->mac[5], ip_text, node->ifname, node->wire_type, node->guest,
               node->hostname);
    else
        LR_LOG(6,
               "update client by compare, status(%d), mac(%02x-%02x), ip(%s), ifname(%s), "
               "wired(%d), guest(%d), hostname(%s)",
               status, node->mac[4], node->mac[5], ip_text, node->ifname, node->wire_type, node->guest,
               node->hostname);
}

// A row with in_thread set runs on a thread of its own, with its own copy
// of the snapshot taken before the thread starts.
struct thread_job {
    registry_callback function;
    bool has_arg;
    client_node arg;
};

void *thread_job_main(void *p) noexcept
{
    thread_job *job = static_cast<thread_job *>(p);
    job->function(job->has_arg ? &job->arg : nullptr);
    delete job;
    return nullptr;
}

void start_thread_job(registry_callback function, const client_node *arg)
{
    auto *job = new (std::nothrow) thread_job{};
    if (!job)
        return;
    job->function = function;
    job->has_arg = arg != nullptr;
    if (arg)
        job->arg = *arg;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    if (pthread_create(&tid, &attr, thread_job_main, job) != 0)
        delete job;
    pthread_attr_destroy(&attr);
}

// After a keep-alive row has written a corrected connection time, the
// record need not write it again.
void clear_written_clock(client_node *record) noexcept
{
    if (record && record->clock_state == CLOCK_CORRECTED)
        record->clock_state = CLOCK_SET;
}

void copy_entry_fields(client_node *node, const client_table_entry *entry, status_event *event)
{
    bool keep_port = node->is_mesh_client == 1 && !mesh_repeater_node();
    if (!keep_port)
        node->guest = entry->guest;
    if (entry->ip != 0)
        node->ip = entry->ip;
    copy_ip6_globals(node, entry->ip6);
    std::memcpy(node->ip6_local, entry->ip6_local, sizeof(node->ip6_local));
    node->ip6_only = entry->ip6_only;
    if (!keep_port)
        node->wire_type = entry->wire_type;
    if (node->type_user_set == 0 && node->type_cloud_set == 0) {
        node->device_type = entry->device_type;
        node->type_source = static_cast<uint32_t>(entry->type_source);
    }
    std::memcpy(node->mac, entry->mac, sizeof(node->mac));
    std::memset(node->hostname, 0, sizeof(node->hostname));
    copy_str(node->hostname, std::string_view(entry->hostname, strnlen(entry->hostname, HOSTNAME_KEEP)));
    std::memset(node->ifname, 0, sizeof(node->ifname));
    copy_str(node->ifname, std::string_view(entry->ifname, strnlen(entry->ifname, IFNAME_KEEP)));
    // A client seen only in the guest network until now fires the rows of a
    // new access when it first shows up on the main network.
    if (node->access_host == 0) {
        node->access_host = node->guest != GUEST_NETWORK ? 1 : 0;
        if (node->access_host == 1 && event->status == STATUS_RECONNECT)
            event->status = STATUS_NEW_ACCESS;
    }
}

} // namespace

const status_callback_row status_callback_table[] = {
    {.status = STATUS_NEW_ACCESS, .rows = new_access_rows},
    {.status = STATUS_KEEP_ALIVE, .rows = keep_alive_rows},
    {.status = STATUS_RECONNECT, .rows = reconnect_rows},
    {.status = STATUS_DISCONNECT, .rows = disconnect_rows},
    {.status = 0, .rows = nullptr},
};

// Report flushes, policy values of new clients (between the two flushes,
// while the new-clients file is still unconsumed), the cloud upload and
// user agents, in that order.
const callback_pair end_of_pass_table[] = {
    {.in_thread = 0, .function = smart_home_flush},
    {.in_thread = 0, .function = new_client_database_update},
    {.in_thread = 0, .function = new_access_flush},
    {.in_thread = 0, .function = fing_report_flush},
    {.in_thread = 0, .function = check_http_user_agent},
    {.in_thread = 0, .function = fing_periodic},
    {.in_thread = 0, .function = nullptr},
};

client_node make_event_snapshot(const client_node *node) noexcept
{
    client_node s{};
    std::memcpy(s.mac, node->mac, sizeof(s.mac));
    s.guest = node->guest;
    s.ip = node->ip;
    s.ip6_state = node->ip6_state;
    s.ip6_globals = node->ip6_globals;
    std::memcpy(s.ip6_local, node->ip6_local, sizeof(s.ip6_local));
    s.wire_type = node->wire_type;
    s.device_type = node->device_type;
    s.type_source = node->type_source;
    s.access_time = node->access_time;
    s.first_access_time = node->first_access_time;
    s.leave_time = node->leave_time;
    s.clock_state = node->clock_state;
    s.event_access_host = node->access_host;
    std::memcpy(s.hostname, node->hostname, HOSTNAME_KEEP);
    std::memcpy(s.nickname, node->nickname, HOSTNAME_KEEP);
    std::memcpy(s.ifname, node->ifname, sizeof(s.ifname));
    return s;
}

void run_callback_pairs(const callback_pair *pairs, client_node *arg,
                        void (*after_inline)(client_node *record) noexcept, client_node *record) noexcept
{
    if (!pairs)
        return;
    for (const callback_pair *p = pairs; p->function; p++) {
        if (p->in_thread) {
            start_thread_job(p->function, arg);
            continue;
        }
        p->function(arg);
        if (after_inline)
            after_inline(record);
    }
}

void run_status_callbacks(const status_callback_row *table, int32_t status, client_node *snapshot,
                          client_node *record) noexcept
{
    for (const status_callback_row *row = table; row->rows; row++) {
        if (row->status != status)
            continue;
        run_callback_pairs(row->rows, snapshot, status == STATUS_KEEP_ALIVE ? clear_written_clock : nullptr,
                           record);
        return;
    }
}

void fill_node_from_entry(client_node *node, const client_table_entry *entry, status_event *event) noexcept
{
    int32_t s = event->status;
    struct sysinfo info {
    };
    if (s != STATUS_KEEP_ALIVE && s != STATUS_EVENT_ONLINE && s != STATUS_MESH_ONLINE &&
        s != STATUS_EVENT_OFFLINE) {
        // A connection or a disconnection: all three times are taken.
        node->access_uptime = sysinfo(&info) == 0 ? static_cast<int32_t>(info.uptime) : 0;
        if (s == STATUS_NEW_ACCESS || s == STATUS_RECONNECT)
            node->clock_state = clock_is_set() ? CLOCK_SET : CLOCK_NOT_SET;
        lr_time32 now = static_cast<lr_time32>(time(nullptr));
        node->access_time = now;
        node->first_access_time = now;
        node->leave_time = now;
    } else if (node->clock_state == CLOCK_NOT_SET && clock_is_set() && sysinfo(&info) == 0) {
        // The clock was set since the connection: compute the connection
        // time back from the uptime, and have it written once.
        node->access_time = static_cast<lr_time32>(time(nullptr) - (info.uptime - node->access_uptime));
        node->clock_state = CLOCK_CORRECTED;
    }
    if (!entry) {
        node->ip = 0;
        free_ip6_globals(node);
        return;
    }
    copy_entry_fields(node, entry, event);
}

int find_client_for_compare(const client_table_entry *entry, status_event *event) noexcept
{
    client_node *node = find_node_by_mac(entry->mac);
    if (!node)
        return 0;
    uint8_t s = node->status;
    event->node = node;
    if (s == STATUS_EVENT_ONLINE || s == STATUS_MESH_ONLINE || s == STATUS_EVENT_OFFLINE) {
        event->status = s;
        return 1;
    }
    if (s == STATUS_DISCONNECT) {
        unlink_node(node);
        event->status = STATUS_RECONNECT;
        return 1;
    }
    // A name learned late, a move between bands or between guest and main
    // network all count as a reconnection.
    if (node->guest == entry->guest && node->wire_type == entry->wire_type &&
        std::strcmp(node->hostname, entry->hostname) == 0) {
        event->status = STATUS_KEEP_ALIVE;
        return 1;
    }
    unlink_node(node);
    event->status = STATUS_RECONNECT;
    return 1;
}

void default_opt_before_event_callback(status_event *event, const client_table_entry *entry) noexcept
{
    client_node *node = event->node;
    client_node snapshot{};
    bool has_snapshot = false;
    const int32_t applied = event->status;
    switch (applied) {
    case STATUS_NEW_ACCESS:
        node = delete_oldest_node_from_list();
        if (!node) {
            // No record at all: the pool was never built. Refuse.
            LR_LOG(2, "[lr error] no record for a new client\n");
            return;
        }
        event->node = node;
        fill_node_from_entry(node, entry, event);
        snapshot = make_event_snapshot(node);
        has_snapshot = true;
        set_node_status(node, STATUS_NEW_ACCESS);
        log_event(node, event->status, true);
        break;
    case STATUS_KEEP_ALIVE:
        node->status = STATUS_KEEP_ALIVE;
        fill_node_from_entry(node, entry, event);
        snapshot = make_event_snapshot(node);
        has_snapshot = true;
        break;
    case STATUS_RECONNECT:
        fill_node_from_entry(node, entry, event);
        snapshot = make_event_snapshot(node);
        has_snapshot = true;
        set_node_status(node, STATUS_RECONNECT);
        break;
    case STATUS_DISCONNECT:
        fill_node_from_entry(node, nullptr, event);
        snapshot = make_event_snapshot(node);
        has_snapshot = true;
        set_node_status(node, STATUS_DISCONNECT);
        break;
    case STATUS_EVENT_ONLINE:
    case STATUS_MESH_ONLINE:
        fill_node_from_entry(node, entry, event);
        break;
    default:
        break;
    }
    if (applied != STATUS_NEW_ACCESS && node)
        log_event(node, node->status, false);
    // fill_node_from_entry may have turned a reconnection into a new access.
    if (has_snapshot)
        run_status_callbacks(status_callback_table, event->status, &snapshot, node);
}

void settle_history_list_locked() noexcept
{
    // Lost clients: a record still at 5 was confirmed by no entry.
    client_node *n = get_history_list();
    while (n && n->status != STATUS_DISCONNECT) {
        client_node *next = n->next;
        if (n->status == STATUS_ONLINE_LAST_TIME) {
            unlink_node(n);
            status_event event{.status = STATUS_DISCONNECT, .node = n};
            default_opt_before_event_callback(&event, nullptr);
        }
        n = next;
    }
    for (client_node *r = get_history_list(); r; r = r->next) {
        if (r->status == STATUS_EVENT_OFFLINE)
            r->status = STATUS_DISCONNECT;
        else if (r->status != STATUS_DISCONNECT && r->status != STATUS_MESH_ONLINE)
            r->status = STATUS_ONLINE_LAST_TIME;
    }
    run_callback_pairs(end_of_pass_table, nullptr, nullptr, nullptr);
}

namespace
{

int compare_entries_locked(const client_table_entry *head) noexcept
{
    rwlock_write_guard history(history_list_lock);
    bool node_mode = sys_mode_is_node();
    for (const client_table_entry *e = head; e; e = e->next) {
        // Clients upstream of a node that is not the router are not ours.
        if (node_mode && e->wire_type == WIRE_TYPE_UPSTREAM)
            continue;
        status_event event{};
        if (!find_client_for_compare(e, &event)) {
            event.status = STATUS_NEW_ACCESS;
            event.node = nullptr;
        }
        default_opt_before_event_callback(&event, e);
    }
    settle_history_list_locked();
    return 0;
}

int report_table_busy() noexcept
{
    lr_write_line(STDOUT_FILENO, "============= get client table rd lock failed!!!!=============\n");
    return -2;
}

} // namespace

int compare_client_table(client_table_entry *head) noexcept
{
    rwlock_try_read_guard table(client_table_lock);
    if (!table.held())
        return report_table_busy();
    return compare_entries_locked(head);
}

int compare_scan_list() noexcept
{
    rwlock_try_read_guard table(client_table_lock);
    if (!table.held())
        return report_table_busy();
    if (!client_table.head)
        return 0;
    return compare_entries_locked(client_table.head);
}
