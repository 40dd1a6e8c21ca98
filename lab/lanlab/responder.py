#!/usr/bin/python3
"""Name responder of a lab client: answers reverse mDNS PTR queries for the
client's own IPv4 and link-local IPv6 address (legacy unicast, to the
querier's port) and NetBIOS node status queries on UDP 137.

Runs inside the client's network namespace. Writes the --ready file once all
sockets are bound, and one line per answered query to --log."""
import argparse
import ipaddress
import select
import socket
import struct
import sys

MDNS_V4 = "224.0.0.251"
MDNS_V6 = "ff02::fb"


def own_ipv4(ifname="eth0"):
    import fcntl
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        req = struct.pack("256s", ifname.encode())
        return socket.inet_ntoa(fcntl.ioctl(s.fileno(), 0x8915, req)[20:24])  # SIOCGIFADDR
    except OSError:
        return None
    finally:
        s.close()


def own_ipv6_local(ifname="eth0"):
    try:
        with open("/proc/net/if_inet6") as f:
            for line in f:
                addr, _idx, _plen, scope, _flags, dev = line.split()
                if dev == ifname and scope == "20":
                    return str(ipaddress.IPv6Address(bytes.fromhex(addr)))
    except OSError:
        pass
    return None


def parse_question(pkt):
    """(labels, end offset) of the first question, or None."""
    if len(pkt) < 12 or struct.unpack("!H", pkt[4:6])[0] < 1:
        return None
    labels, off = [], 12
    while off < len(pkt):
        n = pkt[off]
        if n == 0:
            off += 1
            break
        if n & 0xC0 or off + 1 + n > len(pkt):
            return None
        labels.append(pkt[off + 1:off + 1 + n].decode("ascii", "replace").lower())
        off += 1 + n
    if off + 4 > len(pkt):
        return None
    return labels, off + 4


def reverse_name(addr):
    return [x.lower() for x in ipaddress.ip_address(addr).reverse_pointer.split(".")]


def mdns_answer(pkt, qend, name):
    rdata = b"".join(bytes([len(p.encode())]) + p.encode() for p in (name, "local")) + b"\0"
    header = pkt[0:2] + struct.pack("!HHHHH", 0x8400, 1, 1, 0, 0)
    answer = struct.pack("!HHHIH", 0xC00C, 12, 1, 120, len(rdata)) + rdata
    return header + pkt[12:qend] + answer


def netbios_answer(pkt, name, workgroup):
    def entry(text, suffix, flags):
        return text.upper().encode()[:15].ljust(15) + bytes([suffix]) + struct.pack("!H", flags)
    names = [entry(name, 0x00, 0x0400), entry(workgroup, 0x00, 0x8400), entry(name, 0x20, 0x0400)]
    rdata = bytes([len(names)]) + b"".join(names) + bytes(46)
    header = pkt[0:2] + struct.pack("!HHHHH", 0x8400, 0, 1, 0, 0)
    qname = pkt[12:46]
    return header + qname + struct.pack("!HHIH", 0x21, 1, 0, len(rdata)) + rdata


# Replies no real responder sends, for the daemon's parsers (--mode).
MODES = ("normal", "truncated", "oversized", "loop", "sixteen", "highbytes")


def malformed_netbios(reply, mode):
    if mode == "truncated":
        return reply[:60]
    if mode == "oversized":
        table = b"".join(b"X%02d".ljust(15) % i + b"\xff\x84\x00" for i in range(80))
        return reply[:56] + bytes([255]) + table + b"\xee" * 600
    if mode == "sixteen":
        # the first name fills all 16 bytes: no terminator before the flags
        return reply[:57] + b"ABCDEFGHIJKLMNOP" + reply[73:]
    return reply


def malformed_mdns(reply, qend, mode):
    if mode == "truncated":
        return reply[:qend + 14]
    if mode == "oversized":
        return reply[:qend + 10] + struct.pack("!H", 1200) + (b"\x3f" + b"o" * 63) * 20 + b"\0" * 900
    if mode == "loop":
        # the answer's data points at itself
        return reply[:qend + 10] + struct.pack("!HH", 2, 0xC000 | (qend + 12))
    return reply


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--mdns")
    ap.add_argument("--netbios")
    ap.add_argument("--workgroup", default="WORKGROUP")
    ap.add_argument("--ready")
    ap.add_argument("--log")
    ap.add_argument("--ifname", default="eth0")
    ap.add_argument("--mode", choices=MODES, default="normal")
    a = ap.parse_args()
    socks = {}
    if a.mdns:
        s4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s4.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s4.bind(("0.0.0.0", 5353))
        # ip_mreqn: group, local address 0, interface index
        mreqn = socket.inet_aton(MDNS_V4) + socket.inet_aton("0.0.0.0") + \
            struct.pack("=i", socket.if_nametoindex(a.ifname))
        s4.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, mreqn)
        socks[s4] = "mdns4"
        s6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        s6.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        s6.bind(("::", 5353))
        s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
                      socket.inet_pton(socket.AF_INET6, MDNS_V6) +
                      struct.pack("=I", socket.if_nametoindex(a.ifname)))
        socks[s6] = "mdns6"
    if a.netbios:
        sn = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sn.bind(("0.0.0.0", 137))
        socks[sn] = "netbios"
    logf = open(a.log, "a", buffering=1) if a.log else None
    if a.ready:
        open(a.ready, "w").close()
    while True:
        ready, _, _ = select.select(list(socks), [], [])
        for s in ready:
            kind = socks[s]
            pkt, peer = s.recvfrom(2048)
            reply = None
            if kind == "netbios":
                if len(pkt) >= 50 and pkt[46:48] == b"\x00\x21":
                    reply = malformed_netbios(netbios_answer(pkt, a.netbios, a.workgroup), a.mode)
            else:
                q = parse_question(pkt)
                if q and struct.unpack("!H", pkt[2:4])[0] & 0x8000 == 0:
                    labels, qend = q
                    own = own_ipv4(a.ifname) if kind == "mdns4" else own_ipv6_local(a.ifname)
                    if own and labels == reverse_name(own) and \
                            struct.unpack("!H", pkt[qend - 4:qend - 2])[0] == 12:
                        reply = malformed_mdns(mdns_answer(pkt, qend, a.mdns), qend, a.mode)
            if reply is not None:
                try:
                    s.sendto(reply, peer)
                except OSError as e:
                    print(f"reply to {peer}: {e}", file=sys.stderr, flush=True)
                if logf:
                    logf.write(f"{kind} {peer[0]}\n")


if __name__ == "__main__":
    main()
