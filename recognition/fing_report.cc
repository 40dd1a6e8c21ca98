#include "recognition/fing_report.h"

#include <cctype>
#include <cerrno>
#include <cjson/cJSON.h>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glob.h>
#include <memory>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/locks.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/uci_util.h"
#include "recognition/fing_state.h"
#include "recognition/new_client_notify.h"
#include "registry/client_node.h"
#include "registry/history_list_mgmt.h"
#include "registry/run_command.h"

std::atomic<int32_t> sysmode_cache{-1};
int32_t wait_cloud_time = 2;
time_t last_query_fail_time = 0;
char device_id[64] = {};
int32_t collect_counter = 0;
int32_t resync_counter = 0;
int32_t http_counter = 0;

void fing_report_message(const char *func, int line, const char *fmt, ...) noexcept
{
    char text[512];
    int n = snprintf(text, sizeof(text), "[new-client-access-report]: \033[1m[ %s ] %03d: ", func, line);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(text))
        return;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text + n, sizeof(text) - static_cast<size_t>(n), fmt, ap);
    va_end(ap);
    size_t len = strnlen(text, sizeof(text));
    snprintf(text + len, sizeof(text) - len, "\033[0m");
    lr_write_line(STDOUT_FILENO, text);
}

namespace
{

#define REPORT_MSG(...) fing_report_message(__func__, __LINE__, __VA_ARGS__)

struct file_closer {
    void operator()(FILE *f) const noexcept
    {
        std::fclose(f);
    }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct json_deleter {
    void operator()(cJSON *j) const noexcept
    {
        cJSON_Delete(j);
    }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

void remove_if_exists(const char *path) noexcept
{
    if (access(path, F_OK) == 0)
        unlink(path);
}

// A value of the client's state section, "" when it has none.
template <size_t N> void state_value(const char *section, const char *option, char (&out)[N]) noexcept
{
    out[0] = '\0';
    if (fing_state_get(FING_PACKAGE, section, option, out, N) != 0)
        out[0] = '\0';
}

bool usable(const char *text) noexcept
{
    return text[0] != '\0' && std::strcmp(text, "null") != 0;
}

// One option of a package under "/etc/config", at most `size` - 1 bytes;
// false when the package, section or option is missing.
bool config_option(const char *package, const char *section, const char *option, char *out,
                   size_t size) noexcept
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(UCI_CONFIG_DIR);
    if (!ctx)
        return false;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), package, &pkg) != UCI_OK || !pkg)
        return false;
    bool found = false;
    if (uci_section *s = uci_lookup_section(ctx.get(), pkg, section)) {
        if (const char *v = uci_lookup_option_string(ctx.get(), s, option)) {
            snprintf(out, size, "%s", v);
            found = true;
        }
    }
    uci_unload(ctx.get(), pkg);
    return found;
}

bool backoff_over(time_t now) noexcept
{
    return last_query_fail_time == 0 || now - last_query_fail_time >= wait_cloud_time;
}

// "boardprobe DEV_ID": its first line, cut at 40 characters.
int deviceId_get() noexcept
{
    const char *argv[] = {"boardprobe", "DEV_ID", nullptr};
    char out[64] = {};
    int n = run_command_capture(argv, out, sizeof(out) - 1, DEVICE_ID_TIMEOUT_MS);
    if (n < 0) {
        REPORT_MSG("Failed to popen %s.", "boardprobe DEV_ID");
        return -1;
    }
    out[strcspn(out, "\r\n")] = '\0';
    if (out[0] == '\0') {
        REPORT_MSG("Failed to get device id.");
        return -1;
    }
    std::memset(device_id, 0, sizeof(device_id));
    snprintf(device_id, sizeof(device_id), "%s", out);
    device_id[40] = '\0';
    return 0;
}

bool add_string(cJSON *obj, const char *key, const char *value) noexcept
{
    cJSON *s = cJSON_CreateString(value);
    if (!s)
        return false;
    cJSON_AddItemToObject(obj, key, s);
    return true;
}

