#include "registry/history_list_mgmt.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/locks.h"
#include "core/log.h"
#include "core/uci_util.h"
#include "registry/client_node.h"
#include "registry/rwlock_guard.h"
#include "registry/run_command.h"

#define STORE_ERROR(...) LR_ERROR_LOG("history_list_mgmt", __VA_ARGS__)

namespace
{

// A fresh context on the configuration directory; the caller holds uci_lock.
uci_context_ptr new_history_context()
{
    return new_uci_context(HISTORY_CONFDIR);
}

uci_package *load_history(uci_context *ctx)
{
    uci_package *pkg = nullptr;
    if (uci_load(ctx, HISTORY_PACKAGE, &pkg) != UCI_OK)
        return nullptr;
    return pkg;
}

// One option of one section through uci_set_by_string.
int set_option(uci_context *ctx, const char *section, const char *option, const char *value)
{
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s.%s=%s", HISTORY_PACKAGE, section, option, value);
    return uci_set_by_string(ctx, HISTORY_PACKAGE, text);
}

int set_option_int(uci_context *ctx, const char *section, const char *option, int value)
{
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s.%s=%d", HISTORY_PACKAGE, section, option, value);
    return uci_set_by_string(ctx, HISTORY_PACKAGE, text);
}

int set_option_long(uci_context *ctx, const char *section, const char *option, long value)
{
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s.%s=%ld", HISTORY_PACKAGE, section, option, value);
    return uci_set_by_string(ctx, HISTORY_PACKAGE, text);
}

// Finds the client's section, or adds one of type "list". 1 with the name
// in `section` and `is_new` set when it was added; 0 when adding failed.
int find_or_add_section(uci_context *ctx, uci_package *pkg, const uint8_t mac[6],
                        char (&section)[UCI_SECTION_NAME_SIZE], bool &is_new)
{
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    mac_to_hex_text(mac, mac_text);
    is_new = false;
    if (uci_dev_mac_in_cfg_file(ctx, HISTORY_PACKAGE, mac_text, section) == 1)
        return 1;
    uci_section *s = nullptr;
    if (uci_add_section(ctx, pkg, HISTORY_SECTION_TYPE, &s) != UCI_OK || !s)
        return 0;
    snprintf(section, sizeof(section), "%s", s->e.name);
    is_new = true;
    return 1;
}

// The recognition state of the client in the volatile store goes with it:
// the changes recorded under "/var/state" for its section are reverted.
void revert_fing_state(const char *mac_text)
{
    uci_context_ptr ctx(uci_alloc_context());
    if (!ctx)
        return;
    uci_set_savedir(ctx.get(), "/var/state");
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "fing.%s", mac_text);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx.get(), &ptr, text, true) != UCI_OK)
        return;
    uci_revert(ctx.get(), &ptr);
}

// Writes `access_time` or `leave_time` of the snapshot's section; a client
// with no section is no failure. 1, or 0 for the caller to report.
int update_time_option(const client_node *snapshot, const char *option, long value)
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_history_context();
    if (!ctx || !load_history(ctx.get()))
        return 0;
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    char section[UCI_SECTION_NAME_SIZE] = {};
    mac_to_hex_text(snapshot->mac, mac_text);
    if (uci_dev_mac_in_cfg_file(ctx.get(), HISTORY_PACKAGE, mac_text, section) != 1)
        return 1;
    return set_option_long(ctx.get(), section, option, value);
}

// Deletes one section by name; nullptr, or the failure word.
const char *delete_section_named(uci_context *ctx, const std::string &name)
{
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s", HISTORY_PACKAGE, name.c_str());
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx, &ptr, text, true) != UCI_OK)
        return "uci_lookup_ptr != UCI_OK";
    if (uci_delete(ctx, &ptr) != UCI_OK)
        return "uci_delete != UCI_OK";
    return nullptr;
}

} // namespace

