// The small methods: `update`, `lan_update` and `req` of `mac_oui`, and the
// policies of every method.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "bus/mac_text.h"
#include "bus/ubus_handlers.h"
#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/text.h"
#include "db/lookups.h"
#include "db/mac_oui_lib.h"
#include "registry/compare.h"
#include "registry/rwlock_guard.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"

namespace
{

constexpr blobmsg_policy int32_key(const char *name) noexcept
{
    return {.name = name, .type = BLOBMSG_TYPE_INT32};
}

constexpr blobmsg_policy string_key(const char *name) noexcept
{
    return {.name = name, .type = BLOBMSG_TYPE_STRING};
}

} // namespace

const blobmsg_policy update_policy[UPDATE_ATTR_MAX] = {
    /* UPDATE_DELAY */ int32_key("delay"),
    /* UPDATE_INTERVAL */ int32_key("interval"),
    /* UPDATE_PRINT_NEIGH */ int32_key("print_neigh"),
    /* UPDATE_REPORT_NEIGH */ string_key("report_neigh"),
};
const blobmsg_policy get_policy[GET_ATTR_MAX] = {
    /* GET_REQUEST_TYPE */ int32_key("request_type"),
    /* GET_IPV4_ADDR */ int32_key("ipv4_addr"),
    /* GET_IPV6_BYTE1 */ int32_key("ipv6_byte1"),
    /* GET_IPV6_BYTE2 */ int32_key("ipv6_byte2"),
    /* GET_IPV6_BYTE3 */ int32_key("ipv6_byte3"),
    /* GET_IPV6_BYTE4 */ int32_key("ipv6_byte4"),
};
const blobmsg_policy hist_policy[HIST_ATTR_MAX] = {
    /* HIST_REQUEST_TYPE */ int32_key("request_type"),
};
const blobmsg_policy dev_info_policy[DEV_INFO_ATTR_MAX] = {
    /* DEV_INFO_AL_MAC */ string_key("al_mac"),
    /* DEV_INFO_INTERFACE_LIST */ string_key("interface_list"),
};
const blobmsg_policy dev_type_policy[DEV_TYPE_ATTR_MAX] = {
    /* DEV_TYPE_DEVICE_TYPE */ string_key("device_type"),
    /* DEV_TYPE_DEVICE_MAC */ string_key("device_mac"),
};
const blobmsg_policy nickname_policy[NICKNAME_ATTR_MAX] = {
    /* NICKNAME_NICKNAME */ string_key("nickname"),
    /* NICKNAME_DEVICE_MAC */ string_key("device_mac"),
};
const blobmsg_policy device_mac_policy[DEVICE_MAC_ATTR_MAX] = {
    /* DEVICE_MAC */ string_key("device_mac"),
};
const blobmsg_policy auth_state_policy[AUTH_STATE_ATTR_MAX] = {
    /* AUTH_STATE */ int32_key("auth_state"),
};
const blobmsg_policy hist_new_policy[HIST_NEW_ATTR_MAX] = {
    /* HIST_NEW_ONLINE_TYPE */ int32_key("online_type"),
    /* HIST_NEW_V6 */ int32_key("v6"),
    /* HIST_NEW_ACCESS_LIMIT */ int32_key("access_limit"),
    /* HIST_NEW_SPEED_LIMIT */ int32_key("speed_limit"),
    /* HIST_NEW_QOS */ int32_key("qos"),
    /* HIST_NEW_TFSTATS */ int32_key("tfstats"),
    /* HIST_NEW_WIRELESS */ int32_key("wireless"),
    /* HIST_NEW_QOS_SCHEDULE */ int32_key("qos_schedule"),
    /* HIST_NEW_HIGH_BANDWIDTH_OCCUPANCY */ int32_key("high_bandwidth_occupancy"),
    /* HIST_NEW_LANROSTER_FILE */ int32_key("lanroster_file"),
};
const blobmsg_policy mac_oui_policy[MAC_OUI_ATTR_MAX] = {
    /* MAC_OUI_MAC */ string_key("mac"),
};
static_assert(std::size(update_policy) == UPDATE_ATTR_MAX);
static_assert(std::size(hist_new_policy) == HIST_NEW_ATTR_MAX);