// The client object of one section of the state store; nullptr when memory
// ran out. `sent_agent` says whether a user agent went in.
cJSON *client_object(const char *section, const char *dashed, bool &sent_agent) noexcept
{
    char dhcp_hostname[128], mdns_name[128], netbios_name[128], netbios_domain[128], vendor[128];
    char params[512], agent[1024];
    state_value(section, "dhcp_hostname", dhcp_hostname);
    state_value(section, "mdns_name", mdns_name);
    state_value(section, "netbios_name", netbios_name);
    state_value(section, "netbios_domain", netbios_domain);
    state_value(section, "dhcp_vendor", vendor);
    state_value(section, "dhcp_params", params);
    state_value(section, "http_user_agent", agent);
    bool has_dhcp_host = fing_text_clean(dhcp_hostname) && usable(dhcp_hostname);
    bool has_mdns = fing_text_clean(mdns_name) == 1;
    bool has_netbios = fing_text_clean(netbios_name) == 1;
    bool has_domain = fing_text_clean(netbios_domain) == 1;
    const char *hostname = has_dhcp_host                         ? dhcp_hostname
                           : has_mdns && usable(mdns_name)       ? mdns_name
                           : has_netbios && usable(netbios_name) ? netbios_name
                                                                 : nullptr;
    json_ptr client(cJSON_CreateObject());
    if (!client || !add_string(client.get(), "mac", dashed))
        return nullptr;
    if (hostname && !add_string(client.get(), "hostname", hostname))
        return nullptr;
    if (has_dhcp_host || usable(vendor) || params[0]) {
        cJSON *dhcp = cJSON_CreateObject();
        if (!dhcp)
            return nullptr;
        cJSON_AddItemToObject(client.get(), "dhcp", dhcp);
        if ((has_dhcp_host && !add_string(dhcp, "dhcp_hostname", dhcp_hostname)) ||
            (usable(vendor) && !add_string(dhcp, "vendor", vendor)) ||
            (params[0] && !add_string(dhcp, "params", params)))
            return nullptr;
    }
    if (has_netbios || has_domain) {
        cJSON *nb = cJSON_CreateObject();
        if (!nb)
            return nullptr;
        cJSON_AddItemToObject(client.get(), "netBios", nb);
        if ((has_netbios && !add_string(nb, "name", netbios_name)) ||
            (has_domain && !add_string(nb, "domain", netbios_domain)))
            return nullptr;
    }
    if (has_mdns) {
        cJSON *bonjour = cJSON_CreateObject();
        if (!bonjour)
            return nullptr;
        cJSON_AddItemToObject(client.get(), "bonjour", bonjour);
        if (!add_string(bonjour, "name", mdns_name))
            return nullptr;
        cJSON *services = cJSON_CreateArray();
        if (!services)
            return nullptr;
        cJSON_AddItemToObject(bonjour, "services", services);
        cJSON *service = cJSON_CreateObject();
        if (!service)
            return nullptr;
        cJSON_AddItemToArray(services, service);
        char local[136];
        snprintf(local, sizeof(local), "%s.local", mdns_name);
        if (!add_string(service, "name", local))
            return nullptr;
    }
    sent_agent = false;
    if (usable(agent)) {
        cJSON *hua = cJSON_CreateArray();
        if (!hua)
            return nullptr;
        cJSON_AddItemToObject(client.get(), "hua", hua);
        cJSON *entry = cJSON_CreateObject();
        if (!entry)
            return nullptr;
        cJSON_AddItemToArray(hua, entry);
        if (!add_string(entry, "userAgent", agent))
            return nullptr;
        sent_agent = true;
    }
    return client.release();
}

// Whether a line of a MAC file is twelve hex digits and a newline; the
// twelve go to `section`.
bool mac_line(const char *line, char (&section)[13]) noexcept
{
    if (std::strlen(line) != 13 || line[12] != '\n')
        return false;
    for (int i = 0; i < 12; i++) {
        if (!isxdigit(static_cast<unsigned char>(line[i])))
            return false;
    }
    std::memcpy(section, line, 12);
    section[12] = '\0';
    return fing_state_name_ok(section);
}

// A fresh last_query_time keeps the client back; an old one is dropped.
bool asked_lately(const char *section, time_t now) noexcept
{
    char stamp[32];
    state_value(section, "last_query_time", stamp);
    if (!stamp[0])
        return false;
    long when = std::strtol(stamp, nullptr, 10);
    if (now - when < FING_ASK_LATER_S)
        return true;
    char target[64];
    snprintf(target, sizeof(target), "%s.%s.last_query_time", FING_PACKAGE, section);
    const char *argv[] = {"uci", "-P", FING_STATE_DIR, "revert", target, nullptr};
    run_command_wait(argv);
    return false;
}

