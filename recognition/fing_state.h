// The recognition state of each client: package "fing" kept as a delta file
// under "/var/state", so that its frequent writes never reach flash and shell
// scripts can read and change it with `uci -P /var/state`. The daemon and the
// scripts share the file; a value lost in a race is learnt again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

inline constexpr char FING_PACKAGE[] = "fing";
inline constexpr char FING_STATE_DIR[] = "/var/state";
inline constexpr char FING_DELTA_FILE[] = "/var/state/fing";
inline constexpr char FING_DELETE_DIR[] = "/tmp/fing";
inline constexpr char FING_DELETE_FILE[] = "/tmp/fing/fing_delete_mac";
inline constexpr char FING_GLOBAL_SECTION[] = "global";
inline constexpr char FING_SECTION_TYPE[] = "state";
// At most this many client sections stay in the store.
inline constexpr int FING_STATE_ROWS = 200;
// A section name is the MAC as twelve hex digits.
inline constexpr size_t FING_MAC_TEXT = 12;

struct fing_state_row {
    char mac_text[13];
    uint8_t has_dhcp_params;
    uint8_t has_params_error;
    uint8_t http_upload;
    uint8_t has_http_user_agent;
};

// A snapshot for the report passes, rebuilt by fing_state_load_table.
extern int32_t fing_state_count;
extern fing_state_row fing_state_table[FING_STATE_ROWS];

// Replaces in place every byte outside 0x20..0x7E by '^'. 1 when the text
// is not null and not empty, else 0.
int fing_text_clean(char *text) noexcept;

// Reads package.section.option into out (at most size - 1 bytes, always
// terminated). 0, also when the value does not exist (out is then left as
// it was); -1 for bad arguments or when no UCI context can be had.
int fing_state_get(const char *package, const char *section, const char *option, char *out,
                   size_t size) noexcept;
// 0, or -1. A value equal to the stored one writes nothing.
int fing_state_set(const char *package, const char *section, const char *option, const char *value) noexcept;
// Makes the section exist, through the uci command so that scripts see it at
// once. 1 it was there, 0 made, -1 bad arguments or the command failed.
int fing_state_ensure(const char *package, const char *section) noexcept;
// Removes the oldest client section of the delta file. 0, or -1 when there
// is none or the file does not open.
int fing_state_evict_one() noexcept;
// Fills the table from the store. -1 only when no UCI context can be had.
int fing_state_load_table() noexcept;
// -1 for a null MAC; else 0, the outputs untouched when the MAC is not in
// the table.
int fing_state_lookup(const char *mac_text, uint8_t *has_dhcp_params, uint8_t *has_params_error) noexcept;
int fing_state_lookup_http(const char *mac_text, uint8_t *has_http_user_agent, uint8_t *http_upload) noexcept;
int fing_state_set_http_upload(const char *mac_text, uint8_t value) noexcept;
// Repairs mac_num and trims the store to its limit. 0, or -1 when the delta
// file does not open.
int fing_state_resync() noexcept;
// Reverts the sections named in FING_DELETE_FILE and removes the file. 0,
// or -1 when the file does not open.
int fing_state_delete_listed() noexcept;

// The client section named by a line of the delta file: true for a line
// "fing.<12 characters>=state", the value bare or quoted as libuci writes
// it. The name goes to `name` (13 bytes).
bool fing_state_section_line(std::string_view line, std::span<char, 13> name) noexcept;
// Whether `text` is a UCI name the store accepts: letters, digits and '_'.
bool fing_state_name_ok(const char *text) noexcept;
// The section name of a MAC: twelve upper-case hex digits.
void fing_mac_text(const uint8_t mac[6], char out[13]) noexcept;
