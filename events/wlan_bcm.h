// The Broadcom adapter: the driver sends its event messages as UDP
// datagrams to 127.0.0.1 port 44032. Only three fields are read: the
// interface name, the event type and the station's MAC; the rest of the
// driver's message is not examined.
#pragma once

#include <cstddef>
#include <cstdint>

#include "events/assoc.h"
#include "events/wlan_ops.h"

inline constexpr uint16_t BCM_EVENT_PORT = 44032;
inline constexpr size_t BCM_IFNAME_OFFSET = 0;
inline constexpr size_t BCM_IFNAME_SIZE = 16;
inline constexpr size_t BCM_TYPE_OFFSET = 44;
inline constexpr size_t BCM_MAC_OFFSET = 64;
// A datagram shorter than this cannot hold the three fields.
inline constexpr size_t BCM_EVENT_MIN_SIZE = BCM_MAC_OFFSET + 6;

// Event types of the driver that move a client.
enum : uint32_t {
    BCM_E_DEAUTH = 5,
    BCM_E_DEAUTH_IND = 6,
    BCM_E_ASSOC_IND = 8,
    BCM_E_REASSOC_IND = 10,
    BCM_E_DISASSOC_IND = 12,
};

extern const wlan_ops wlan_ops_bcm;

int wlan_aware_init_bcm(nl_event_socket *rec, uloop_fd_handler cb) noexcept;
// The driver sends its events unasked: nothing to enable, always 0.
int enable_assoc_event_bcm(const char ifname[16]) noexcept;
// Parses the copy, hands a join or leave of a LAN radio to
// assco_event_handler, frees `msg`. Always 0.
int wlan_event_handle_bcm(nl_event_msg *msg) noexcept;

// The parse alone: 1 and `event` filled when `len` bytes at `buf` are an
// association or a leave on a radio member of "br-lan", else 0. Never reads
// past `len`.
int bcm_event_parse(const uint8_t *buf, size_t len, assoc_event *event) noexcept;