// Reads the whole reply, bounded; false when it cannot be had.
bool read_reply(const char *path, char *&text, size_t &len, bool &too_big) noexcept
{
    too_big = false;
    file_ptr f(std::fopen(path, "rb"));
    if (!f)
        return false;
    struct stat st {
    };
    if (fstat(fileno(f.get()), &st) != 0)
        return false;
    if (st.st_size < 0 || static_cast<size_t>(st.st_size) > FING_REPLY_MAX) {
        too_big = true;
        return true;
    }
    size_t size = static_cast<size_t>(st.st_size);
    text = static_cast<char *>(std::malloc(size + 1));
    if (!text)
        return false;
    len = std::fread(text, 1, size, f.get());
    text[len] = '\0';
    return true;
}

void mark_params_error(const char *path) noexcept
{
    file_ptr f(std::fopen(path, "r"));
    char line[20] = {};
    if (!f || !std::fgets(line, sizeof(line), f.get()))
        return;
    line[12] = '\0';
    // A client without names has no section yet; the mark must stay.
    if (std::strlen(line) == 12 && fing_state_name_ok(line) && fing_state_ensure(FING_PACKAGE, line) >= 0)
        fing_state_set(FING_PACKAGE, line, "params_error", "1");
}

// The text of a string member, or "unknown" for none or an empty one. Cleaned
// so that no control byte reaches the history package.
void text_or_unknown(const cJSON *obj, const char *key, char (&out)[64]) noexcept
{
    const cJSON *item = cJSON_GetObjectItem(obj, key);
    const char *v = cJSON_IsString(item) ? item->valuestring : nullptr;
    snprintf(out, sizeof(out), "%s", v && v[0] ? v : "unknown");
    fing_text_clean(out);
}

// One element of result.clientList; `http` may turn on and stays on.
void merge_element(const cJSON *el, time_t now, int &http) noexcept
{
    const cJSON *mac = cJSON_GetObjectItem(el, "mac");
    const cJSON *type = cJSON_GetObjectItem(el, "clientType");
    const cJSON *interval = cJSON_GetObjectItem(el, "nextQueryInterval");
    if (!cJSON_IsString(mac) || !cJSON_IsString(type) || !cJSON_IsNumber(interval))
        return;
    const uint8_t *bytes = mac_text_parse(mac->valuestring);
    if (!bytes)
        return;
    client_node client{};
    std::memcpy(client.mac, bytes, sizeof(client.mac));
    char section[13];
    fing_mac_text(client.mac, section);
    int32_t index = get_device_type_index(type->valuestring);
    if (interval->valuedouble == static_cast<double>(FING_ASK_LATER_MS) && index == DEVICE_TYPE_OTHER) {
        char stamp[24];
        snprintf(stamp, sizeof(stamp), "%ld", static_cast<long>(now));
        fing_state_set(FING_PACKAGE, section, "last_query_time", stamp);
        return;
    }
    client.device_type = index;
    if (index != DEVICE_TYPE_UNKNOWN && index != DEVICE_TYPE_OTHER)
        client.type_cloud_set = 1;
    char brand[64], version[64], hua[4];
    text_or_unknown(el, "brand", brand);
    text_or_unknown(el, "systemVersion", version);
    state_value(section, "hua_status", hua);
    if (std::strcmp(hua, "1") == 0)
        http = 1;
    write_to_history_list(&client, brand, version, http);
}

} // namespace

void fing_report_reset() noexcept
{
    sysmode_cache = -1;
    fing_auth_cache = -1;
    wait_cloud_time = 2;
    last_query_fail_time = 0;
    std::memset(device_id, 0, sizeof(device_id));
    collect_counter = 0;
    resync_counter = 0;
    http_counter = 0;
    report_file_suffix = '1';
    report_file_count = 0;
    report_total_count = 0;
}

int sysmode_load() noexcept
{
    if (sysmode_cache.load() == -1) {
        char mode[16] = {};
        if (config_option("sysmode", "sysmode", "mode", mode, sizeof(mode))) {
            if (std::strcmp(mode, "router") == 0)
                sysmode_cache = 0;
            else if (std::strcmp(mode, "ap") == 0)
                sysmode_cache = 1;
            else if (std::strcmp(mode, "repeater") == 0)
                sysmode_cache = 2;
        }
    }
    return sysmode_cache.load();
}

int fing_auth_load() noexcept
{
    if (fing_auth_cache.load() == -1) {
        char state[6] = {};
        bool found = config_option(FING_PACKAGE, "setting", "pp_state", state, sizeof(state));
        fing_auth_cache = found && std::strcmp(state, "yes") == 0 ? 1 : 0;
    }
    return fing_auth_cache.load();
}

