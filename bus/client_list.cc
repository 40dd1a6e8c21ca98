// get_hist_list_new: the one method through which the router's front ends
// see everything about the LAN's devices.
#include "bus/client_list.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bus/mac_text.h"
#include "bus/ubus_handlers.h"
#include "bus/ubus_server.h"
#include "core/log.h"
#include "db/system_info.h"
#include "registry/client_node.h"
#include "registry/rwlock_guard.h"
#include "scan/lan_info.h"

namespace
{

time_t wall_clock() noexcept
{
    return time(nullptr);
}

// Every array the query gathered; a source that failed or wasn't asked
// leaves a null array and count 0.
struct gathered {
    tfstats_entry *tfstats = nullptr;
    int tfstats_count = 0;
    tfstats_entry *wlan_tfstats = nullptr;
    int wlan_tfstats_count = 0;
    tfstats_entry *lan_tfstats = nullptr;
    int lan_tfstats_count = 0;
    uint8_t *heavy = nullptr;
    int heavy_count = 0;
    wireless_station *stations = nullptr;
    int station_count = 0;
    fing_info *fing = nullptr;
    int fing_count = 0;
    device_type_info *categories = nullptr;
    int category_count = 0;
    uint8_t *mesh_agents = nullptr;
    int mesh_agent_count = 0;
    uint8_t *gaming = nullptr;
    int gaming_count = 0;
    file_client *file_clients = nullptr;
    int file_client_count = 0;

