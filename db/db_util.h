// Small UCI and text helpers shared by the data sources.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/openwrt.h"
#include "core/uci_util.h"

// Where the packages of the other services lie.
inline constexpr const char *DB_CONFDIR = UCI_CONFIG_DIR;

// Thin layers on uci_lookup_next; nullptr when the lookup fails.
uci_option *uci_find_option(uci_context *ctx, uci_section *section, const char *name) noexcept;
// nullptr also when the option is a list.
const char *uci_option_string(uci_context *ctx, uci_section *section, const char *name) noexcept;
uci_section *uci_find_section(uci_context *ctx, uci_package *package, const char *name) noexcept;

// The scope of the update_* mirrors: a null list means all clients.
struct mac_list {
    uint8_t (*macs)[6];
    int32_t count;
};

// 1 when `mac` equals a row of `list`; 0 otherwise, also for null
// arguments or a count below 1.
int mac_in_list(const uint8_t mac[6], const mac_list *list) noexcept;

// A MAC option of another service: exactly 17 characters, each pair read
// as hex at a stride of 3, so any separator passes. -1 when the length is
// wrong (nothing written). The first pair that isn't hex ends the
// conversion; the bytes before it stay. Returns the pairs converted.
int mac_text_to_bytes17(const char *text, uint8_t out[6]) noexcept;

// inet_pton of a dotted quad into network order; 0 and *out 0 on a bad
// text, 1 on success, -1 for a null argument.
int ipv4_text_to_u32(const char *text, uint32_t *out) noexcept;

// 1 when the text has 17 characters, isn't "00-00-00-00-00-00" and doesn't
// begin with a zero byte; else 0.
int mac_text_is_set(const char *text) noexcept;

void mac_copy(uint8_t out[6], const uint8_t in[6]) noexcept;

// The first two words of `text` separated by any of `delimiters`. A word
// that isn't there leaves its buffer as it was; a word longer than its
// buffer keeps what fits, so outside text can never overrun it.
void split_two_words(std::string_view text, std::string_view delimiters, char *first, size_t first_size,
                     char *second, size_t second_size) noexcept;

// Day names in groups of three characters after white space, matched
// exactly against "Sun" .. "Sat": bit 0 is Sunday, bit 6 Saturday.
uint8_t weekdays_to_mask(const char *text) noexcept;

// Begin and end of a schedule from the options `slots` and
// `slots_next_day` (either may be null): "HHMM HHMM" each. The first byte
// stays 0xff (no slot) unless `slots` has two words.
void parse_time_slots(const char *slots, const char *slots_next_day, uint8_t out[4]) noexcept;
