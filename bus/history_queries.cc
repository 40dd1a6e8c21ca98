// The older read methods. They run on the loop thread; the live list is
// read under the read side of history_list_lock and the scan list under
// the read side of client_table_lock, with no UCI access in either.
#include "bus/history_queries.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bus/client_list.h"
#include "bus/mac_text.h"
#include "bus/ubus_handlers.h"
#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/text.h"
#include "db/system_info.h"
#include "registry/client_node.h"
#include "registry/rwlock_guard.h"
#include "scan/client_table.h"
#include "scan/ip6.h"
#include "scan/lan_info.h"
#include "scan/neigh.h"

#define QUERY_ERROR(...) LR_ERROR_LOG("ubus_server", __VA_ARGS__)

namespace
{

constexpr uint8_t WIRE_TYPE_CONFIG = 9;
constexpr uint8_t WIRE_TYPE_WIRED = 10;

bool is_v6(const char *family) noexcept
{
    return family && std::strcmp(family, FAMILY_V6) == 0;
}

void ipv4_text(uint32_t ip, char *out, size_t size) noexcept
{
    const auto *b = reinterpret_cast<const uint8_t *>(&ip);
    std::snprintf(out, size, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
}

// "UNKNOW", not the "UNKONW" of get_hist_list_new: each reply keeps its word.
const char *guest_word(uint8_t wire_type, uint8_t guest) noexcept
{
    if (wire_type == WIRE_TYPE_WIRED)
        return "NON_GUEST";
    if (guest == 1)
        return "GUEST";
    if (guest == 2)
        return "NON_GUEST";
    return "UNKNOW";
}

void ip6_text_40(const uint8_t addr[16], char (&out)[40]) noexcept
{
    char text[46];
    ip6_text(addr, text);
    copy_str(out, text, sizeof(out) - 1);
}

} // namespace

void format_client_entry(const client_table_entry *entry, client_entry_text *text,
                         const char *family) noexcept
{
    if (!entry || !text)
        return;
    copy_str(text->hostname, entry->hostname, HOSTNAME_KEEP);
    ipv4_text(entry->ip, text->ip, sizeof(text->ip));
    mac_to_dash_text(entry->mac, text->mac);
    // An offline client keeps its kind here; 0, 10 and anything beyond the
    // table read "wired".
    copy_str(text->wire_type, wire_type_name(entry->wire_type), sizeof(text->wire_type) - 1);
    copy_str(text->guest, guest_word(entry->wire_type, entry->guest), sizeof(text->guest) - 1);
    if (is_v6(family)) {
        // A client without IPv6 has a null ip6: an empty IPv6 side.
        const ip6_info *ip6 = entry->ip6;
        text->global_state = ip6_state_text(ip6 ? ip6->state : IP6_NO_ITEM);
        text->global_ip_num = 0;
        for (const ip6_addr_node *a = ip6 ? ip6->addresses : nullptr; a; a = a->next)
            ++text->global_ip_num;
        ip6_text_40(entry->ip6_local, text->ip6_local);
    }
}

int node_to_entry(client_table_entry *entry, const client_node *node, const char *family,
                  ip6_info *ip6) noexcept
{
    if (!entry || !node || !family)
        return -1;
    entry->guest = node->guest;
    entry->wire_type = node->wire_type;
    entry->ip = node->ip;
    std::memcpy(entry->mac, node->mac, 6);
    copy_str(entry->hostname, node->hostname, HOSTNAME_KEEP);
    copy_str(entry->ifname, node->ifname, IFNAME_KEEP);
    entry->device_type = node->device_type;
    if (is_v6(family) && ip6) {
        std::memcpy(entry->ip6_local, node->ip6_local, 16);
        // The record's own list, borrowed: the caller's read hold keeps it
        // still, so nothing is copied or allocated.
        *ip6 = ip6_info{};
        ip6->state = node->ip6_state;
        ip6->addresses = node->ip6_globals;
        std::memcpy(ip6->mac, node->mac, 6);
        entry->ip6 = ip6;
    }
    return 0;
}

client_node *find_online_node(const uint8_t mac[6]) noexcept
{
    for (client_node *n = get_history_list(); n; n = n->next)
        if (n->status == STATUS_ONLINE_LAST_TIME && node_mac_equal(n->mac, mac))
            return n;
    return nullptr;
}

// --- get_hist_list and get_hist_list_num --------------------------------

namespace
{

bool is_current(uint8_t status) noexcept
{
    return status == STATUS_ONLINE_LAST_TIME || status == STATUS_EVENT_ONLINE || status == STATUS_MESH_ONLINE;
}

// The rows of get_hist_list: which records, in which family, with which
// keys. `head_walk` rows end at the first record that isn't current.
struct hist_row {
    bool v6;
    bool head_walk;
    bool offline_only;
    bool drop_ip6_only;        // an IPv6-only record is left out (rows 0 and 1)
    bool drop_online_ip6_only; // only when it is also in status 5 (row 0)
    int connect;               // -1: 1 when status is 5, else the value
    bool nickname_early;       // nickname right after device_type (rows 0 and 3)
    bool ifname;               // row 1 always; row 0 when status is 5
};

constexpr hist_row hist_rows[] = {
    {false, false, false, false, true, -1, true, true},  {false, true, false, true, false, 1, false, true},
    {false, false, true, false, false, 0, false, false}, {true, false, false, false, false, -1, true, false},
    {true, true, false, false, false, 1, false, false},  {true, false, true, false, false, 0, false, false},
};
constexpr int HIST_ROW_COUNT = 6;

// The gateway of a node that isn't a router is no client of it.
bool is_gateway(const client_node &n) noexcept
{
    return system_info.sys_mode != SYS_MODE_ROUTER && node_mac_equal(n.mac, lan_info.gateway_mac);
}

void add_v6_pairs(const ip6_info &ip6) noexcept
{
    int num = 0;
    char key[32];
    char addr[40];
    for (const ip6_addr_node *a = ip6.addresses; a; a = a->next) {
        ++num;
        ip6_text_40(a->addr, addr);
        std::snprintf(key, sizeof(key), "ip6_global%d", num);
        reply_add_string(key, addr);
        std::snprintf(key, sizeof(key), "global%d_state", num);
        reply_add_string(key, a->state == 1 ? "REACHABLE" : "STALE");
    }
}

void add_hist_table(const hist_row &row, const client_node &n) noexcept
{
    client_table_entry entry{};
    client_entry_text text{};
    ip6_info ip6{};
    const char *family = row.v6 ? FAMILY_V6 : FAMILY_V4;
    node_to_entry(&entry, &n, family, &ip6);
    format_client_entry(&entry, &text, family);
    void *cookie = reply_open_table();
    reply_add_string("hostname", text.hostname);
    reply_add_string("ip", text.ip);
    if (row.v6) {
        reply_add_string("global_state", text.global_state);
        reply_add_u32("global_ip_num", text.global_ip_num);
        add_v6_pairs(ip6);
        reply_add_string("ip6_local", text.ip6_local);
    }
    reply_add_string("mac", text.mac);
    reply_add_string("wire_type", text.wire_type);
    reply_add_string("guest", text.guest);
    reply_add_string("device_type", device_type_name(n.device_type));
    if (row.nickname_early)
        reply_add_string("nickname", n.nickname);
    reply_add_u32("access_time", n.access_time);
    reply_add_u32("access_uptime", n.access_uptime);
    int connect = row.connect >= 0 ? row.connect : (n.status == STATUS_ONLINE_LAST_TIME ? 1 : 0);
    reply_add_u32("connect_status", connect);
    if (!row.nickname_early)
        reply_add_string("nickname", n.nickname);
    if (row.ifname && (row.head_walk || n.status == STATUS_ONLINE_LAST_TIME))
        reply_add_string("ifname", n.ifname);
    blob_nest_end(&reply_buf, cookie);
}

bool hist_shown(const hist_row &row, const client_node &n) noexcept
{
    if (row.offline_only && is_current(n.status))
        return false;
    if (row.drop_ip6_only && n.ip6_only == 1)
        return false;
    if (row.drop_online_ip6_only && n.ip6_only == 1 && n.status == STATUS_ONLINE_LAST_TIME)
        return false;
    if (n.wire_type == WIRE_TYPE_CONFIG)
        return false;
    return !is_gateway(n);
}

void walk_hist_row(const hist_row &row) noexcept
{
    rwlock_read_guard hold(history_list_lock);
    for (const client_node *n = get_history_list(); n; n = n->next) {
        if (row.head_walk && !is_current(n->status))
            break; // online records stand first
        if (hist_shown(row, *n))
            add_hist_table(row, *n);
    }
}

// The common start of both: the parse and request_type present; false
// after the error line.
bool parse_request_type(blob_attr *msg, int32_t &type) noexcept
{
    blob_attr *tb[HIST_ATTR_MAX];
    if (blobmsg_parse(hist_policy, HIST_ATTR_MAX, tb, blob_data(msg), blob_len(msg)) != 0) {
        QUERY_ERROR("Parse blog msg failed.");
        return false;
    }
    if (!tb[HIST_REQUEST_TYPE]) {
        QUERY_ERROR("access list request type is NULL.");
        return false;
    }
    type = static_cast<int32_t>(blobmsg_get_u32(tb[HIST_REQUEST_TYPE]));
    return true;
}

// The counts of get_hist_list_num. No gateway rule here, so a count can be
// one above the length of the matching list.
struct num_row {
    const char *key;
    bool head_walk;    // from the head while status is exactly 5
    bool offline_only; // status other than 5
    bool drop_ip6_only;
    bool drop_online_ip6_only;
};

constexpr num_row num_rows[] = {
    {"online_and_offline_client_cnt", false, false, false, true},
    {"online_client_cnt", true, false, true, false},
    {"offline_client_cnt", false, true, false, false},
    {"online_and_offline_client_cnt_v6", false, false, false, false},
    {"online_client_cnt_v6", true, false, false, false},
    {"offline_client_cnt_v6", false, true, false, false},
};

int32_t count_num_row(const num_row &row) noexcept
{
    int32_t count = 0;
    rwlock_read_guard hold(history_list_lock);
    for (const client_node *n = get_history_list(); n; n = n->next) {
        bool online = n->status == STATUS_ONLINE_LAST_TIME;
        if (row.head_walk && !online)
            break;
        if (row.offline_only && online)
            continue;
        if (n->wire_type == WIRE_TYPE_CONFIG)
            continue;
        if (row.drop_ip6_only && n->ip6_only == 1)
            continue;
        if (row.drop_online_ip6_only && n->ip6_only == 1 && online)
            continue;
        ++count;
    }
    return count;
}

} // namespace

bool compose_history_list_get(blob_attr *msg) noexcept
{
    int32_t type = 0;
    if (!parse_request_type(msg, type))
        return false;
    blob_buf_init(&reply_buf, 0);
    // Any other type is an empty reply.
    if (type >= 0 && type < HIST_ROW_COUNT)
        walk_hist_row(hist_rows[type]);
    return true;
}

bool compose_history_list_num_get(blob_attr *msg) noexcept
{
    int32_t type = 0;
    if (!parse_request_type(msg, type))
        return false;
    blob_buf_init(&reply_buf, 0);
    if (type >= 0 && type < HIST_ROW_COUNT)
        reply_add_u32(num_rows[type].key, count_num_row(num_rows[type]));
    return true;
}

// --- get --------------------------------------------------------------------

namespace
{

// The guest test's answer: 0 main network, 1 guest network, 2 not known.
uint8_t guest_answer(uint32_t ip) noexcept
{
    rwlock_read_guard hold(client_table_lock);
    for (const client_table_entry *e = client_table.head; e; e = e->next) {
        if (e->ip != ip)
            continue;
        if (e->guest == 2)
            return 0;
        return e->guest == 1 ? 1 : 2;
    }
    return 2;
}

void add_scan_tables() noexcept
{
    rwlock_read_guard hold(client_table_lock);
    for (const client_table_entry *e = client_table.head; e; e = e->next) {
        client_entry_text text{};
        format_client_entry(e, &text, FAMILY_V6);
        void *cookie = reply_open_table();
        reply_add_string("hostname", text.hostname);
        reply_add_string("ip", text.ip);
        reply_add_string("mac", text.mac);
        reply_add_string("wire_type", text.wire_type);
        reply_add_string("guest", text.guest);
        reply_add_string("device_type", device_type_name(e->device_type));
        blob_nest_end(&reply_buf, cookie);
    }
}

} // namespace

bool compose_get(blob_attr *msg) noexcept
{
    blob_attr *tb[GET_ATTR_MAX];
    if (blobmsg_parse(get_policy, GET_ATTR_MAX, tb, blob_data(msg), blob_len(msg)) != 0 ||
        !tb[GET_REQUEST_TYPE])
        return false;
    int32_t type = static_cast<int32_t>(blobmsg_get_u32(tb[GET_REQUEST_TYPE]));
    if (type == 0) {
        blob_buf_init(&reply_buf, 0);
        add_scan_tables();
        return true;
    }
    blob_attr *value = nullptr;
    if (type == 1) {
        value = tb[GET_IPV4_ADDR];
    } else if (type == 2) {
        // Only the last word is compared, with the IPv4 field; the other
        // three must be there all the same.
        if (tb[GET_IPV6_BYTE1] && tb[GET_IPV6_BYTE2] && tb[GET_IPV6_BYTE3])
            value = tb[GET_IPV6_BYTE4];
    } else {
        return false;
    }
    if (!value)
        return false;
    // The address as it lies in memory, the way the caller passed it.
    uint32_t ip = blobmsg_get_u32(value);
    uint8_t answer = guest_answer(ip);
    blob_buf_init(&reply_buf, 0);
    blobmsg_add_u8(&reply_buf, "guest", answer);
    return true;
}

// --- get_dev_info -------------------------------------------------------

namespace
{

// The peer's MAC text names a file under "/tmp"; a text that would leave
// that directory is refused.
bool file_name_ok(const char *text) noexcept
{
    return text[0] != '\0' && std::strchr(text, '/') == nullptr && std::strcmp(text, ".") != 0 &&
           std::strcmp(text, "..") != 0;
}

void write_mesh_dev_file(const char *al_mac, const client_node &n) noexcept
{
    client_table_entry entry{};
    client_entry_text text{};
    node_to_entry(&entry, &n, FAMILY_V4, nullptr);
    format_client_entry(&entry, &text, FAMILY_V4);
    char body[512];
    std::snprintf(body, sizeof(body), "{\"hostname\" : \"%s\", \"ip\" : \"%s\", \"ipmac\" : \"%s\"}",
                  text.hostname, text.ip, text.mac);
    char path[128];
    int len = std::snprintf(path, sizeof(path), MESH_DEV_FILE_FORMAT, al_mac);
    if (len < 0 || static_cast<size_t>(len) >= sizeof(path) || !file_name_ok(al_mac)) {
        QUERY_ERROR("illeage mac address.");
        return;
    }
    // A file that can't be opened is passed over in silence.
    if (FILE *f = std::fopen(path, "w")) {
        std::fputs(body, f);
        std::fclose(f);
    }
}

// The record of the peer's MAC, else of the first interface MAC found that
// isn't IPv6-only; when none qualifies, whatever the last interface tried
// gave, an IPv6-only record included.
const client_node *find_dev(const uint8_t al_mac[6], const char *interfaces) noexcept
{
    const client_node *found = find_online_node(al_mac);
    if (found || !interfaces)
        return found;
    std::string list(interfaces);
    char *save = nullptr;
    int items = 0;
    for (char *item = strtok_r(list.data(), ",", &save); item && items < DEV_INFO_INTERFACES_MAX;
         item = strtok_r(nullptr, ",", &save), ++items) {
        uint8_t mac[6] = {};
        mac_text_to_bytes(item, mac); // a bad text leaves its bytes as far as they went
        found = find_online_node(mac);
        if (found && found->ip6_only != 1)
            break;
    }
    return found;
}

} // namespace

void compose_history_dev_info_list_get(blob_attr *msg) noexcept
{
    blob_attr *tb[DEV_INFO_ATTR_MAX];
    if (blobmsg_parse(dev_info_policy, DEV_INFO_ATTR_MAX, tb, blob_data(msg), blob_len(msg)) != 0) {
        QUERY_ERROR("Parse blog msg failed.");
        return;
    }
    if (!tb[DEV_INFO_AL_MAC]) {
        QUERY_ERROR("access list request type is NULL.");
        return;
    }
    const char *al_text = blobmsg_get_string(tb[DEV_INFO_AL_MAC]);
    uint8_t al_mac[6] = {};
    mac_text_to_bytes(al_text, al_mac); // not tested, as the peers expect
    const char *interfaces =
        tb[DEV_INFO_INTERFACE_LIST] ? blobmsg_get_string(tb[DEV_INFO_INTERFACE_LIST]) : nullptr;
    rwlock_read_guard hold(history_list_lock);
    // Without a record no file is written or removed.
    if (const client_node *n = find_dev(al_mac, interfaces))
        write_mesh_dev_file(al_text, *n);
}

// --- get_ARP ------------------------------------------------------------

int compose_get_arp() noexcept
{
    int capacity = ARP_DUMP_BUF;
    auto *buf = static_cast<uint8_t *>(std::calloc(1, static_cast<size_t>(capacity)));
    if (!buf) {
        lr_write_line(STDERR_FILENO, "ARP_sniffer: neigh buff malloc failed.\n");
        return -1;
    }
    int len = dump_neighbours(&buf, &capacity);
    if (len < 0) {
        lr_write_line(STDERR_FILENO, "ARP_sniffer: get neigh failed.\n");
        std::free(buf);
        return -1;
    }
    blob_buf_init(&reply_buf, 0);
    neigh_walker walker({buf, static_cast<size_t>(len)});
    neigh_msg m{};
    while (walker.next(m)) {
        // Nothing is filtered by LAN, state or subnet, but a static entry.
        if (m.state == NUD_STATE_NOARP || m.family != AF_INET)
            continue;
        if (m.dst.size() < 4 || m.lladdr.size() < 6)
            continue;
        uint32_t ip = 0;
        std::memcpy(&ip, m.dst.data(), 4);
        char ip_text[16];
        char mac_text[MAC_DASH_TEXT_SIZE];
        ipv4_text(ip, ip_text, sizeof(ip_text));
        mac_to_dash_text(m.lladdr.data(), mac_text);
        void *cookie = reply_open_table();
        reply_add_string("ip", ip_text);
        reply_add_string("mac", mac_text);
        blob_nest_end(&reply_buf, cookie);
    }
    std::free(buf);
    return 0;
}

// --- the handlers ---------------------------------------------------------

LR_UBUS_HANDLER(get_ARP)
{
    (void)obj, (void)method, (void)msg;
    if (compose_get_arp() != 0)
        return -1; // the caller sees a bus error and no data
    send_reply_buf(ctx, req);
    return 0;
}

LR_UBUS_HANDLER(get)
{
    (void)obj, (void)method;
    if (compose_get(msg))
        send_reply_buf(ctx, req);
    return 0;
}

LR_UBUS_HANDLER(history_list_get)
{
    (void)obj, (void)method;
    if (compose_history_list_get(msg))
        send_reply_buf(ctx, req);
    return 0;
}

LR_UBUS_HANDLER(history_list_num_get)
{
    (void)obj, (void)method;
    if (compose_history_list_num_get(msg))
        send_reply_buf(ctx, req);
    return 0;
}

LR_UBUS_HANDLER(history_dev_info_list_get)
{
    (void)ctx, (void)obj, (void)req, (void)method;
    compose_history_dev_info_list_get(msg);
    return 0;
}