    gathered() = default;
    gathered(const gathered &) = delete;
    gathered &operator=(const gathered &) = delete;
    ~gathered()
    {
        std::free(tfstats);
        std::free(wlan_tfstats);
        std::free(lan_tfstats);
        std::free(heavy);
        std::free(stations);
        std::free(categories);
        std::free(fing);
        std::free(gaming);
        std::free(mesh_agents);
        std::free(file_clients);
    }
};

// Keeps what a source delivered only when it says it succeeded.
template <typename T> void keep_if_ok(int result, T *&rows, int &count) noexcept
{
    if (result != 0 || !rows || count <= 0) {
        std::free(rows);
        rows = nullptr;
        count = 0;
    }
}

// The same for the wired traffic array, which counts as there when the
// service answered, even with no row: a wired client then shows zeros.
template <typename T> void keep_if_answered(int result, T *&rows, int &count) noexcept
{
    if (result != 0 || !rows) {
        std::free(rows);
        rows = nullptr;
        count = 0;
    }
}

bool workaround_applies() noexcept
{
    return system_info.support_tfstats_workaround &&
           (system_info.qos_enable == 0 || system_info.wan_type == 1 || system_info.wan_type == 2);
}

void gather_sources(const hist_list_request &req, gathered &g) noexcept
{
    if (system_info.support_tfstats && req.tfstats) {
        keep_if_ok(hist_sources.tfstats(&g.tfstats, &g.tfstats_count), g.tfstats, g.tfstats_count);
        if (workaround_applies()) {
            int r = hist_sources.workaround_tfstats(&g.wlan_tfstats, &g.lan_tfstats, &g.wlan_tfstats_count,
                                                    &g.lan_tfstats_count);
            keep_if_ok(r, g.wlan_tfstats, g.wlan_tfstats_count);
            keep_if_answered(r, g.lan_tfstats, g.lan_tfstats_count);
        }
    }
    if (system_info.support_high_bandwidth_occupancy && req.high_bandwidth_occupancy)
        keep_if_ok(hist_sources.hi_bw_occ_macs(&g.heavy, &g.heavy_count), g.heavy, g.heavy_count);
    if (req.wireless)
        keep_if_ok(hist_sources.wireless_info(&g.stations, &g.station_count), g.stations, g.station_count);
    keep_if_ok(hist_sources.fing_info(&g.fing, &g.fing_count), g.fing, g.fing_count);
    keep_if_ok(hist_sources.device_type_info(&g.categories, &g.category_count), g.categories,
               g.category_count);
    if (system_info.support_easymesh || system_info.support_weavelink)
        keep_if_ok(hist_sources.mesh_agent(&g.mesh_agents, &g.mesh_agent_count), g.mesh_agents,
                   g.mesh_agent_count);
    if (system_info.support_gaming_lan)
        keep_if_ok(hist_sources.gaming_lan_macs(&g.gaming, &g.gaming_count), g.gaming, g.gaming_count);
}

// Linear walks that stop at the first equal MAC.
template <typename T> const T *find_row(const T *rows, int count, const uint8_t mac[6]) noexcept
{
    for (int i = 0; i < count; ++i)
        if (std::memcmp(rows[i].mac, mac, 6) == 0)
            return &rows[i];
    return nullptr;
}

bool mac_listed(const uint8_t *macs, int count, const uint8_t mac[6]) noexcept
{
    for (int i = 0; i < count; ++i)
        if (std::memcmp(macs + 6 * static_cast<size_t>(i), mac, 6) == 0)
            return true;
    return false;
}

bool is_offline(uint8_t status) noexcept
{
    return status == STATUS_DISCONNECT || status == STATUS_EVENT_OFFLINE;
}

bool is_current(uint8_t status) noexcept
{
    return status == STATUS_ONLINE_LAST_TIME || status == STATUS_EVENT_ONLINE || status == STATUS_MESH_ONLINE;
}

bool mac_is_zero(const uint8_t mac[6]) noexcept
{
    static const uint8_t zero[6] = {};
    return std::memcmp(mac, zero, 6) == 0;
}

// A text that can't be converted counts as all zero.
void text_to_mac_or_zero(const char *text, uint8_t out[6]) noexcept
{
    if (mac_text_to_bytes(text, out) != 0)
        std::memset(out, 0, 6);
}

// What stays the same for every record of one request.
struct walk_state {
    const hist_list_request &req;
    const gathered &src;
    time_t now;
    uint8_t self_mac[6];
    uint8_t main_mac[6];
};

bool skip_record(const walk_state &w, const client_node &n) noexcept
{
    if (w.req.online_type == 1 && is_offline(n.status))
        return true;
    if (w.req.online_type == 0 && is_current(n.status))
        return true;
    if (mac_listed(w.src.mesh_agents, w.src.mesh_agent_count, n.mac))
        return true; // a mesh node is not shown as a client of itself
    if (is_mesh_agent && system_info.sys_mode == SYS_MODE_REPEATER && !mac_is_zero(n.connect_device_mac)) {
        // A repeater shows only the clients on itself and on the main device.
        if (!node_mac_equal(n.connect_device_mac, w.self_mac) &&
            !node_mac_equal(n.connect_device_mac, w.main_mac))
            return true;
    }
    if (w.req.v6 == 0 && n.ip6_only == 1)
        return true;
    if (n.wire_type == 9)
        return true; // the mesh configuration interface
    return system_info.sys_mode != SYS_MODE_ROUTER && node_mac_equal(n.mac, lan_info.gateway_mac);
}

const char *guest_text(const client_node &n) noexcept
{
    if (n.wire_type == 10)
        return "NON_GUEST";
    if (n.guest == 1)
        return "GUEST";
    return n.guest == 2 ? "NON_GUEST" : "UNKONW";
}

const char *type_text(const walk_state &w, const client_node &n) noexcept
{
    if (n.type_source > 1) {
        const device_type_info *row = find_row(w.src.categories, w.src.category_count, n.mac);
        if (row && row->type >= 0 && row->type < CLIENT_CATEGORY_COUNT)
            return client_category_table[row->type];
    }
    if (n.device_type < 0 || n.device_type >= DEVICE_TYPE_COUNT)
        return "Other";
    return device_type_table[n.device_type];
}

void add_shown_name(const client_node &n) noexcept
{
    if (n.nickname[0]) {
        reply_add_string("hostname", n.nickname);
        return;
    }
    if (n.hostname[0] && std::strcmp(n.hostname, "network device") != 0) {
        reply_add_string("hostname", n.hostname);
        return;
    }
    char vendor[VENDOR_TEXT_SIZE] = "";
    if (hist_sources.vendor(n.mac, vendor) == 0 && vendor[0]) {
        reply_add_string("hostname", vendor);
        return;
    }
    reply_add_string("hostname", n.hostname);
}

// Keys 1 to 8.
void add_identity_keys(const walk_state &w, const client_node &n) noexcept
{
    char mac[MAC_DASH_TEXT_SIZE];
    mac_bytes_to_text(n.mac, mac);
    reply_add_string("mac", mac);
    reply_add_string("wire_type", is_offline(n.status) ? "offline" : wire_type_name(n.wire_type));
    reply_add_string("guest", guest_text(n));
    reply_add_string("device_type", type_text(w, n));
    reply_add_u32("access_time", n.access_time);
    reply_add_u32("access_uptime", n.access_uptime);
    bool running = !is_offline(n.status) && w.now > n.access_time;
    reply_add_u32("online_time", running ? w.now - n.access_time : 0);
    add_shown_name(n);
}

void add_mlo_link(const char *band, uint8_t valid, uint32_t rx, uint32_t tx) noexcept
{
    char key[32];
    std::snprintf(key, sizeof(key), "mlo_valid_%s", band);
    reply_add_u32(key, valid);
    if (!valid)
        return;
    std::snprintf(key, sizeof(key), "mlo_rx_rate_%s", band);
    reply_add_u32(key, rx);
    std::snprintf(key, sizeof(key), "mlo_tx_rate_%s", band);
    reply_add_u32(key, tx);
}

// Keys 9 to 12; true when the station source had a row for the client.
bool add_radio_keys(const walk_state &w, const client_node &n) noexcept
{
    const wireless_station *row = find_row(w.src.stations, w.src.station_count, n.mac);
    if (row) {
        reply_add_u32("signal", row->signal);
        reply_add_u32("rxrate", row->rxrate);
        reply_add_u32("txrate", row->txrate);
        if (system_info.support_mlo) {
            add_mlo_link("2G", row->mlo_valid_2G, row->mlo_rx_rate_2G, row->mlo_tx_rate_2G);
            add_mlo_link("5G", row->mlo_valid_5G, row->mlo_rx_rate_5G, row->mlo_tx_rate_5G);
            add_mlo_link("6G", row->mlo_valid_6G, row->mlo_rx_rate_6G, row->mlo_tx_rate_6G);
        }
        return true;
    }
    if (n.wire_type == 10 || n.wire_type == 0)
        return false;
    // What the mesh peer reported, in Mbit/s, with floors.
    reply_add_u32("signal", n.signal == 0 || n.signal < -60 ? -60 : n.signal);
    int64_t rx = int64_t{n.rxrate} * 1000;
    int64_t tx = int64_t{n.txrate} * 1000;
    reply_add_u32("rxrate", rx == 0 ? 5000 : rx);
    reply_add_u32("txrate", tx == 0 ? 1000 : tx);
    if (system_info.support_mlo) {
        reply_add_u32("mlo_valid_2G", 0);
        reply_add_u32("mlo_valid_5G", 0);
        reply_add_u32("mlo_valid_6G", 0);
    }
    return false;
}

const char *on_off(bool on) noexcept
{
    return on ? "on" : "off";
}

int64_t remain_time(bool on, int32_t prio_time, time_t now) noexcept
{
    if (on && prio_time != -1 && prio_time - now > 0)
        return prio_time - now;
    return -1;
}

// Keys 13 to 21.
void add_limit_state_prio_keys(const walk_state &w, const client_node &n) noexcept
{
    if (system_info.support_client_speed_limit && w.req.speed_limit) {
        reply_add_string("enableLimit", on_off(n.limit_enable == 1));
        reply_add_u32("uploadLimit", n.upload_limit);
        reply_add_u32("downloadLimit", n.download_limit);
    }
    bool blocked =
        system_info.access_enable && system_info.access_mode_black && w.req.access_limit && n.blocked == 1;
    char ip[INET_ADDRSTRLEN] = "0.0.0.0";
    in_addr addr{n.ip};
    if (!blocked)
        inet_ntop(AF_INET, &addr, ip, sizeof(ip));
    reply_add_u32("connect_status", !blocked && is_current(n.status) ? 1 : 0);
    reply_add_string("ip", ip);
    if (w.req.qos) {
        bool on = system_info.qos_enable && n.prio == 1;
        reply_add_string("prio", on_off(on));
        reply_add_u32("prio_time", n.prio_time);
        reply_add_u32("time_period", n.time_period);
        reply_add_u32("remainTime", remain_time(on, n.prio_time, w.now));
    }
}

// Keys 22 to 24; `radio_row` says whether add_radio_keys found a row.
void add_traffic_keys(const walk_state &w, const client_node &n, bool radio_row) noexcept
{
    const gathered &s = w.src;
    const tfstats_entry *row = find_row(s.tfstats, s.tfstats_count, n.mac);
    if (!row && workaround_applies()) {
        if (n.wire_type == 10 && s.lan_tfstats)
            row = find_row(s.lan_tfstats, s.lan_tfstats_count, n.mac);
        else if (n.wire_type != 10 || radio_row)
            row = find_row(s.wlan_tfstats, s.wlan_tfstats_count, n.mac);
    }
    reply_add_u32("trafficUsage", row ? row->total_byte : 0);
    reply_add_u32("uploadSpeed", row ? row->retx_byte : 0);
    reply_add_u32("downloadSpeed", row ? row->rerx_byte : 0);
}

} // namespace