int uci_set_by_string(uci_context *ctx, const char *package, const char *text) noexcept
{
    if (!ctx || !package || !text) {
        STORE_ERROR("input paras invalid.");
        return 0;
    }
    // uci_lookup_ptr cuts the text it is given into pieces.
    char buf[UCI_TEXT_SIZE] = {};
    snprintf(buf, sizeof(buf), "%s", text);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx, &ptr, buf, true) != UCI_OK) {
        STORE_ERROR("uci_lookup_ptr != UCI_OK");
        return 0;
    }
    if (uci_set(ctx, &ptr) != UCI_OK) {
        STORE_ERROR("uci_set != UCI_OK");
        return 0;
    }
    if (uci_save(ctx, ptr.p) != UCI_OK) {
        STORE_ERROR("uci_save != UCI_OK");
        return 0;
    }
    if (uci_commit(ctx, &ptr.p, false) != UCI_OK) {
        STORE_ERROR("uci_commit != UCI_OK");
        return 0;
    }
    return 1;
}

int uci_dev_mac_in_cfg_file(uci_context *ctx, const char *package, const char *mac_text,
                            char *section_out) noexcept
{
    if (!ctx || !package || !mac_text || !section_out)
        return 0;
    uci_package *pkg = uci_lookup_package(ctx, package);
    if (!pkg)
        return 0;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        char text[UCI_TEXT_SIZE] = {};
        snprintf(text, sizeof(text), "%s.%s.%s", package, e->name, "mac");
        uci_ptr ptr{};
        if (uci_lookup_ptr(ctx, &ptr, text, true) != UCI_OK) {
            STORE_ERROR("uci_lookup_ptr != UCI_OK");
            return 0;
        }
        if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) || !ptr.o || ptr.o->type != UCI_TYPE_STRING ||
            !ptr.o->v.string) {
            STORE_ERROR("MAC is NULL");
            continue;
        }
        if (std::strcmp(ptr.o->v.string, mac_text) == 0) {
            snprintf(section_out, UCI_SECTION_NAME_SIZE, "%s", e->name);
            return 1;
        }
    }
    return 0;
}

int uci_update_cfg_file(client_node *snapshot) noexcept
{
    if (!snapshot)
        return 0;
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_history_context();
    uci_package *pkg = ctx ? load_history(ctx.get()) : nullptr;
    char section[UCI_SECTION_NAME_SIZE] = {};
    bool is_new = false;
    if (!pkg || find_or_add_section(ctx.get(), pkg, snapshot->mac, section, is_new) != 1) {
        STORE_ERROR("update config error.");
        return 0;
    }
    // From here on every write commits, which replaces the package object:
    // only names are used, never `pkg`.
    uci_context *c = ctx.get();
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    mac_to_hex_text(snapshot->mac, mac_text);
    bool ok =
        set_option(c, section, "mac", mac_text) == 1 &&
        set_option(c, section, "hostname", snapshot->hostname) == 1 &&
        set_option(c, section, "type", device_type_name(snapshot->device_type)) == 1 &&
        (snapshot->nickname[0] == '\0' || set_option(c, section, "nickname", snapshot->nickname) == 1) &&
        set_option_int(c, section, "access_host", snapshot->event_access_host) == 1 &&
        (!is_new || set_option_long(c, section, "first_access_time", snapshot->first_access_time) == 1) &&
        set_option_long(c, section, "access_time", snapshot->access_time) == 1;
    if (!ok) {
        STORE_ERROR("update config error.");
        return 0;
    }
    return 1;
}

int uci_update_access_time(client_node *snapshot) noexcept
{
    if (!snapshot)
        return 0;
    // Only a corrected connection time is written; see the clock rule.
    if (snapshot->clock_state != CLOCK_CORRECTED)
        return 1;
    if (update_time_option(snapshot, "access_time", snapshot->access_time) != 1) {
        STORE_ERROR("update access_time error.");
        return 0;
    }
    return 1;
}

int uci_update_leave_time(client_node *snapshot) noexcept
{
    if (!snapshot)
        return 0;
    if (update_time_option(snapshot, "leave_time", snapshot->leave_time) != 1) {
        STORE_ERROR("update leave_time error.");
        return 0;
    }
    return 1;
}

