// The device commands. Every check comes before the flash write, so a bad
// request never reaches the store and a refused call changes nothing.
#include "bus/device_commands.h"

#include <unistd.h>

#include <cstring>

#include "bus/mac_text.h"
#include "bus/ubus_handlers.h"
#include "bus/ubus_server.h"
#include "core/log.h"
#include "registry/client_node.h"
#include "registry/history_list_mgmt.h"
#include "registry/rwlock_guard.h"
#include "recognition/fing_auth.h"

#define CMD_ERROR(...) LR_ERROR_LOG("ubus_server", __VA_ARGS__)

namespace
{

// The common start: the parse, then every key of the policy present. On
// false the request gets no reply.
bool parse_all(const blobmsg_policy *policy, int n, blob_attr **tb, blob_attr *msg) noexcept
{
    if (blobmsg_parse(policy, n, tb, blob_data(msg), blob_len(msg)) != 0) {
        CMD_ERROR("Parse blog msg failed.");
        return false;
    }
    for (int i = 0; i < n; ++i) {
        if (!tb[i]) {
            CMD_ERROR("blog data is NULL.");
            return false;
        }
    }
    return true;
}

bool reply_code(int32_t code) noexcept
{
    blob_buf_init(&reply_buf, 0);
    reply_add_u32("code", code);
    return true;
}

bool reply_result(bool ok) noexcept
{
    blob_buf_init(&reply_buf, 0);
    reply_add_string("result", ok ? "success" : "fail");
    return true;
}

// The checks the MAC text of every command passes; false after the error
// line, with `mac` as far as it was written.
bool mac_checks(const char *text, uint8_t mac[6]) noexcept
{
    if (mac_text_valid(text) != 0) {
        CMD_ERROR("illeage mac address.");
        return false;
    }
    if (mac_text_to_bytes(text, mac) != 0) {
        CMD_ERROR("format mac address error.");
        return false;
    }
    return true;
}

// The string of a key; blobmsg_parse has checked the type, so only a text
// without its terminator is left to refuse.
const char *text_of(blob_attr *attr) noexcept
{
    if (!attr || !blobmsg_check_attr(attr, true))
        return nullptr;
    return blobmsg_get_string(attr);
}

size_t bounded_len(const char *text, size_t limit) noexcept
{
    return strnlen(text, limit + 1);
}

} // namespace

bool compose_offline_device_delete(blob_attr *msg) noexcept
{
    blob_attr *tb[DEVICE_MAC_ATTR_MAX];
    if (!parse_all(device_mac_policy, DEVICE_MAC_ATTR_MAX, tb, msg))
        return false;
    const char *text = text_of(tb[DEVICE_MAC]);
    uint8_t mac[6] = {};
    if (!text) {
        CMD_ERROR("device_mac is NULL.");
        return reply_code(CMD_CODE_REFUSED);
    }
    if (!mac_checks(text, mac))
        return reply_code(CMD_CODE_REFUSED);
    {
        // The text as it came: only "AA-BB-CC-DD-EE-FF" in upper case can
        // match, and an online record is never taken.
        rwlock_write_guard hold(history_list_lock);
        delete_offline_node_by_mac(text);
    }
    // The package follows the live list whether or not a record went.
    save_history_list();
    return reply_code(CMD_CODE_DONE);
}

bool compose_device_nickname_set(blob_attr *msg) noexcept
{
    blob_attr *tb[NICKNAME_ATTR_MAX];
    if (!parse_all(nickname_policy, NICKNAME_ATTR_MAX, tb, msg))
        return false;
    const char *nickname = text_of(tb[NICKNAME_NICKNAME]);
    const char *text = text_of(tb[NICKNAME_DEVICE_MAC]);
    uint8_t mac[6] = {};
    if (!nickname || !text) {
        CMD_ERROR("nickname or device_mac is NULL.");
        return reply_code(CMD_CODE_REFUSED);
    }
    if (mac_text_valid(text) != 0) {
        CMD_ERROR("illeage mac address.");
        return reply_code(CMD_CODE_REFUSED);
    }
    size_t len = bounded_len(nickname, NICKNAME_MAX);
    if (len < 1 || len > NICKNAME_MAX) {
        CMD_ERROR("illeage nickname.");
        return reply_code(CMD_CODE_REFUSED);
    }
    if (mac_text_to_bytes(text, mac) != 0) {
        CMD_ERROR("format mac address error.");
        return reply_code(CMD_CODE_REFUSED);
    }
    rwlock_write_guard hold(history_list_lock);
    for (client_node *n = get_history_list(); n; n = n->next) {
        if (!node_mac_equal(n->mac, mac))
            continue;
        if (std::strcmp(n->nickname, nickname) != 0) {
            std::memset(n->nickname, 0, sizeof(n->nickname));
            std::memcpy(n->nickname, nickname, len);
            // A failed write reports itself; the new name stays in memory.
            save_user_set_to_flash(mac, DEVICE_TYPE_UNKNOWN, n->nickname);
        }
        return reply_code(CMD_CODE_DONE);
    }
    return reply_code(CMD_CODE_UNKNOWN_MAC);
}

