// The history store: one anonymous section of type "list" per known client
// in the UCI package "history_list" under "/etc/config".
//
// Every function takes uci_lock and a fresh UCI context, and frees it. They
// return 1 for success and 0 for failure unless said otherwise; a failure is
// printed in the error form and never stops the caller. The file is current
// when a function returns; the working copy lives in RAM and reaches flash
// only through "saveconfig". A client's section and the full rewrite reach
// the file in one commit each, so a kill, a full disk or the daily flash
// save never finds them half-written.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/openwrt.h"

struct client_node;

inline constexpr char HISTORY_CONFDIR[] = "/etc/config";
inline constexpr char HISTORY_PACKAGE[] = "history_list";
inline constexpr char HISTORY_SECTION_TYPE[] = "list";
inline constexpr char CRONTAB_PATH[] = "/etc/crontabs/root";

// Sizes of the store's text buffers: a change text, a MAC text, a section name.
inline constexpr size_t UCI_TEXT_SIZE = 256;
inline constexpr size_t UCI_MAC_TEXT_SIZE = 19;
inline constexpr size_t UCI_SECTION_NAME_SIZE = 65;

// Looks up "package.section.option=value" and sets, saves and commits it.
int uci_set_by_string(uci_context *ctx, const char *package, const char *text) noexcept;

// 1 and the section's name in `section_out` (UCI_SECTION_NAME_SIZE bytes)
// when a section's `mac` option equals `mac_text`; else 0.
int uci_dev_mac_in_cfg_file(uci_context *ctx, const char *package, const char *mac_text,
                            char *section_out) noexcept;

// Rows of the status callbacks; they take an event snapshot.
int uci_update_cfg_file(client_node *snapshot) noexcept;
int uci_update_access_time(client_node *snapshot) noexcept;
int uci_update_leave_time(client_node *snapshot) noexcept;

// Drops the client's recognition state and deletes its section. 1 when a
// section was deleted, 0 when there was none or a step failed.
int uci_delete_section_by_node(const client_node *node) noexcept;

// The user's type (-1: leave it) and nickname, then "saveconfig" to flash.
int save_user_set_to_flash(const uint8_t mac[6], int type_index, const char *nickname) noexcept;

// Rewrites the package from the live list in one commit; the time options
// are lost. On failure the file is left as it was.
int save_history_list() noexcept;
int clean_config_file() noexcept;

// Start-up: every section becomes an offline record, in reversed order.
void load_history_list_config() noexcept;

// A recognition result for the client with `client->mac`; `client` carries
// the type that was found. Always 0. The caller holds history_list_lock.
int write_to_history_list(const client_node *client, const char *brand, const char *system_version,
                          int http_upload) noexcept;

// Adds the daily "saveconfig" line to the crontab unless one is there.
void ensure_crontab_line() noexcept;