void ip6_text(const uint8_t addr[16], char (&out)[INET6_ADDRSTRLEN]) noexcept
{
    static const uint8_t zero[4] = {};
    if (std::memcmp(addr, zero, 4) == 0 || !inet_ntop(AF_INET6, addr, out, sizeof(out)))
        std::strcpy(out, "::");
}

const char *ip6_state_text(int32_t state) noexcept
{
    static const char *const rows[] = {"MORE_STALE",    "TWO_STALE",     "ONE_STALE",      "NO_ITEM",
                                       "ONE_REACHABLE", "TWO_REACHABLE", "MORE_REACHABLE", "ONE_ALIVE",
                                       "TWO_ALIVE",     "MORE_ALIVE"};
    if (state < -3 || state > 6)
        return "illegel enum!";
    return rows[state + 3];
}

namespace
{

// Keys 27 to 30.
void add_v6_keys(const client_node &n) noexcept
{
    reply_add_string("global_state", ip6_state_text(n.ip6_state));
    char text[INET6_ADDRSTRLEN];
    ip6_text(n.ip6_local, text);
    reply_add_string("ip6_local", text);
    int num = 0;
    for (const ip6_addr_node *a = n.ip6_globals; a; a = a->next) {
        ++num;
        char key[32];
        ip6_text(a->addr, text);
        std::snprintf(key, sizeof(key), "ip6_global%d", num);
        reply_add_string(key, text);
        std::snprintf(key, sizeof(key), "global%d_state", num);
        reply_add_string(key, a->state == 1 ? "REACHABLE" : "STALE");
    }
    reply_add_u32("global_ip_num", num);
}

void add_schedule_keys(uint8_t enable, int32_t time_mode, const char *slots, uint8_t repeats,
                       uint8_t status) noexcept
{
    reply_add_string("schedule_enable", on_off(enable == 1));
    reply_add_string("time_mode", time_mode == 2 ? "schedule" : "period");
    reply_add_string("slots", slots);
    reply_add_u32("repeats", repeats);
    reply_add_string("qos_status", on_off(status == 1));
}

// Keys 39 to 41.
void add_attachment_keys(const client_node &n) noexcept
{
    if (!n.is_mesh_client) {
        reply_add_string("connect_device_mac", main_device_mac);
        reply_add_string("connect_device_id", main_device_id);
        return;
    }
    if (mac_is_zero(n.connect_device_mac)) {
        reply_add_string("connect_device_mac", main_device_mac);
    } else {
        char text[MAC_DASH_TEXT_SIZE];
        mac_bytes_to_text(n.connect_device_mac, text);
        reply_add_string("connect_device_mac", text);
        if (std::strcmp(text, main_device_mac) != 0)
            reply_add_u32("mesh_agent", 1);
    }
    static const char zero_id[sizeof(n.connect_device_id)] = {};
    bool no_id = std::memcmp(n.connect_device_id, zero_id, sizeof(zero_id)) == 0;
    char id[sizeof(n.connect_device_id) + 1];
    std::memcpy(id, n.connect_device_id, sizeof(n.connect_device_id));
    id[sizeof(n.connect_device_id)] = '\0';
    reply_add_string("connect_device_id", no_id ? main_device_id : id);
}

// Keys 25 to 43, after the radio, limit and state keys.
void add_policy_and_tail_keys(const walk_state &w, const client_node &n, bool radio_row) noexcept
{
    const hist_list_request &req = w.req;
    if (system_info.support_tfstats && req.tfstats)
        add_traffic_keys(w, n, radio_row);
    bool no_owner = n.owner_id == -1 || n.owner_name[0] == '\0';
    reply_add_u32("owner_id", no_owner ? -1 : n.owner_id);
    reply_add_string("owner_name", no_owner ? "" : n.owner_name);
    if (req.v6)
        add_v6_keys(n);
    if (system_info.support_high_bandwidth_occupancy && req.high_bandwidth_occupancy)
        reply_add_u32("isHighBandwidthOccupancy", mac_listed(w.src.heavy, w.src.heavy_count, n.mac) ? 1 : 0);
    if (system_info.support_qos_schedule && req.qos_schedule) {
        char slots[32] = "";
        if (n.slots[0] != 0xff)
            std::snprintf(slots, sizeof(slots), "%02d:%02d-%02d:%02d", n.slots[0], n.slots[1], n.slots[2],
                          n.slots[3]);
        add_schedule_keys(n.schedule_enable, n.time_mode, slots, n.repeats, n.qos_status);
    }
    const fing_info *fing = find_row(w.src.fing, w.src.fing_count, n.mac);
    char brand[sizeof(fing->brand) + 1] = "";
    char version[sizeof(fing->system_version) + 1] = "";
    if (fing) {
        std::snprintf(brand, sizeof(brand), "%.*s", static_cast<int>(sizeof(fing->brand)), fing->brand);
        std::snprintf(version, sizeof(version), "%.*s", static_cast<int>(sizeof(fing->system_version)),
                      fing->system_version);
    }
    reply_add_string("brand", brand);
    reply_add_string("sys_version", version);
    add_attachment_keys(n);
    if (is_current(n.status))
        reply_add_string("ifname", n.ifname);
    if (system_info.support_gaming_lan)
        reply_add_u32("is_accessed_gaming_lan", mac_listed(w.src.gaming, w.src.gaming_count, n.mac) ? 1 : 0);
}

void add_record_table(const walk_state &w, const client_node &n) noexcept
{
    void *cookie = reply_open_table();
    add_identity_keys(w, n);
    bool radio_row = w.req.wireless ? add_radio_keys(w, n) : false;
    add_limit_state_prio_keys(w, n);
    add_policy_and_tail_keys(w, n, radio_row);
    blob_nest_end(&reply_buf, cookie);
}

void add_file_client_table(const walk_state &w, const file_client &c) noexcept
{
    void *cookie = reply_open_table();
    char mac[MAC_DASH_TEXT_SIZE];
    mac_bytes_to_text(c.mac, mac);
    reply_add_string("mac", mac);
    char name[sizeof(c.name) + 1];
    char type[sizeof(c.type) + 1];
    std::snprintf(name, sizeof(name), "%.*s", static_cast<int>(sizeof(c.name)), c.name);
    std::snprintf(type, sizeof(type), "%.*s", static_cast<int>(sizeof(c.type)), c.type);
    reply_add_string("name", name[0] ? name : "network device");
    reply_add_string("type", type[0] ? type : "UNKNOWN");
    reply_add_string("prio", on_off(c.prio == 1));
    reply_add_u32("prio_time", c.prio_time);
    reply_add_u32("time_period", c.time_period);
    reply_add_u32("owner_id", c.owner_id);
    reply_add_u32("access_time", c.access_time);
    reply_add_u32("remainTime", remain_time(c.prio == 1, c.prio_time, w.now));
    if (system_info.support_qos_schedule) {
        char slots[32] = "";
        if (c.slots[0] != 0xff)
            std::snprintf(slots, sizeof(slots), "%u:%u-%u:%u", c.slots[0], c.slots[1], c.slots[2],
                          c.slots[3]);
        add_schedule_keys(c.schedule_enable, c.time_mode, slots, c.repeats, c.qos_status);
    }
    reply_add_string("connect_device_mac", main_device_mac);
    reply_add_string("connect_device_id", main_device_id);
    blob_nest_end(&reply_buf, cookie);
}

void add_file_clients(const walk_state &w, gathered &g) noexcept
{
    keep_if_ok(hist_sources.file_clients(&g.file_clients, &g.file_client_count), g.file_clients,
               g.file_client_count);
    if (!g.file_clients)
        return;
    bool mesh = system_info.support_easymesh || system_info.support_weavelink;
    void *array = blobmsg_open_nested(&reply_buf, "file_client_list", true);
    for (int i = 0; i < g.file_client_count; ++i) {
        const file_client &c = g.file_clients[i];
        if (mesh && mac_listed(g.mesh_agents, g.mesh_agent_count, c.mac))
            continue;
        add_file_client_table(w, c);
    }
    blob_nest_end(&reply_buf, array);
}

} // namespace

