#include "bus/ubus_server.h"

#include "core/log.h"
#include "core/openwrt.h"

ubus_context *ubus_ctx = nullptr;
const char *ubus_socket_path = UBUS_SOCKET_PATH;

int lanroster_ubus_init() noexcept
{
    LR_LOG(7, "[lr] begin to init lr_ubus\n");
    ubus_ctx = ubus_connect(ubus_socket_path);
    if (!ubus_ctx) {
        LR_LOG(2, "[lr error] Failed to connect to ubus\n");
        return -1;
    }
    // The bus objects and the event listener join here.
    uloop_fd_add(&ubus_ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
    return 0;
}

void lanroster_ubus_deinit() noexcept
{
    if (!ubus_ctx)
        return;
    ubus_free(ubus_ctx);
    ubus_ctx = nullptr;
}