bool fing_gates_open() noexcept
{
    int auth = fing_auth_load();
    int mode = sysmode_load();
    return auth == 1 && (mode == 0 || mode == 1);
}

int online_test() noexcept
{
    const char *argv[] = {ONLINE_TEST_COMMAND, nullptr};
    int status = run_command_wait_timeout(argv, ONLINE_TEST_TIMEOUT_MS);
    if (status == 0)
        return 1;
    if (status == 1)
        return 0;
    if (int fd = open("/dev/console", O_WRONLY | O_NOCTTY | O_CLOEXEC); fd >= 0) {
        lr_write_line(fd, "online-test failed!!\n");
        close(fd);
    }
    // A second try with the default child handling, in case an ignored
    // SIGCHLD took the first one's status away.
    struct sigaction dfl {
    }, old{};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGCHLD, &dfl, &old);
    status = run_command_wait_timeout(argv, ONLINE_TEST_TIMEOUT_MS);
    sigaction(SIGCHLD, &old, nullptr);
    return status == 0 ? 1 : 0;
}

int fing_report_file(const char *path) noexcept
{
    if (!path)
        return -1;
    time_t now = time(nullptr);
    if (fing_gates_open() && backoff_over(now) && online_test() == 1) {
        cloud_upload_fing_data(path);
        remove_if_exists(path);
        return 0;
    }
    // A refused batch is dropped: the collect pass finds its clients later.
    remove_if_exists(path);
    return -1;
}

int fing_report_flush(client_node * /*unused*/) noexcept
{
    if (!fing_gates_open() || report_total_count <= 0 || online_test() != 1)
        return 0;
    report_file_suffix = '1';
    int files = report_total_count / FING_REPORT_BATCH + (report_total_count % FING_REPORT_BATCH ? 1 : 0);
    for (int i = 0; i < files; i++) {
        char path[64];
        snprintf(path, sizeof(path), "%s%c", FING_REPORT_MAC_FILE, report_file_suffix);
        fing_report_file(path);
        report_file_suffix++;
    }
    // Whatever is left (a file beyond the computed count) goes unsent.
    char pattern[64];
    snprintf(pattern, sizeof(pattern), "%s*", FING_REPORT_MAC_FILE);
    glob_t g{};
    if (glob(pattern, GLOB_NOSORT, nullptr, &g) == 0) {
        for (size_t i = 0; i < g.gl_pathc; i++)
            unlink(g.gl_pathv[i]);
    }
    globfree(&g);
    report_total_count = 0;
    report_file_suffix = '1';
    return 0;
}

int fing_periodic(client_node * /*unused*/) noexcept
{
    if (!fing_gates_open())
        return 0;
    if (resync_counter <= 29) {
        resync_counter++;
    } else {
        fing_state_resync();
        resync_counter = 0;
    }
    if (collect_counter <= 5) {
        collect_counter++;
        return -1;
    }
    collect_counter = 0;
    if (online_test() != 1)
        return -1;
    fing_collect_report();
    return 0;
}

int fing_collect_report() noexcept
{
    if (fing_state_load_table() != 0)
        return -1;
    int written = 0;
    {
        file_ptr out(std::fopen(FING_COLLECT_FILE, "w"));
        if (!out)
            return -1;
        mutex_guard hold(uci_lock);
        uci_context_ptr ctx = new_uci_context(HISTORY_CONFDIR);
        uci_package *pkg = nullptr;
        if (ctx && uci_load(ctx.get(), HISTORY_PACKAGE, &pkg) == UCI_OK && pkg) {
            uci_element *e = nullptr;
            uci_foreach_element(&pkg->sections, e)
            {
                if (written >= FING_REQUEST_CLIENTS)
                    break;
                uci_section *s = uci_to_section(e);
                const char *mac = uci_lookup_option_string(ctx.get(), s, "mac");
                if (!mac || uci_lookup_option(ctx.get(), s, "brand"))
                    continue;
                uint8_t has_params = 0, has_error = 0;
                fing_state_lookup(mac, &has_params, &has_error);
                if (has_params && !has_error) {
                    std::fprintf(out.get(), "%s\n", mac);
                    written++;
                }
            }
            uci_unload(ctx.get(), pkg);
        }
    }
    if (written > 0)
        fing_report_file(FING_COLLECT_FILE);
    remove_if_exists(FING_COLLECT_FILE);
    return 0;
}