const hist_source_ops hist_sources_default = {
    ubus_get_tfstats,
    ubus_get_workaround_tfstats,
    ubus_get_hi_bw_occ_macs,
    get_wireless_info,
    get_fing_info,
    get_pctl_device_type_info,
    ubus_get_mesh_agent,
    get_gaming_lan_macs,
    get_lanroster_file_clients,
    query_name_by_mac_oui_v2,
    wall_clock,
};
hist_source_ops hist_sources = hist_sources_default;

void compose_hist_list_new(const hist_list_request &request) noexcept
{
    gathered g;
    gather_sources(request, g);
    walk_state w{request, g, hist_sources.now(), {}, {}};
    text_to_mac_or_zero(self_mac, w.self_mac);
    text_to_mac_or_zero(main_device_mac, w.main_mac);
    {
        rwlock_read_guard hold(history_list_lock);
        blob_buf_init(&reply_buf, 0);
        void *array = blobmsg_open_nested(&reply_buf, "client_list", true);
        LR_LOG(7, "put client into blobmsg ");
        for (const client_node *n = get_history_list(); n; n = n->next)
            if (!skip_record(w, *n))
                add_record_table(w, *n);
        blob_nest_end(&reply_buf, array);
    }
    if (request.lanroster_file)
        add_file_clients(w, g);
}

