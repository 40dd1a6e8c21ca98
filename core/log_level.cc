// The bus-driven change of the console log threshold.
#include <cstdlib>

#include "core/log.h"
#include "core/openwrt.h"

namespace {

enum { LOG_LEVEL_ATTR, LOG_LEVEL_ATTR_MAX };

// Indexed by the enum above, in its order.
const blobmsg_policy log_level_policy[] = {
    {.name = "log_level", .type = BLOBMSG_TYPE_INT32},
};
static_assert(std::size(log_level_policy) == LOG_LEVEL_ATTR_MAX);

}  // namespace

void set_log_level(void *message) noexcept
{
    auto *msg = static_cast<blob_attr *>(message);
    if (!msg) {
        log_level.store(LOG_LEVEL_DEFAULT, std::memory_order_relaxed);
    } else {
        blob_attr *tb[LOG_LEVEL_ATTR_MAX] = {};
        blobmsg_parse(log_level_policy, LOG_LEVEL_ATTR_MAX, tb, blob_data(msg), blob_len(msg));
        if (tb[LOG_LEVEL_ATTR])
            log_level.store(static_cast<int32_t>(blobmsg_get_u32(tb[LOG_LEVEL_ATTR])), std::memory_order_relaxed);
    }
    LR_LOG(7, "[lr] set_log_level");
    free(message);
}