int add_deviceArray(const char *path, cJSON *client_list) noexcept
{
    file_ptr f(path ? std::fopen(path, "r") : nullptr);
    if (!f) {
        REPORT_MSG("FING_REPORT_MAC_FILE not exist! \n");
        return -1;
    }
    time_t now = time(nullptr);
    int result = -1;
    char line[18];
    while (std::fgets(line, sizeof(line), f.get())) {
        result = -1;
        char section[13];
        if (!mac_line(line, section))
            continue;
        const char *dashed = mac_text_dashed(line);
        if (!dashed || asked_lately(section, now))
            continue;
        char error[8];
        state_value(section, "params_error", error);
        if (error[0])
            continue;
        bool sent_agent = false;
        cJSON *client = client_object(section, dashed, sent_agent);
        if (!client)
            return -1;
        if (sent_agent)
            fing_state_set(FING_PACKAGE, section, "hua_status", "1");
        cJSON_AddItemToArray(client_list, client);
        result = 0;
        if (cJSON_GetArraySize(client_list) >= FING_REQUEST_CLIENTS)
            break;
    }
    return result;
}

int cloud_upload_fing_data(const char *path) noexcept
{
    if (deviceId_get() != 0) {
        REPORT_MSG("get deviceid error:%d\n", -1);
        return -1;
    }
    json_ptr root(cJSON_CreateObject());
    cJSON *list = cJSON_CreateArray();
    if (!root || !list || !add_string(root.get(), "deviceId", device_id)) {
        cJSON_Delete(list);
        REPORT_MSG("destruct report_fing_json!\n");
        return -1;
    }
    cJSON_AddItemToObject(root.get(), "clientList", list);
    int rc = add_deviceArray(path, list);
    if (rc != 0) {
        REPORT_MSG("add_deviceArray error, %d...\n", rc);
        REPORT_MSG("destruct report_fing_json!\n");
        return -1;
    }
    char *text = cJSON_Print(root.get());
    root.reset();
    if (!text) {
        REPORT_MSG("destruct report_fing_json!\n");
        return -1;
    }
    mkdir(FING_REQUEST_DIR, 0755);
    remove_if_exists(FING_REQUEST_FILE);
    file_ptr out(std::fopen(FING_REQUEST_FILE, "wb"));
    if (!out) {
        std::free(text);
        REPORT_MSG("destruct report_fing_json!\n");
        return 0;
    }
    std::fwrite(text, 1, std::strlen(text), out.get());
    out.reset();
    std::free(text);
    // An old reply must not be taken for this request's answer.
    remove_if_exists(FING_REPLY_FILE);
    const char *argv[] = {FING_RECOGNIZE_COMMAND, nullptr};
    run_command_wait_timeout(argv, FING_RECOGNIZE_TIMEOUT_MS);
    if (access(FING_REPLY_FILE, F_OK) == 0) {
        int r = update_fing_type_to_node(path);
        remove_if_exists(FING_REPLY_FILE);
        return r;
    }
    query_fail_handle();
    return 0;
}

int update_fing_type_to_node(const char *path) noexcept
{
    time_t now = time(nullptr);
    char *text = nullptr;
    size_t len = 0;
    bool too_big = false;
    if (!read_reply(FING_REPLY_FILE, text, len, too_big)) {
        REPORT_MSG("cloud reponse error!\n");
        return -1;
    }
    if (too_big) {
        query_fail_handle();
        REPORT_MSG("cloud reponse error!\n");
        return -1;
    }
    int r = update_fing_type_from_text(path, text, len, now);
    std::free(text);
    return r;
}

int update_fing_type_from_text(const char *path, const char *text, size_t len, time_t now) noexcept
{
    json_ptr root(text ? cJSON_ParseWithLength(text, len) : nullptr);
    if (!root) {
        query_fail_handle();
        REPORT_MSG("cloud reponse error!\n");
        return -1;
    }
    const char *where = path ? path : "";
    const cJSON *code = cJSON_GetObjectItem(root.get(), "code");
    double value = cJSON_IsNumber(code) ? code->valuedouble : 1;
    if (value == FING_CODE_REFUSED) {
        if (std::strstr(where, "retry")) {
            mark_params_error(where);
            REPORT_MSG("cloud reponse error!\n");
            return -1;
        }
        // Each MAC goes again alone, so that only the refused one is marked.
        fing_retry_report(where);
        return 0;
    }
    if (value != 0) {
        REPORT_MSG("cloud reponse error!\n");
        return -1;
    }
    const cJSON *result = cJSON_GetObjectItem(root.get(), "result");
    const cJSON *list = cJSON_IsObject(result) ? cJSON_GetObjectItem(result, "clientList") : nullptr;
    int http = std::strstr(where, "http") ? 1 : 0;
    if (cJSON_IsArray(list)) {
        int seen = 0;
        for (const cJSON *el = list->child; el && seen < FING_REPLY_ELEMENTS_MAX; el = el->next, seen++) {
            if (cJSON_IsObject(el))
                merge_element(el, now, http);
        }
    }
    last_query_fail_time = 0;
    srand(static_cast<unsigned>(time(nullptr)));
    wait_cloud_time = rand() % 8 + 2;
    return 0;
}