uloop_timeout update_timer = {};
int32_t update_interval = 14000;

int parse_update_request(blob_attr *msg, blob_attr **tb) noexcept
{
    if (blob_len(msg) == 0) {
        // A bare `ubus call lanroster update` asks for a compare pass.
        for (int i = 0; i < UPDATE_ATTR_MAX; ++i)
            tb[i] = nullptr;
        return 0;
    }
    return blobmsg_parse(update_policy, UPDATE_ATTR_MAX, tb, blob_data(msg), blob_len(msg));
}

namespace
{

// One table per remembered neighbour: MAC in lower case, address, active.
void dump_arp_items() noexcept
{
    for (const struct arp_item &row : arp_item) {
        if (row.ip == 0)
            continue;
        const auto *ip = reinterpret_cast<const uint8_t *>(&row.ip);
        char mac[18];
        char addr[16];
        std::snprintf(mac, sizeof(mac), "%02x-%02x-%02x-%02x-%02x-%02x", row.mac[0], row.mac[1], row.mac[2],
                      row.mac[3], row.mac[4], row.mac[5]);
        std::snprintf(addr, sizeof(addr), "%d.%d.%d.%d", ip[0], ip[1], ip[2], ip[3]);
        void *cookie = reply_open_table();
        reply_add_string("mac", mac);
        reply_add_string("ip", addr);
        reply_add_string("active", row.active != 0 ? "1" : "0");
        blob_nest_end(&reply_buf, cookie);
    }
}

bool is_blank(char c) noexcept
{
    return c == ' ' || c == '\t';
}

// A neighbour told by hand: "aa:bb:cc:dd:ee:ff 192.168.0.9". True when its
// row was written, false when the text is refused or the row holds it already.
bool report_neighbour(const char *text) noexcept
{
    char buf[64];
    copy_str(buf, text, 63);
    char *cut = buf;
    while (*cut && !is_blank(*cut))
        ++cut;
    if (!*cut)
        return false;
    *cut++ = '\0';
    while (is_blank(*cut))
        ++cut;
    uint8_t mac[6];
    in_addr addr{};
    int fields = std::sscanf(buf, "%02hhx:%02hhx:%02hhx:%02hhx:%02hhx:%02hhx", &mac[0], &mac[1], &mac[2],
                             &mac[3], &mac[4], &mac[5]);
    if (fields != 6 || inet_aton(cut, &addr) == 0 || addr.s_addr == 0)
        return false;
    struct arp_item &row = arp_row(addr.s_addr);
    if (std::memcmp(row.mac, mac, 6) == 0)
        return false;
    set_arp_row(addr.s_addr, mac);
    return true;
}

} // namespace

namespace
{

// Steps of `update` that read or write the remembered neighbours, with the
// table's read lock held so that no pass rewrites a row meanwhile (the other
// holders of the read lock never touch these rows). True when the compare
// pass is to run.
bool neigh_steps_locked(ubus_context *ctx, ubus_request_data *req, bool print, const char *report,
                        bool asked) noexcept
{
    if (print) {
        blob_buf_init(&reply_buf, 0);
        dump_arp_items();
        send_reply_buf(ctx, req);
        asked = true;
    }
    if (report)
        return report_neighbour(report);
    return !asked;
}

// While a pass holds the table (up to about 8 s), an `update` that needs the
// remembered neighbours waits for it off the loop: its request is deferred
// and retried every few milliseconds. Beyond a handful waiting, a call is
// turned away as a busy table turns away the compare pass.
constexpr int NEIGH_RETRY_MS = 20;
constexpr int NEIGH_WAITING_MAX = 8;

struct neigh_waiting {
    bool used;
    bool print;
    bool has_report;
    bool asked;
    char report[64];
    ubus_request_data req;
};
neigh_waiting neigh_queue[NEIGH_WAITING_MAX];

void neigh_retry_cb(uloop_timeout *t) noexcept;
uloop_timeout neigh_retry_timer = [] {
    uloop_timeout t{};
    t.cb = neigh_retry_cb;
    return t;
}();

void neigh_retry_cb(uloop_timeout *t) noexcept
{
    bool left = false;
    for (neigh_waiting &w : neigh_queue) {
        if (!w.used)
            continue;
        bool run_compare;
        {
            rwlock_try_read_guard table(client_table_lock);
            if (!table.held()) {
                left = true;
                continue;
            }
            run_compare = neigh_steps_locked(ubus_ctx, &w.req, w.print, w.has_report ? w.report : nullptr,
                                             w.asked);
        }
        ubus_complete_deferred_request(ubus_ctx, &w.req, 0);
        w.used = false;
        if (run_compare)
            compare_scan_list();
    }
    if (left)
        uloop_timeout_set(t, NEIGH_RETRY_MS);
}

void defer_neigh_steps(ubus_context *ctx, ubus_request_data *req, bool print, const char *report,
                       bool asked) noexcept
{
    for (neigh_waiting &w : neigh_queue) {
        if (w.used)
            continue;
        w = neigh_waiting{};
        w.used = true;
        w.print = print;
        w.asked = asked;
        w.has_report = report != nullptr;
        if (report)
            copy_str(w.report, report, 63);
        ubus_defer_request(ctx, req, &w.req);
        if (!neigh_retry_timer.pending)
            uloop_timeout_set(&neigh_retry_timer, NEIGH_RETRY_MS);
        return;
    }
}

} // namespace

