#include "db/lookups.h"

#include "core/locks.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "db/mac_oui_lib.h"

namespace
{

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

// The kernel's client-type file and the brand store aren't read yet: both
// readers fail, and the client list shows no category, brand or version.
int get_pctl_device_type_info(device_type_info **rows, int *count) noexcept
{
    if (rows)
        *rows = nullptr;
    if (count)
        *count = 0;
    return -1;
}

int get_fing_info(fing_info **rows, int *count) noexcept
{
    if (rows)
        *rows = nullptr;
    if (count)
        *count = 0;
    return -1;
}