void query_fail_handle() noexcept
{
    last_query_fail_time = time(nullptr);
    if (wait_cloud_time < FING_WAIT_MAX)
        wait_cloud_time *= 2;
    lr_console_log(9, "fing_device_report", __LINE__,
                   "QUERY FAIL: last_query_fail_time = %ld  wait_cloud_time = %ld",
                   static_cast<long>(last_query_fail_time), static_cast<long>(wait_cloud_time));
}

int fing_retry_report(const char *path) noexcept
{
    file_ptr f(path ? std::fopen(path, "r") : nullptr);
    if (!f)
        return -1;
    char line[16];
    while (std::fgets(line, sizeof(line), f.get())) {
        {
            file_ptr one(std::fopen(FING_RETRY_FILE, "w"));
            if (!one)
                return -1;
            std::fputs(line, one.get());
        }
        fing_report_file(FING_RETRY_FILE);
    }
    f.reset();
    remove_if_exists(path);
    return 0;
}

const char *mac_text_dashed(const char *line) noexcept
{
    static thread_local char out[18];
    if (!line || std::strlen(line) != 13)
        return nullptr;
    for (int i = 0; i < 6; i++) {
        out[i * 3] = static_cast<char>(toupper(static_cast<unsigned char>(line[i * 2])));
        out[i * 3 + 1] = static_cast<char>(toupper(static_cast<unsigned char>(line[i * 2 + 1])));
        out[i * 3 + 2] = i < 5 ? '-' : '\0';
    }
    return out;
}

const uint8_t *mac_text_parse(const char *text) noexcept
{
    static thread_local uint8_t out[6];
    if (!text || std::strlen(text) != 17)
        return nullptr;
    char sep = std::strchr(text, ':') ? ':' : '-';
    for (int i = 0; i < 6; i++) {
        const char *p = text + i * 3;
        if (!isxdigit(static_cast<unsigned char>(p[0])) || !isxdigit(static_cast<unsigned char>(p[1])) ||
            (i < 5 && p[2] != sep))
            return nullptr;
        char pair[3] = {p[0], p[1], '\0'};
        out[i] = static_cast<uint8_t>(std::strtoul(pair, nullptr, 16));
    }
    return out;
}

namespace
{

struct category_row {
    const char *result;
    const char *const *names;
};

const char *const network_names[] = {"Wi-Fi", "NAS", "Firewall",          "VPN",  "PoE Switch", "Small Cell",
                                     "Cloud", "UPS", "Network Appliance", nullptr};
const char *const server_names[] = {"Virtual Machine", "Server",       "Terminal",   "Mail Server",
                                    "File Server",     "Proxy Server", "Web Server", "Domain Server",
                                    "Communication",   "Database",     nullptr};
const char *const engineering_names[] = {"Raspberry", "Arduino",    "Processing Unit", "Circuit Board",
                                         "RFID Tag",  "Industrial", "Medical",         "Automotive",
                                         "Energy",    nullptr};
const char *const monitor_names[] = {"Fingbox", "Domotz box", nullptr};
const char *const office_names[] = {"IP Phone", nullptr};
const char *const other_names[] = {"Generic", nullptr};

const category_row category_rows[] = {
    {"Network", network_names},         {"Server", server_names},        {"Engineering", engineering_names},
    {"Network Monitor", monitor_names}, {"Home & Office", office_names}, {"Other", other_names},
};

} // namespace

void fing_type_category(char *name, size_t size) noexcept
{
    if (!name || size == 0)
        return;
    for (const category_row &row : category_rows) {
        for (const char *const *n = row.names; *n; n++) {
            if (strcasecmp(name, *n) == 0) {
                snprintf(name, size, "%s", row.result);
                return;
            }
        }
    }
}