LR_UBUS_HANDLER(get_hist_list_new)
{
    (void)obj;
    (void)method;
    LR_LOG(7, "[lr] UBUS get_hist_list_new");
    blob_attr *tb[HIST_NEW_ATTR_MAX];
    if (blobmsg_parse(hist_new_policy, HIST_NEW_ATTR_MAX, tb, blob_data(msg), blob_len(msg)) != 0) {
        LR_LOG(2, "[lr error] Parse blog msg failed\n");
        return 0;
    }
    int32_t v[HIST_NEW_ATTR_MAX];
    for (int i = 0; i < HIST_NEW_ATTR_MAX; ++i) {
        if (!tb[i]) {
            LR_LOG(3, "[lr error] get_hist_list_new: missing key %s", hist_new_policy[i].name);
            return UBUS_STATUS_INVALID_ARGUMENT;
        }
        v[i] = static_cast<int32_t>(blobmsg_get_u32(tb[i]));
    }
    LR_LOG(7, "req_online_type = %d", v[HIST_NEW_ONLINE_TYPE]);
    LR_LOG(7, "req_v6 = %d", v[HIST_NEW_V6]);
    LR_LOG(7, "req_access_limit = %d", v[HIST_NEW_ACCESS_LIMIT]);
    LR_LOG(7, "req_speed_limit = %d", v[HIST_NEW_SPEED_LIMIT]);
    LR_LOG(7, "req_qos = %d", v[HIST_NEW_QOS]);
    LR_LOG(7, "req_tfstats = %d", v[HIST_NEW_TFSTATS]);
    LR_LOG(7, "req_wireless = %d", v[HIST_NEW_WIRELESS]);
    LR_LOG(7, "req_qos_schedule = %d", v[HIST_NEW_QOS_SCHEDULE]);
    LR_LOG(7, "req_high_bandwidth_occupancy = %d", v[HIST_NEW_HIGH_BANDWIDTH_OCCUPANCY]);
    LR_LOG(7, "req_lanroster_file = %d", v[HIST_NEW_LANROSTER_FILE]);
    hist_list_request request{
        v[HIST_NEW_ONLINE_TYPE],   v[HIST_NEW_V6],           v[HIST_NEW_ACCESS_LIMIT],
        v[HIST_NEW_SPEED_LIMIT],   v[HIST_NEW_QOS],          v[HIST_NEW_TFSTATS],
        v[HIST_NEW_WIRELESS],      v[HIST_NEW_QOS_SCHEDULE], v[HIST_NEW_HIGH_BANDWIDTH_OCCUPANCY],
        v[HIST_NEW_LANROSTER_FILE]};
    compose_hist_list_new(request);
    send_reply_buf(ctx, req);
    return 0;
}
