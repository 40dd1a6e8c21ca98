// Connection, objects, reply helpers and event dispatch of the bus face.
#include "bus/ubus_server.h"

#include <cstdlib>
#include <cstring>
#include <iterator>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "bus/event_tasks.h"
#include "bus/ubus_handlers.h"
#include "core/log.h"
#include "core/threadpool.h"
#include "events/mesh_client.h"

ubus_context *ubus_ctx = nullptr;
blob_buf reply_buf = {};
ubus_event_handler event_listener = {};
uint32_t event_copies_dropped = 0;

namespace
{

constexpr ubus_method method(const char *name, ubus_handler_t handler, const blobmsg_policy *policy,
                             int n_policy) noexcept
{
    return ubus_method{
        .name = name, .handler = handler, .mask = 0, .tags = 0, .policy = policy, .n_policy = n_policy};
}

template <size_t N>
constexpr ubus_method method(const char *name, ubus_handler_t handler,
                             const blobmsg_policy (&policy)[N]) noexcept
{
    return method(name, handler, policy, static_cast<int>(N));
}

} // namespace

const ubus_method lanroster_methods[] = {
    method("update", update, update_policy),
    method("get_ARP", get_ARP, nullptr, 0),
    method("lan_update", lan_update, nullptr, 0),
    method("get", get, get_policy),
    method("get_hist_list", history_list_get, hist_policy),
    method("get_hist_list_num", history_list_num_get, hist_policy),
    method("get_dev_info", history_dev_info_list_get, dev_info_policy),
    method("set_dev_type", device_type_set, dev_type_policy),
    method("set_dev_nickname", device_nickname_set, nickname_policy),
    method("delete_offline_device", offline_device_delete, device_mac_policy),
    method("remove_client_by_mac", remove_device_by_mac, device_mac_policy),
    method("update_fing_auth_state", update_fing_auth_status, auth_state_policy),
    method("get_hist_list_new", get_hist_list_new, hist_new_policy),
};
static_assert(std::size(lanroster_methods) == LANROSTER_METHOD_COUNT);

const ubus_method mac_oui_methods[] = {
    method("req", mac_oui_ubus_query, mac_oui_policy),
};

ubus_object_type lanroster_type = {
    .name = "lanroster", .id = 0, .methods = lanroster_methods, .n_methods = LANROSTER_METHOD_COUNT};
ubus_object_type mac_oui_type = {.name = "mac_oui",
                                 .id = 0,
                                 .methods = mac_oui_methods,
                                 .n_methods = static_cast<int>(std::size(mac_oui_methods))};

ubus_object lanroster_object = {.avl = {},
                                .name = "lanroster",
                                .id = 0,
                                .path = nullptr,
                                .type = &lanroster_type,
                                .subscribe_cb = nullptr,
                                .has_subscribers = false,
                                .methods = lanroster_methods,
                                .n_methods = LANROSTER_METHOD_COUNT};
ubus_object mac_oui_object = {.avl = {},
                              .name = "mac_oui",
                              .id = 0,
                              .path = nullptr,
                              .type = &mac_oui_type,
                              .subscribe_cb = nullptr,
                              .has_subscribers = false,
                              .methods = mac_oui_methods,
                              .n_methods = static_cast<int>(std::size(mac_oui_methods))};

// The mesh peers' client lists come first: they are the one event of
// daily traffic.
const event_task_row event_task_table[] = {
    {"meshd_client_update", mesh_client_update_handler},
    {"print_client", print_client},
    {"set_log_level", set_log_level},
    {"print_lan_info", print_lan_info},
    {nullptr, nullptr},
};

namespace
{

int register_event_listener() noexcept
{
    event_listener.cb = event_dispatch;
    if (ubus_register_event_handler(ubus_ctx, &event_listener, EVENT_PATTERN) != 0) {
        LR_LOG(2, "[lr error] register_event_listener");
        return -1;
    }
    LR_LOG(7, "[lr] register_event_listener success");
    return 0;
}

void drop_connection() noexcept
{
    ubus_free(ubus_ctx);
    ubus_ctx = nullptr;
}

} // namespace