int uci_delete_section_by_node(const client_node *node) noexcept
{
    if (!node)
        return 0;
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_history_context();
    if (!ctx) {
        STORE_ERROR("uci alloc context failed.");
        return 0;
    }
    if (!load_history(ctx.get()))
        return 0;
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    mac_to_hex_text(node->mac, mac_text);
    revert_fing_state(mac_text);

    char section[UCI_SECTION_NAME_SIZE] = {};
    if (uci_dev_mac_in_cfg_file(ctx.get(), HISTORY_PACKAGE, mac_text, section) != 1) {
        if (uci_package *pkg = uci_lookup_package(ctx.get(), HISTORY_PACKAGE))
            uci_commit(ctx.get(), &pkg, false);
        return 0;
    }
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s", HISTORY_PACKAGE, section);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx.get(), &ptr, text, true) != UCI_OK) {
        STORE_ERROR("uci_lookup_ptr != UCI_OK");
        return 0;
    }
    if (uci_delete(ctx.get(), &ptr) != UCI_OK) {
        STORE_ERROR("uci_delete != UCI_OK");
        return 0;
    }
    if (uci_commit(ctx.get(), &ptr.p, false) != UCI_OK)
        STORE_ERROR("uci commit failed!");
    return 1;
}

int save_user_set_to_flash(const uint8_t mac[6], int type_index, const char *nickname) noexcept
{
    if (!mac)
        return 0;
    mutex_guard hold(uci_lock);
    {
        uci_context_ptr ctx = new_history_context();
        uci_package *pkg = ctx ? load_history(ctx.get()) : nullptr;
        char section[UCI_SECTION_NAME_SIZE] = {};
        bool is_new = false;
        if (!pkg || find_or_add_section(ctx.get(), pkg, mac, section, is_new) != 1) {
            STORE_ERROR("update config error.");
            return 0;
        }
        if (type_index != DEVICE_TYPE_UNKNOWN &&
            set_option(ctx.get(), section, "type", device_type_name(type_index)) != 1) {
            STORE_ERROR("update config error.");
            return 0;
        }
        if (nickname && nickname[0] && set_option(ctx.get(), section, "nickname", nickname) != 1) {
            STORE_ERROR("update config error.");
            return 0;
        }
    }
    // Still under uci_lock: the flash copy is written from a quiet store.
    static const char *const saveconfig[] = {"lua", "-e", "require(\"luci.sys.config\").saveconfig()",
                                             nullptr};
    run_command_wait(saveconfig);
    return 1;
}

int clean_config_file() noexcept
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_history_context();
    if (!ctx) {
        STORE_ERROR("uci alloc context failed.");
        return 0;
    }
    uci_package *pkg = load_history(ctx.get());
    if (!pkg)
        return 0;
    // uci_delete invalidates the element in hand, so each section is
    // deleted only once the walk has moved on to the next.
    std::string previous;
    const char *failure = nullptr;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        if (!previous.empty() && (failure = delete_section_named(ctx.get(), previous)))
            break;
        previous = e->name;
    }
    if (!failure && !previous.empty())
        failure = delete_section_named(ctx.get(), previous);
    if (failure) {
        STORE_ERROR("%s", failure);
        return 0;
    }
    pkg = uci_lookup_package(ctx.get(), HISTORY_PACKAGE);
    if (!pkg || uci_commit(ctx.get(), &pkg, false) != UCI_OK) {
        STORE_ERROR("uci commit failed!");
        return 0;
    }
    return 1;
}

namespace
{

// One record of the live list written as a new section.
int save_one_record(const client_node *node)
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_history_context();
    uci_package *pkg = ctx ? load_history(ctx.get()) : nullptr;
    uci_section *s = nullptr;
    if (!pkg || uci_add_section(ctx.get(), pkg, HISTORY_SECTION_TYPE, &s) != UCI_OK || !s)
        return 0;
    char section[UCI_SECTION_NAME_SIZE] = {};
    snprintf(section, sizeof(section), "%s", s->e.name);
    uci_context *c = ctx.get();
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    mac_to_hex_text(node->mac, mac_text);
    return set_option(c, section, "mac", mac_text) == 1 &&
           set_option(c, section, "hostname", node->hostname) == 1 &&
           (node->nickname[0] == '\0' || set_option(c, section, "nickname", node->nickname) == 1) &&
           set_option(c, section, "type", device_type_name(node->device_type)) == 1 &&
           set_option_int(c, section, "access_host", node->access_host) == 1;
}

} // namespace

int save_history_list() noexcept
{
    rwlock_read_guard hold(history_list_lock);
    clean_config_file();
    for (const client_node *n = get_history_list(); n; n = n->next) {
        if (save_one_record(n) != 1) {
            STORE_ERROR("save config error.");
            return 0;
        }
    }
    return 1;
}