LR_UBUS_HANDLER(update)
{
    (void)obj;
    (void)method;
    blob_attr *tb[UPDATE_ATTR_MAX];
    if (parse_update_request(msg, tb) != 0)
        return 0;
    bool asked = false;
    if (tb[UPDATE_DELAY]) {
        uloop_timeout_set(&update_timer, static_cast<int32_t>(blobmsg_get_u32(tb[UPDATE_DELAY])));
        asked = true;
    }
    if (tb[UPDATE_INTERVAL]) {
        update_interval = static_cast<int32_t>(blobmsg_get_u32(tb[UPDATE_INTERVAL]));
        asked = true;
    }
    bool print = tb[UPDATE_PRINT_NEIGH] && blobmsg_get_u32(tb[UPDATE_PRINT_NEIGH]) != 0;
    const char *report = tb[UPDATE_REPORT_NEIGH] ? blobmsg_get_string(tb[UPDATE_REPORT_NEIGH]) : nullptr;
    if (!print && !report) {
        if (!asked)
            compare_scan_list();
        return 0;
    }
    bool run_compare;
    {
        rwlock_try_read_guard table(client_table_lock);
        if (!table.held()) {
            defer_neigh_steps(ctx, req, print, report, asked);
            return 0;
        }
        run_compare = neigh_steps_locked(ctx, req, print, report, asked);
    }
    if (run_compare)
        compare_scan_list();
    return 0;
}

LR_UBUS_HANDLER(lan_update)
{
    (void)ctx, (void)obj, (void)req, (void)method, (void)msg;
    update_lan_info_by_uci();
    return 0;
}

LR_UBUS_HANDLER(mac_oui_ubus_query)
{
    (void)obj;
    (void)method;
    LR_LOG(7, "mac_oui_ubus_query");
    blob_buf_init(&reply_buf, 0);
    blob_attr *tb[MAC_OUI_ATTR_MAX];
    const char *text = nullptr;
    if (blobmsg_parse(mac_oui_policy, MAC_OUI_ATTR_MAX, tb, blob_data(msg), blob_len(msg)) != 0) {
        reply_add_u32("err_code", -1);
    } else if (!tb[MAC_OUI_MAC]) {
        LR_LOG(2, "[lr_error] No MAC input");
        reply_add_u32("err_code", -1);
    } else if (text = blobmsg_get_string(tb[MAC_OUI_MAC]); !text || mac_oui_check_mac(text) == 0) {
        LR_LOG(2, "[lr_error] Invalid MAC input");
        reply_add_u32("err_code", -1);
    } else {
        // Any separator is accepted as long as it is used throughout.
        const char *separator = std::strlen(text) == 12 ? nullptr : text + 2;
        uint8_t mac[6] = {};
        macstr2num(text, mac, separator);
        char vendor[VENDOR_TEXT_SIZE] = "";
        bool found = query_name_by_mac_oui_v2(mac, vendor) == 0;
        reply_add_string("vendor", found ? vendor : "");
        reply_add_u32("err_code", found ? 0 : 1);
    }
    send_reply_buf(ctx, req);
    return 0;
}
