#include "db/lookups.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "core/locks.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/uci_util.h"
#include "db/db_util.h"
#include "db/mac_oui_lib.h"
#include "db/policy_mirror.h"
#include "registry/client_node.h"

namespace
{

// The kernel module's per-client file: MAC, device class, user agent.
constexpr char PROC_DEVICES[] = "/proc/client-type/devices";

struct file_closer {
    void operator()(FILE *f) const noexcept
    {
        std::fclose(f);
    }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// Sets the release MAC_OUI_DICT_HOLD_MS from now; false when that failed.
bool arm_dict_release() noexcept
{
    mac_oui_dict_clean_timeout.cb = mac_oui_dict_clean_cb;
    if (uloop_timeout_set(&mac_oui_dict_clean_timeout, MAC_OUI_DICT_HOLD_MS) != 0) {
        LR_LOG(2, "[lr error] set mac_oui_dict_clean_timeout failed");
        return false;
    }
    return true;
}

} // namespace

uloop_timeout mac_oui_dict_clean_timeout = {};

int init_mac_oui_dict() noexcept
{
    if (load_mac_oui_database() != 0) {
        LR_LOG(2, "[lr error] load_mac_oui_database failed");
        return -1;
    }
    return arm_dict_release() ? 0 : -1;
}

int query_name_by_mac_oui_v2(const uint8_t mac[6], char *out) noexcept
{
    mutex_guard hold(uci_lock);
    if (mac_oui_database_ready()) {
        if (!arm_dict_release())
            return -1;
    } else if (init_mac_oui_dict() != 0) {
        return -1;
    }
    if (query_mac_oui(mac, out, VENDOR_TEXT_SIZE) != 0) {
        LR_LOG(7, "[lr error] query_mac_oui by dict failed");
        return -1;
    }
    return 0;
}

void mac_oui_dict_clean_cb(uloop_timeout *) noexcept
{
    LR_LOG(7, "mac_oui_dict_clean_cb");
    release_mac_oui_database();
}

int pctl_device_lines(FILE *file, device_type_info *rows, int max) noexcept
{
    int found = 0;
    char line[256];
    while (std::fgets(line, sizeof(line), file)) {
        if (rows && found >= max)
            break;
        char *save = nullptr;
        char *mac = strtok_r(line, " ", &save);
        char *type = mac ? strtok_r(nullptr, " ", &save) : nullptr;
        if (!mac || !type)
            continue;
        if (rows) {
            device_type_info &row = rows[found];
            std::memset(&row, 0, sizeof(row));
            mac_text_to_bytes17(mac, row.mac);
            row.type = std::atoi(type);
        }
        found++;
    }
    return found;
}

int get_pctl_device_type_info(device_type_info **rows, int *count) noexcept
{
    LR_LOG(7, "[lr] get_pctl_device_type_info");
    if (!rows || !count)
        return -1;
    *rows = nullptr;
    *count = 0;
    file_ptr f(std::fopen(PROC_DEVICES, "r"));
    if (!f) {
        char text[96];
        snprintf(text, sizeof(text), "open %s failed.\n", PROC_DEVICES);
        lr_write_line(STDERR_FILENO, text);
        LR_LOG(2, "[lr error] fopen PROC_DEVICES\n");
        return -1;
    }
    int lines = pctl_device_lines(f.get(), nullptr, 0);
    // The file is the kernel's: it may have changed between the passes, so
    // the second fills no more rows than the first counted.
    f.reset(std::fopen(PROC_DEVICES, "r"));
    if (!f)
        return -1;
    auto *out = static_cast<device_type_info *>(std::calloc(lines > 0 ? lines : 1, sizeof(device_type_info)));
    if (!out)
        return -1;
    *count = pctl_device_lines(f.get(), out, lines);
    *rows = out;
    return 0;
}

int get_fing_info(fing_info **rows, int *count) noexcept
{
    LR_LOG(7, "[lr] get_fing_info");
    if (!rows || !count)
        return -1;
    *rows = nullptr;
    *count = 0;
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(UCI_CONFIG_DIR);
    if (!ctx) {
        LR_LOG(7, "[lr] Fail to uci ctx\n");
        return -1;
    }
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), "history_list", &pkg) != UCI_OK || !pkg) {
        LR_LOG(7, "[lr] Fail to uci pkg\n");
        return -1;
    }
    int sections = 0;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        if (std::strcmp(uci_to_section(e)->type, "list") == 0)
            sections++;
    }
    auto *out = static_cast<fing_info *>(std::calloc(sections > 0 ? sections : 1, sizeof(fing_info)));
    if (!out) {
        uci_unload(ctx.get(), pkg);
        return -1;
    }
    int n = 0;
    uci_foreach_element(&pkg->sections, e)
    {
        uci_section *s = uci_to_section(e);
        if (std::strcmp(s->type, "list") != 0 || n >= sections)
            continue;
        fing_info &row = out[n++];
        if (const char *mac = uci_lookup_option_string(ctx.get(), s, "mac"); mac && std::strlen(mac) == 12)
            hex_text_to_mac(mac, row.mac);
        if (const char *brand = uci_lookup_option_string(ctx.get(), s, "brand"))
            snprintf(row.brand, sizeof(row.brand), "%s", brand);
        if (const char *version = uci_lookup_option_string(ctx.get(), s, "systemVersion"))
            snprintf(row.system_version, sizeof(row.system_version), "%s", version);
    }
    uci_unload(ctx.get(), pkg);
    *rows = out;
    *count = n;
    return 0;
}

int get_new_client(uint8_t (*macs)[6], int *count) noexcept
{
    if (!macs || !count)
        return -1;
    *count = 0;
    file_ptr f(std::fopen(NEW_CLIENTS_FILE, "r"));
    if (!f) {
        LR_LOG(7, "[lr error] Failed to open file\n");
        return -1;
    }
    char line[14];
    while (*count < NEW_CLIENT_MAX && std::fgets(line, sizeof(line), f.get())) {
        line[strcspn(line, "\n")] = '\0';
        if (std::strlen(line) != 12)
            continue;
        hex_text_to_mac(line, macs[(*count)++]);
    }
    return 0;
}

int new_client_database_update(client_node * /*unused*/) noexcept
{
    LR_LOG(7, "[lr] new_client_database_update\n");
    uint8_t macs[NEW_CLIENT_MAX][6] = {};
    int count = 0;
    if (get_new_client(macs, &count) != 0) {
        LR_LOG(7, "[lr error] get_new_client\n");
        return -1;
    }
    if (count == 0) {
        LR_LOG(7, "[lr] no_new_client\n");
        return 0;
    }
    mac_list scope{.macs = macs, .count = count};
    update_client_speed_limit(&scope);
    update_black_list(&scope);
    update_qos(&scope);
    update_parentalctl(&scope);
    return 0;
}
