// Weak stand-ins for set_log_level and update_lan_info_by_uci until the
// log and LAN modules bring theirs; a real definition always wins.
#include "bus/interim_links.h"

#include <cstdlib>

#include "core/log.h"
#include "core/openwrt.h"

__attribute__((weak)) void set_log_level(void *message) noexcept
{
    auto *msg = static_cast<blob_attr *>(message);
    static const blobmsg_policy policy[] = {{.name = "log_level", .type = BLOBMSG_TYPE_INT32}};
    blob_attr *tb[1] = {};
    if (msg && blobmsg_parse(policy, 1, tb, blob_data(msg), blob_len(msg)) == 0 && tb[0])
        log_level.store(static_cast<int32_t>(blobmsg_get_u32(tb[0])));
    else if (!msg)
        log_level.store(LOG_LEVEL_DEFAULT);
    LR_LOG(7, "[lr] set_log_level");
    std::free(message);
}

__attribute__((weak)) void update_lan_info_by_uci() noexcept {}