bool compose_device_type_set(blob_attr *msg) noexcept
{
    blob_attr *tb[DEV_TYPE_ATTR_MAX];
    if (!parse_all(dev_type_policy, DEV_TYPE_ATTR_MAX, tb, msg))
        return false;
    const char *name = text_of(tb[DEV_TYPE_DEVICE_TYPE]);
    const char *text = text_of(tb[DEV_TYPE_DEVICE_MAC]);
    uint8_t mac[6] = {};
    if (!name || !text) {
        CMD_ERROR("device_type or device_mac is NULL.");
        return reply_code(CMD_CODE_REFUSED);
    }
    if (mac_text_valid(text) != 0) {
        CMD_ERROR("illeage mac address.");
        return reply_code(CMD_CODE_REFUSED);
    }
    int index = get_device_type_index(name);
    size_t len = bounded_len(name, DEVICE_TYPE_NAME_MAX);
    if (index < 0 || len < 1 || len > DEVICE_TYPE_NAME_MAX) {
        CMD_ERROR("illeage device type.");
        return reply_code(CMD_CODE_REFUSED);
    }
    if (mac_text_to_bytes(text, mac) != 0) {
        CMD_ERROR("format mac address error.");
        return reply_code(CMD_CODE_REFUSED);
    }
    rwlock_write_guard hold(history_list_lock);
    for (client_node *n = get_history_list(); n; n = n->next) {
        if (!node_mac_equal(n->mac, mac))
            continue;
        // The present type changes nothing, not even the flags of a type
        // that came from a lower source.
        if (n->device_type != index) {
            n->device_type = index;
            n->type_user_set = 1;
            n->type_source = TYPE_SOURCE_USER;
            save_user_set_to_flash(mac, index, nullptr);
        }
        return reply_code(CMD_CODE_DONE);
    }
    return reply_code(CMD_CODE_UNKNOWN_MAC);
}

bool compose_remove_device_by_mac(blob_attr *msg) noexcept
{
    blob_attr *tb[DEVICE_MAC_ATTR_MAX];
    if (!parse_all(device_mac_policy, DEVICE_MAC_ATTR_MAX, tb, msg))
        return false;
    const char *text = text_of(tb[DEVICE_MAC]);
    char line[64];
    std::snprintf(line, sizeof(line), "device_mac:%.17s\n", text ? text : "(null)");
    lr_write_line(STDOUT_FILENO, line);
    uint8_t mac[6] = {};
    bool checked = false;
    if (!text)
        CMD_ERROR("device_mac is NULL.");
    else
        checked = mac_checks(text, mac);
    if (checked) {
        rwlock_write_guard hold(history_list_lock);
        // Any accepted form, online records too; only the record's section
        // goes from the package.
        if (delete_specific_node_from_list(mac) != -1) {
            lr_write_line(STDOUT_FILENO, "delete_specific_node_from_list success\n");
            return reply_result(true);
        }
    }
    lr_write_line(STDOUT_FILENO, "delete_specific_node_from_list fail\n");
    return reply_result(false);
}

bool compose_update_fing_auth_status(blob_attr *msg) noexcept
{
    blob_attr *tb[AUTH_STATE_ATTR_MAX];
    if (!parse_all(auth_state_policy, AUTH_STATE_ATTR_MAX, tb, msg))
        return false;
    // Unsigned, so -1 is far out of range.
    uint32_t state = blobmsg_get_u32(tb[AUTH_STATE]);
    if (state <= 1) {
        fing_auth_cache.store(static_cast<int32_t>(state), std::memory_order_relaxed);
        return reply_result(true);
    }
    CMD_ERROR("auth_state is invalid.");
    lr_write_line(STDOUT_FILENO, "update_fing_auth_status fail\n");
    return reply_result(false);
}

#define LR_COMMAND_HANDLER(name)                                                                             \
    LR_UBUS_HANDLER(name)                                                                                    \
    {                                                                                                        \
        (void)obj, (void)method;                                                                             \
        if (compose_##name(msg))                                                                             \
            send_reply_buf(ctx, req);                                                                        \
        return 0;                                                                                            \
    }

LR_COMMAND_HANDLER(offline_device_delete)
LR_COMMAND_HANDLER(device_nickname_set)
LR_COMMAND_HANDLER(device_type_set)
LR_COMMAND_HANDLER(remove_device_by_mac)
LR_COMMAND_HANDLER(update_fing_auth_status)
