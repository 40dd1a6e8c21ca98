// The five methods that change what the daemon knows about a client at a
// user's request: nickname, device type, removal, and the consent to the
// recognition service.
//
// Each compose_* function checks a request and does its work, the write to
// flash included, and leaves the reply in reply_buf; it returns false when
// the request gets no reply at all (a message that fails the parse or lacks
// a key). The handlers send what they composed.
#pragma once

#include <cstdint>

#include "core/openwrt.h"

// Reply values of the key `code`.
inline constexpr int32_t CMD_CODE_DONE = 0;
inline constexpr int32_t CMD_CODE_REFUSED = 1;
inline constexpr int32_t CMD_CODE_UNKNOWN_MAC = 2;

// Longest nickname and device type name a request may carry.
inline constexpr size_t NICKNAME_MAX = 64;
inline constexpr size_t DEVICE_TYPE_NAME_MAX = 32;

bool compose_offline_device_delete(blob_attr *msg) noexcept;
bool compose_device_nickname_set(blob_attr *msg) noexcept;
bool compose_device_type_set(blob_attr *msg) noexcept;
bool compose_remove_device_by_mac(blob_attr *msg) noexcept;
bool compose_update_fing_auth_status(blob_attr *msg) noexcept;
