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
// A step shared by several writers is told under the name of the function
// that owns it, so its line reads the same whoever ran it.
#define STEP_ERROR(func, ...) lr_error_log("history_list_mgmt", __LINE__, (func), __VA_ARGS__)

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

// How an option write ends: committed on its own, or left in the context
// for one commit of the whole change (see commit_staged).
enum class write_mode { commit, stage };

int set_by_string(uci_context *ctx, const char *package, const char *text, write_mode mode);

// One option of one section through the steps of uci_set_by_string.
int set_option(uci_context *ctx, const char *section, const char *option, const char *value,
               write_mode mode = write_mode::commit)
{
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s.%s=%s", HISTORY_PACKAGE, section, option, value);
    return set_by_string(ctx, HISTORY_PACKAGE, text, mode);
}

int set_option_int(uci_context *ctx, const char *section, const char *option, int value,
                   write_mode mode = write_mode::commit)
{
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s.%s=%d", HISTORY_PACKAGE, section, option, value);
    return set_by_string(ctx, HISTORY_PACKAGE, text, mode);
}

int set_option_long(uci_context *ctx, const char *section, const char *option, long value,
                    write_mode mode = write_mode::commit)
{
    char text[UCI_TEXT_SIZE] = {};
    snprintf(text, sizeof(text), "%s.%s.%s=%ld", HISTORY_PACKAGE, section, option, value);
    return set_by_string(ctx, HISTORY_PACKAGE, text, mode);
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

namespace
{

constexpr char SET_BY_STRING[] = "uci_set_by_string";

// The steps of uci_set_by_string: look up, set, and unless staged, save and
// commit. Staged changes wait in the context for commit_staged.
int set_by_string(uci_context *ctx, const char *package, const char *text, write_mode mode)
{
    if (!ctx || !package || !text) {
        STEP_ERROR(SET_BY_STRING, "input paras invalid.");
        return 0;
    }
    // uci_lookup_ptr cuts the text it is given into pieces.
    char buf[UCI_TEXT_SIZE] = {};
    snprintf(buf, sizeof(buf), "%s", text);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx, &ptr, buf, true) != UCI_OK) {
        STEP_ERROR(SET_BY_STRING, "uci_lookup_ptr != UCI_OK");
        return 0;
    }
    if (uci_set(ctx, &ptr) != UCI_OK) {
        STEP_ERROR(SET_BY_STRING, "uci_set != UCI_OK");
        return 0;
    }
    if (mode == write_mode::stage)
        return 1;
    if (uci_save(ctx, ptr.p) != UCI_OK) {
        STEP_ERROR(SET_BY_STRING, "uci_save != UCI_OK");
        return 0;
    }
    if (uci_commit(ctx, &ptr.p, false) != UCI_OK) {
        STEP_ERROR(SET_BY_STRING, "uci_commit != UCI_OK");
        return 0;
    }
    return 1;
}

// Saves and commits every change staged on the package in one commit: the
// file goes from the old content to the new in one rename. A package loaded
// by path has no change file; its commit writes it whole, so it is not saved
// first (saving would already write it).
int commit_staged(uci_context *ctx, uci_package *pkg)
{
    if (pkg->has_delta && uci_save(ctx, pkg) != UCI_OK) {
        STEP_ERROR(SET_BY_STRING, "uci_save != UCI_OK");
        return 0;
    }
    if (uci_commit(ctx, &pkg, false) != UCI_OK) {
        STEP_ERROR(SET_BY_STRING, "uci_commit != UCI_OK");
        return 0;
    }
    return 1;
}

} // namespace

