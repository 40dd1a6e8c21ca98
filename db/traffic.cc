#include "db/traffic.h"

#include <cjson/cJSON.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

#include "core/locks.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/uci_util.h"
#include "db/db_util.h"
#include "registry/run_command.h"

namespace
{

struct json_deleter {
    void operator()(cJSON *j) const noexcept
    {
        cJSON_Delete(j);
    }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

struct file_closer {
    void operator()(FILE *f) const noexcept
    {
        std::fclose(f);
    }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// One answer of a bus service, in a heap buffer of UBUS_REPLY_BUF bytes.
struct ubus_answer {
    std::unique_ptr<char[]> text{new (std::nothrow) char[UBUS_REPLY_BUF]};
    int len = -1;
};

// Runs `ubus call <object> <method> [<message>]` without a shell. The
// answer's length, below 1 when the service gave nothing.
bool ubus_call(ubus_answer &out, const char *object, const char *method,
               const char *message = nullptr) noexcept
{
    if (!out.text)
        return false;
    const char *argv[] = {"ubus", "call", object, method, message, nullptr};
    out.len = run_command_capture(argv, out.text.get(), UBUS_REPLY_BUF, UBUS_CALL_TIMEOUT_MS);
    return out.len >= 1;
}

int32_t int_of(const cJSON *obj, const char *key) noexcept
{
    const cJSON *item = cJSON_GetObjectItem(obj, key);
    if (!cJSON_IsNumber(item))
        return 0;
    double v = item->valuedouble;
    if (v > INT32_MAX)
        return INT32_MAX;
    if (v < INT32_MIN)
        return INT32_MIN;
    return static_cast<int32_t>(v);
}

void mac_of(const cJSON *item, uint8_t out[6]) noexcept
{
    if (cJSON_IsString(item))
        mac_text_to_bytes17(item->valuestring, out);
}

bool mac_set(const cJSON *item) noexcept
{
    return cJSON_IsString(item) && mac_text_is_set(item->valuestring) == 1;
}

void no_rows(void **rows, int *count) noexcept
{
    if (rows)
        *rows = nullptr;
    if (count)
        *count = 0;
}

} // namespace

int parse_tfstats(const char *text, size_t len, tfstats_entry **entries, int *count, bool workaround) noexcept
{
    json_ptr root(text ? cJSON_ParseWithLength(text, len) : nullptr);
    if (!root)
        return -1;
    const cJSON *total = cJSON_GetObjectItem(root.get(), "total");
    const cJSON *list = cJSON_GetObjectItem(root.get(), "tfslist");
    int rows = cJSON_IsNumber(total) && total->valuedouble > 0
                   ? static_cast<int>(std::min<double>(total->valuedouble, TFSTATS_ROWS_MAX))
                   : 0;
    // Room for `total` rows; a list longer than its total is cut there.
    auto *out = static_cast<tfstats_entry *>(std::calloc(rows > 0 ? rows : 1, sizeof(tfstats_entry)));
    if (!out)
        return -1;
    int filled = 0;
    if (cJSON_IsArray(list)) {
        for (const cJSON *el = list->child; el && filled < rows; el = el->next) {
            tfstats_entry &e = out[filled++];
            mac_of(cJSON_GetObjectItem(el, "mac"), e.mac);
            if (workaround) {
                e.retx_byte = int_of(el, "upload_bytes");
                e.rerx_byte = int_of(el, "download_bytes");
            } else {
                e.total_byte = int_of(el, "total_byte");
                e.retx_byte = int_of(el, "retx_byte");
                e.rerx_byte = int_of(el, "rerx_byte");
            }
        }
    }
    *entries = out;
    *count = filled;
    return 0;
}

int parse_hi_bw_occ(const char *text, size_t len, uint8_t **macs, int *count) noexcept
{
    json_ptr root(text ? cJSON_ParseWithLength(text, len) : nullptr);
    const cJSON *devices = root ? cJSON_GetObjectItem(root.get(), "devices") : nullptr;
    if (!cJSON_IsArray(devices)) {
        LR_LOG(2, "[lr error] cJSON_Parse");
        return 0;
    }
    int n = cJSON_GetArraySize(devices);
    if (n <= 0)
        return 0;
    auto *out = static_cast<uint8_t *>(std::calloc(static_cast<size_t>(n), 6));
    if (!out)
        return -1;
    int i = 0;
    for (const cJSON *el = devices->child; el && i < n; el = el->next)
        mac_of(el, out + 6 * i++);
    *macs = out;
    *count = i;
    return 0;
}

int parse_mesh_agent(const char *text, size_t len, uint8_t **macs, int *count) noexcept
{
    static const char *const radio_keys[] = {"mac_24g", "mac_5g", "mac_5g2", "mac_6g"};
    json_ptr root(text ? cJSON_ParseWithLength(text, len) : nullptr);
    const cJSON *list = root ? cJSON_GetObjectItem(root.get(), "mesh_dev_list") : nullptr;
    if (!cJSON_IsArray(list)) {
        LR_LOG(2, "[lr error] cJSON_Parse");
        return -1;
    }
    // Pass one counts, pass two fills.
    size_t n = 0;
    uint8_t *out = nullptr;
    for (int pass = 0; pass < 2; pass++) {
        size_t at = 0;
        for (const cJSON *el = list->child; el; el = el->next) {
            const cJSON *device = cJSON_GetObjectItem(el, "device");
            if (!cJSON_IsObject(device))
                continue;
            const cJSON *mac = cJSON_GetObjectItem(device, "mac");
            if (mac) {
                if (out && at < n)
                    mac_of(mac, out + 6 * at);
                at++;
            }
            for (const char *key : radio_keys) {
                const cJSON *radio = cJSON_GetObjectItem(device, key);
                if (!mac_set(radio))
                    continue;
                if (out && at < n)
                    mac_of(radio, out + 6 * at);
                at++;
            }
        }
        if (pass == 0) {
            n = at;
            out = static_cast<uint8_t *>(std::calloc(n > 0 ? n : 1, 6));
            if (!out) {
                lr_write_line(STDERR_FILENO, "Memory allocation failed\n");
                return -1;
            }
        }
    }
    *macs = out;
    *count = static_cast<int>(n);
    return 0;
}

int parse_seg_over_limit(const char *text, size_t len) noexcept
{
    json_ptr root(text ? cJSON_ParseWithLength(text, len) : nullptr);
    const cJSON *data = root ? cJSON_GetObjectItem(root.get(), "data") : nullptr;
    const cJSON *first = cJSON_IsArray(data) ? cJSON_GetArrayItem(data, 0) : nullptr;
    const cJSON *ups = first ? cJSON_GetObjectItem(first, "ups") : nullptr;
    const cJSON *downs = first ? cJSON_GetObjectItem(first, "downs") : nullptr;
    if (!cJSON_IsNumber(ups) || !cJSON_IsNumber(downs))
        return 0;
    return ups->valuedouble + downs->valuedouble > static_cast<double>(TFSTATS_SEG_LIMIT) ? 1 : 0;
}

int ubus_get_tfstats(tfstats_entry **entries, int *count) noexcept
{
    no_rows(reinterpret_cast<void **>(entries), count);
    if (!entries || !count)
        return -1;
    LR_LOG(7, "[lr] begin to get_tfstats");
    ubus_answer a;
    if (!ubus_call(a, "tfstats", "get")) {
        LR_LOG(2, "[lr error] ubus call tfstats get exec error");
        return -1;
    }
    if (parse_tfstats(a.text.get(), static_cast<size_t>(a.len), entries, count, false) != 0) {
        LR_LOG(2, "[lr error] ubus call tfstats get cjson parse error");
        return -1;
    }
    LR_LOG(7, "[lr] get_tfstats cnt = %d", *count);
    return 0;
}

int ubus_get_workaround_tfstats(tfstats_entry **wlan_entries, tfstats_entry **lan_entries, int *wlan_count,
                                int *lan_count) noexcept
{
    no_rows(reinterpret_cast<void **>(wlan_entries), wlan_count);
    no_rows(reinterpret_cast<void **>(lan_entries), lan_count);
    if (!wlan_entries || !lan_entries || !wlan_count || !lan_count)
        return -1;
    ubus_answer wlan, lan;
    // Both answers are in before either is parsed.
    if (!ubus_call(wlan, "tfstats", "get_wlan") || !ubus_call(lan, "tfstats", "get_lan"))
        return -1;
    if (parse_tfstats(wlan.text.get(), static_cast<size_t>(wlan.len), wlan_entries, wlan_count, true) != 0)
        return -1;
    if (parse_tfstats(lan.text.get(), static_cast<size_t>(lan.len), lan_entries, lan_count, true) != 0) {
        std::free(*wlan_entries);
        no_rows(reinterpret_cast<void **>(wlan_entries), wlan_count);
        return -1;
    }
    return 0;
}

int ubus_get_hi_bw_occ_macs(uint8_t **macs, int *count) noexcept
{
    no_rows(reinterpret_cast<void **>(macs), count);
    if (!macs || !count)
        return -1;
    ubus_answer a;
    if (!ubus_call(a, "tfstats", "hi_bw_occ_get")) {
        LR_LOG(2, "[lr error] ubus_get_hi_bw_occ_macs exec error");
        return -1;
    }
    return parse_hi_bw_occ(a.text.get(), static_cast<size_t>(a.len), macs, count);
}

int ubus_get_mesh_agent(uint8_t **macs, int *count) noexcept
{
    no_rows(reinterpret_cast<void **>(macs), count);
    if (!macs || !count)
        return -1;
    ubus_answer a;
    if (!ubus_call(a, "meshd", "mesh_dev_list", "{\"mesh_type\":2, \"exclude_clients\":1}")) {
        LR_LOG(2, "[lr error] ubus_get_mesh_agent exec error");
        return -1;
    }
    return parse_mesh_agent(a.text.get(), static_cast<size_t>(a.len), macs, count);
}

int tfstats_seg_over_limit(const char *ip, const char *type) noexcept
{
    if (!ip || !type)
        return 0;
    // The message is built with cJSON, so no text of the caller can break it.
    json_ptr msg(cJSON_CreateObject());
    if (!msg || !cJSON_AddStringToObject(msg.get(), "ip", ip) ||
        !cJSON_AddStringToObject(msg.get(), "type", type))
        return 0;
    char *text = cJSON_PrintUnformatted(msg.get());
    if (!text)
        return 0;
    ubus_answer a;
    bool ok = ubus_call(a, "tfstats", "seg_get", text);
    cJSON_free(text);
    return ok ? parse_seg_over_limit(a.text.get(), static_cast<size_t>(a.len)) : 0;
}

int get_gaming_port_name(char *name_out, size_t size) noexcept
{
    if (!name_out || size == 0)
        return -1;
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(UCI_CONFIG_DIR);
    uci_package *pkg = nullptr;
    if (!ctx || uci_load(ctx.get(), "switch", &pkg) != UCI_OK || !pkg)
        return -1;
    int rc = -1;
    uci_section *gaming = uci_lookup_section(ctx.get(), pkg, "gaming");
    const char *port = gaming ? uci_lookup_option_string(ctx.get(), gaming, "switch_port") : nullptr;
    uci_section *named = port ? uci_lookup_section(ctx.get(), pkg, port) : nullptr;
    const char *ifname = named ? uci_lookup_option_string(ctx.get(), named, "ifname") : nullptr;
    if (!gaming || (port && !named))
        LR_LOG(7, "[lr error] no gaming section \n");
    else if (!port)
        LR_LOG(7, "[lr error] no gaming port \n");
    else if (!ifname)
        LR_LOG(7, "[lr error] no gaming port name \n");
    else {
        snprintf(name_out, size, "%s", ifname);
        rc = 0;
    }
    uci_unload(ctx.get(), pkg);
    return rc;
}

int get_port_no_by_name(const char *ifname, int *port_no) noexcept
{
    if (!ifname || !port_no || std::strchr(ifname, '/') || std::strstr(ifname, ".."))
        return -1;
    char path[128];
    snprintf(path, sizeof(path), "/sys/class/net/%s/brport/port_no", ifname);
    file_ptr f(std::fopen(path, "r"));
    unsigned v = 0;
    if (!f || std::fscanf(f.get(), "%x", &v) != 1) {
        LR_LOG(2, "[lr error] can't get port_no");
        return -1;
    }
    *port_no = static_cast<int>(v);
    return 0;
}

int get_br_fdb(br_fdb_record **records, int *count) noexcept
{
    no_rows(reinterpret_cast<void **>(records), count);
    if (!records || !count)
        return -1;
    file_ptr f(std::fopen(BR_FORWARD_FILE, "r"));
    if (!f) {
        LR_LOG(3, "[lr error] can't open br_filepath");
        return -1;
    }
    auto *out = static_cast<br_fdb_record *>(std::calloc(BR_FDB_RECORDS, sizeof(br_fdb_record)));
    if (!out) {
        LR_LOG(3, "[lr error] can't malloc fdb_entry");
        return -1;
    }
    size_t n = std::fread(out, sizeof(br_fdb_record), BR_FDB_RECORDS, f.get());
    if (n == 0) {
        std::free(out);
        LR_LOG(3, "[lr error] can't read fdb_entry");
        return -1;
    }
    *records = out;
    *count = static_cast<int>(n);
    return 0;
}

int get_gaming_lan_macs(uint8_t **macs, int *count) noexcept
{
    no_rows(reinterpret_cast<void **>(macs), count);
    if (!macs || !count)
        return -1;
    char ifname[64] = {};
    int port = 0;
    if (get_gaming_port_name(ifname, sizeof(ifname)) != 0 || get_port_no_by_name(ifname, &port) != 0)
        return -1;
    br_fdb_record *records = nullptr;
    int n = 0;
    if (get_br_fdb(&records, &n) != 0)
        return -1;
    int found = 0;
    for (int i = 0; i < n; i++)
        found += records[i].port_no == static_cast<uint8_t>(port);
    auto *out = static_cast<uint8_t *>(std::calloc(found > 0 ? found : 1, 6));
    if (!out) {
        std::free(records);
        return -1;
    }
    int at = 0;
    for (int i = 0; i < n; i++) {
        if (records[i].port_no == static_cast<uint8_t>(port))
            std::memcpy(out + 6 * at++, records[i].mac, 6);
    }
    std::free(records);
    *macs = out;
    *count = found;
    return 0;
}

int parse_mesh_access(const char *text, size_t len, mesh_access_entry **entries, int *count) noexcept
{
    json_ptr root(text ? cJSON_ParseWithLength(text, len) : nullptr);
    if (!cJSON_IsArray(root.get())) {
        lr_write_line(STDERR_FILENO, "Failed to parse JSON\n");
        return -1;
    }
    int n = cJSON_GetArraySize(root.get());
    if (n <= 0)
        return 0;
    auto *out =
        static_cast<mesh_access_entry *>(std::calloc(static_cast<size_t>(n), sizeof(mesh_access_entry)));
    if (!out) {
        lr_write_line(STDERR_FILENO, "Failed to malloc\n");
        return -1;
    }
    int at = 0;
    for (const cJSON *el = root->child; el && at < n; el = el->next, at++) {
        mesh_access_entry &e = out[at];
        mac_of(cJSON_GetObjectItem(el, "mac"), e.mac);
        e.access_time = int_of(el, "access_time");
        e.access_uptime = int_of(el, "access_uptime");
    }
    *entries = out;
    *count = at;
    return 0;
}

int get_mesh_access(mesh_access_entry **entries, int *count) noexcept
{
    no_rows(reinterpret_cast<void **>(entries), count);
    if (!entries || !count)
        return -1;
    file_ptr f(std::fopen(MESH_ACCESS_FILE, "rb"));
    if (!f) {
        lr_write_line(STDERR_FILENO, "Failed to open json file \n");
        return -1;
    }
    std::unique_ptr<char[]> text(new (std::nothrow) char[MESH_ACCESS_FILE_MAX]);
    if (!text) {
        lr_write_line(STDERR_FILENO, "Memory allocation failed\n");
        return -1;
    }
    size_t len = std::fread(text.get(), 1, MESH_ACCESS_FILE_MAX, f.get());
    return parse_mesh_access(text.get(), len, entries, count);
}