int lanroster_ubus_init() noexcept
{
    LR_LOG(7, "[lr] begin to init lr_ubus\n");
    ubus_ctx = ubus_connect(UBUS_SOCKET_PATH);
    if (!ubus_ctx) {
        LR_LOG(2, "[lr error] Failed to connect to ubus\n");
        return -1;
    }
    if (ubus_add_object(ubus_ctx, &lanroster_object) != 0) {
        LR_LOG(2, "[lr error] Failed to add object:lanroster\n");
        drop_connection();
        return -1;
    }
    if (ubus_add_object(ubus_ctx, &mac_oui_object) != 0) {
        LR_LOG(2, "[lr error] Failed to add object:mac_oui\n");
        ubus_remove_object(ubus_ctx, &lanroster_object);
        drop_connection();
        return -1;
    }
    if (register_event_listener() != 0) {
        ubus_remove_object(ubus_ctx, &lanroster_object);
        ubus_remove_object(ubus_ctx, &mac_oui_object);
        drop_connection();
        return -1;
    }
    uloop_fd_add(&ubus_ctx->sock, ULOOP_READ | ULOOP_BLOCKING);
    return 0;
}

void lanroster_ubus_deinit() noexcept
{
    if (!ubus_ctx)
        return;
    ubus_remove_object(ubus_ctx, &lanroster_object);
    ubus_remove_object(ubus_ctx, &mac_oui_object);
    drop_connection();
    // The listener's object went with the connection; a later init
    // registers it afresh.
    event_listener = {};
}

void shrink_reply_buf() noexcept
{
    if (reply_buf.buflen <= REPLY_BUF_KEEP)
        return;
    blob_buf_free(&reply_buf);
    blob_buf_init(&reply_buf, 0);
#if defined(__GLIBC__)
    // glibc keeps a freed block of this size in its heap (its mmap threshold
    // rises to the largest block freed); musl hands it back by itself.
    malloc_trim(0);
#endif
}

int send_reply_buf(ubus_context *ctx, ubus_request_data *req) noexcept
{
    int ret = ubus_send_reply(ctx, req, reply_buf.head);
    shrink_reply_buf();
    return ret;
}

void *reply_open_table() noexcept
{
    return blobmsg_open_nested(&reply_buf, nullptr, false);
}

void reply_add_u32(const char *key, int64_t value) noexcept
{
    blobmsg_add_u32(&reply_buf, key, static_cast<uint32_t>(value));
}

void reply_add_string(const char *key, const char *text) noexcept
{
    blobmsg_add_string(&reply_buf, key, text ? text : "");
}

void event_dispatch(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg) noexcept
{
    if (!type || !msg || std::strncmp(type, EVENT_PREFIX, sizeof(EVENT_PREFIX) - 1) != 0)
        return;
    size_t size = blob_len(msg) + sizeof(blob_attr);
    void *copy = std::malloc(size);
    if (!copy)
        return;
    std::memcpy(copy, msg, size);
    const char *name = type + sizeof(EVENT_PREFIX) - 1;
    const event_task_row *row = event_task_table;
    while (row->name && std::strcmp(row->name, name) != 0)
        ++row;
    if (!row->name || !row->task || !thread_pool) {
        // Nobody takes the copy: an unknown event is dropped here.
        ++event_copies_dropped;
        std::free(copy);
        return;
    }
    auto *task = static_cast<threadpool_task *>(std::calloc(1, sizeof(threadpool_task)));
    if (!task) {
        ++event_copies_dropped;
        std::free(copy);
        return;
    }
    task->fn = row->task;
    task->arg = copy;
    // A full queue frees the task record; the copy is still ours.
    if (threadpool_add_task(task, thread_pool) != 0) {
        ++event_copies_dropped;
        std::free(copy);
    }
}
