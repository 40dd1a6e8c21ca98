"""Datagrams in the Broadcom driver's event layout, as far as the daemon
reads it: interface name at 0 (16 bytes, NUL-padded), event type at 44
(big-endian), station MAC at 64. The rest of the driver's message is zeros,
padded to the length of a real association event."""
import struct

ASSOC_IND = 8
REASSOC_IND = 10
DISASSOC_IND = 12
DEAUTH = 5
DEAUTH_IND = 6
ASSOC_COMPLETE = 7  # the client side's own association; not a join

EVENT_SIZE = 160


def driver_event(ifname, event_type, mac, size=EVENT_SIZE):
    b = bytearray(max(size, 70))
    name = ifname.encode()[:16]
    b[0:len(name)] = name
    b[44:48] = struct.pack(">I", event_type)
    b[64:70] = bytes(int(x, 16) for x in mac.replace("-", ":").split(":"))
    return bytes(b[:size])