int uci_set_by_string(uci_context *ctx, const char *package, const char *text) noexcept
{
    return set_by_string(ctx, package, text, write_mode::commit);
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
    // All options reach the file in one commit: a new section is never on
    // file with its mac but without its hostname, which the next start-up
    // would refuse and so forget the client.
    constexpr write_mode stage = write_mode::stage;
    uci_context *c = ctx.get();
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    mac_to_hex_text(snapshot->mac, mac_text);
    bool ok =
        set_option(c, section, "mac", mac_text, stage) == 1 &&
        set_option(c, section, "hostname", snapshot->hostname, stage) == 1 &&
        set_option(c, section, "type", device_type_name(snapshot->device_type), stage) == 1 &&
        (snapshot->nickname[0] == '\0' || set_option(c, section, "nickname", snapshot->nickname, stage) == 1) &&
        set_option_int(c, section, "access_host", snapshot->event_access_host, stage) == 1 &&
        (!is_new || set_option_long(c, section, "first_access_time", snapshot->first_access_time, stage) == 1) &&
        set_option_long(c, section, "access_time", snapshot->access_time, stage) == 1 &&
        commit_staged(c, pkg) == 1;
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

namespace
{

constexpr char CLEAN_CONFIG_FILE[] = "clean_config_file";

// Deletes every section of the package in the context; nullptr, or the
// failure word. uci_delete invalidates the element in hand, so each section
// is deleted only once the walk has moved on to the next.
const char *delete_all_sections(uci_context *ctx, uci_package *pkg)
{
    std::string previous;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        if (!previous.empty())
            if (const char *failure = delete_section_named(ctx, previous))
                return failure;
        previous = e->name;
    }
    return previous.empty() ? nullptr : delete_section_named(ctx, previous);
}

} // namespace

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
    if (const char *failure = delete_all_sections(ctx.get(), pkg)) {
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

// Changes that wait in the save directory (a writer killed between its save
// and its commit) are folded into the file first, as a rewrite by name
// would: the rewrite below works on the file alone, and changes left
// behind would later be replayed onto the new sections. Nothing is written
// when none wait.
void fold_waiting_changes(uci_context *ctx)
{
    uci_package *pkg = load_history(ctx);
    if (!pkg)
        return;
    uci_commit(ctx, &pkg, false);
    if (pkg)
        uci_unload(ctx, pkg);
}

// The package loaded by its path: it has no change file, so everything done
// to it stays in the context until its one commit writes the file whole.
uci_package *load_history_whole(uci_context *ctx)
{
    char path[UCI_TEXT_SIZE] = {};
    snprintf(path, sizeof(path), "%s/%s", HISTORY_CONFDIR, HISTORY_PACKAGE);
    uci_package *pkg = nullptr;
    if (uci_load(ctx, path, &pkg) != UCI_OK)
        return nullptr;
    return pkg;
}

// One record of the live list as a new section, staged.
int stage_record(uci_context *ctx, uci_package *pkg, const client_node *node)
{
    uci_section *s = nullptr;
    if (uci_add_section(ctx, pkg, HISTORY_SECTION_TYPE, &s) != UCI_OK || !s)
        return 0;
    char section[UCI_SECTION_NAME_SIZE] = {};
    snprintf(section, sizeof(section), "%s", s->e.name);
    constexpr write_mode stage = write_mode::stage;
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    mac_to_hex_text(node->mac, mac_text);
    return set_option(ctx, section, "mac", mac_text, stage) == 1 &&
           set_option(ctx, section, "hostname", node->hostname, stage) == 1 &&
           (node->nickname[0] == '\0' || set_option(ctx, section, "nickname", node->nickname, stage) == 1) &&
           set_option(ctx, section, "type", device_type_name(node->device_type), stage) == 1 &&
           set_option_int(ctx, section, "access_host", node->access_host, stage) == 1;
}

// The whole new package in one context, committed once: the file is the
// old one until the rename puts the new one in its place, and the result is
// what emptying the package and writing the records one option at a time
// gives.
int rewrite_from_list()
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_history_context();
    if (!ctx) {
        STEP_ERROR(CLEAN_CONFIG_FILE, "uci alloc context failed.");
        return 0;
    }
    fold_waiting_changes(ctx.get());
    // With no package there is nothing to empty, and only an empty list
    // has nothing to write either.
    uci_package *pkg = load_history_whole(ctx.get());
    if (!pkg)
        return get_history_list() ? 0 : 1;
    if (const char *failure = delete_all_sections(ctx.get(), pkg)) {
        STEP_ERROR(CLEAN_CONFIG_FILE, "%s", failure);
        return 0;
    }
    for (const client_node *n = get_history_list(); n; n = n->next) {
        if (stage_record(ctx.get(), pkg, n) != 1)
            return 0;
    }
    return commit_staged(ctx.get(), pkg);
}

} // namespace

int save_history_list() noexcept
{
    rwlock_read_guard hold(history_list_lock);
    if (rewrite_from_list() != 1) {
        STORE_ERROR("save config error.");
        return 0;
    }
    return 1;
}
