// Text forms of a MAC address on the bus. Replies always use the dashed
// upper-case form AA-BB-CC-DD-EE-FF, made by the registry's one formatter.
#pragma once

#include <cstdint>

#include "registry/client_node.h"

// 0 when `text` has 12 hex digits, or 17 characters with ':' or '-' (mixed
// allowed) at every third position and hex digits elsewhere; else -1.
int mac_text_valid(const char *text) noexcept;

// Fills 6 bytes; before each pair one ':' or '-' is skipped. -1 on a null
// text or a character that isn't a hex digit (bytes already written stay).
int mac_text_to_bytes(const char *text, uint8_t out[6]) noexcept;

// 17 characters and a terminator, as AA-BB-CC-DD-EE-FF.
inline void mac_bytes_to_text(const uint8_t bytes[6], char *out) noexcept
{
    mac_to_dash_text(bytes, out);
}

// The loose reader of the mac_oui object: `separator`, when not null, is
// skipped before a pair where it stands. The first character of a pair
// must be a hex digit; the second is taken as it comes (digits and a-f as
// usual, anything else as c - 'A' + 10 OR-ed into the low bits), except
// that the end of the text is never read past. -1 on a null argument or a
// bad first character.
int macstr2num(const char *text, uint8_t out[6], const char *separator) noexcept;
