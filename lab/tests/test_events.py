#!/usr/bin/python3
"""Scripted events (leave, silence, come back, new address, new name, move,
namespace removed) and the name responders, probed the way the daemon
probes: reverse mDNS PTR over IPv4 and IPv6 and NetBIOS node status."""
import ipaddress
import select
import socket
import struct

import labtest
from labtest import wait_until
from lanlab import Lab, util


def neigh(lab):
    return {addr: (mac, state) for addr, mac, state, dev in lab.neighbours()}


def reachable(lab, c, timeout=3.0):
    """The router asks the client (ARP) and sees whether it answered. An
    answer comes within milliseconds, so the wait for no answer is short."""
    util.run(["ip", "-n", lab.router_ns, "neigh", "flush", "to", c.ip], check=False)
    lab.poke([c])
    return wait_until(lambda: neigh(lab).get(c.ip, (None, ""))[1] in ("REACHABLE", "STALE", "DELAY"),
                      timeout)


def unreachable(lab, c):
    return not reachable(lab, c, timeout=1.0)


def fdb_port(lab, c):
    return {mac: port for mac, port, local in lab.fdb() if not local}.get(c.mac)


def mdns_v4_query(ip, qid):
    labels = b"".join(bytes([len(o)]) + o.encode() for o in reversed(ip.split(".")))
    pkt = struct.pack("!HHHHHH", qid, 0, 1, 0, 0, 0) + labels + b"\x07in-addr\x04arpa\x00"
    return pkt + struct.pack("!HH", 12, 1), len(labels)


def mdns_v6_query(ip6, qid):
    hexd = "".join(f"{b:02X}" for b in ipaddress.IPv6Address(ip6).packed)
    labels = b"".join(b"\x01" + ch.encode() for ch in reversed(hexd))
    return struct.pack("!HHHHHH", qid, 0, 1, 0, 0, 0) + labels + b"\x03ip6\x04arpa\x00" + \
        struct.pack("!HH", 12, 1)


def recv(s, timeout=2.0):
    r, _, _ = select.select([s], [], [], timeout)
    return s.recv(1024) if r else b""


def probe_mdns_v4(lab, c):
    with util.NetnsEntered(lab.router_ns):
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind((lab.router_ip, 0))
        pkt, L = mdns_v4_query(c.ip, 0x1001)
        s.sendto(pkt, ("224.0.0.251", 5353))
        reply = recv(s)
        s.close()
    if len(reply) < L + 30 or reply[0:2] != b"\x10\x01" or reply[6:8] != b"\x00\x01":
        return None
    n = reply[L + 42]
    return reply[L + 43:L + 43 + n].decode() if L + 49 + n <= len(reply) else None


def probe_mdns_v6(lab, c):
    with util.NetnsEntered(lab.router_ns):
        s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
        s.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"br-lan")
        s.bind(("::", 0))
        pkt = mdns_v6_query(c.ip6_local, 0x1002)
        s.sendto(pkt, ("ff02::fb", 5353, 0, socket.if_nametoindex("br-lan")))
        reply = recv(s)
        s.close()
    if len(pkt) != 90 or len(reply) < 103 or reply[6:8] != b"\x00\x01":
        return None
    n = min(reply[102], 64)
    return reply[103:103 + n].decode() or None


def probe_netbios(lab, c):
    q = struct.pack("!HHHHHH", 0x1003, 0, 1, 0, 0, 0) + b"\x20CK" + b"A" * 30 + b"\x00" + \
        struct.pack("!HH", 0x21, 1)
    with util.NetnsEntered(lab.router_ns):
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.sendto(q, (c.ip, 137))
        reply = recv(s)
        s.close()
    ok = len(q) == 50 and len(reply) > 75 and reply[0:2] == b"\x10\x03" and reply[6] == 0 and \
        reply[7] == 1 and reply[46] == 0 and reply[47] == 0x21 and reply[56] != 0
    if not ok:
        return None
    name = reply[57:73].split(b"\0")[0][:15].rstrip().decode()
    group = reply[75:90].rstrip().decode() if reply[75 + 16] & 0x80 else None
    return name, group


def test_responders(c):
    with Lab() as lab:
        lab.add_port("lan1")
        tv, mute, plain = lab.add_clients([
            dict(name="tv", port="lan1", hostname="tv", mdns="living-room-tv", netbios="LIVINGTV",
                 workgroup="HOME"),
            dict(name="plain", port="lan1", dhcp=False, mdns="plain-box"),
            dict(name="noname", port="lan1")])
        c.equal(probe_mdns_v4(lab, tv), "living-room-tv", "reverse mDNS over IPv4 names the client")
        c.equal(probe_mdns_v6(lab, tv), "living-room-tv", "reverse mDNS over IPv6 (link-local) names it")
        c.equal(probe_netbios(lab, tv), ("LIVINGTV", "HOME"), "NetBIOS node status: name and workgroup")
        c.equal(probe_mdns_v4(lab, mute), "plain-box", "static client answers mDNS too")
        c.equal(probe_mdns_v4(lab, plain), None, "a client without a responder stays unnamed")
        c.equal(probe_netbios(lab, mute), None, "no NetBIOS where none is configured")
        c.check(len(lab.responder_queries(tv)) >= 3, "responder logs what it answered")
        lab.change_name(tv, "den-tv")
        c.equal(probe_mdns_v4(lab, tv), "den-tv", "a new name reaches the responder")
        lab.change_ip(tv, f"{lab.subnet}.{lab.dhcp_range[1] - 1}")
        c.equal(probe_mdns_v4(lab, tv), "den-tv", "the responder follows a new address")


def test_events(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_port("wl0")
        a, b, own = lab.add_clients([dict(name="a", port="lan1", hostname="a"),
                                     dict(name="b", port="wl0", dhcp=False),
                                     dict(name="own", hostname="own")])
        c.check(reachable(lab, a) and reachable(lab, b), "clients answer")
        lab.leave(own, "down")
        carrier = util.run(["ip", "-n", lab.router_ns, "link", "show", own.port.name]).stdout
        c.check("NO-CARRIER" in carrier or "LOWERLAYERDOWN" in carrier, "link down: the router port loses carrier")
        c.check(fdb_port(lab, own) is None, "link down: the bridge forgets its MAC")
        c.check(unreachable(lab, own), "link down: no ARP answer")
        lab.come_back(own)
        c.check(reachable(lab, own) and fdb_port(lab, own) == own.port.name, "back on its own port")
        lab.silence(b)
        c.check(reachable(lab, b), "silent: still answers ARP")
        lab.silence(b, arp=False)
        c.check(unreachable(lab, b), "silent with arp=False: nothing answers")
        lab.come_back(b)
        c.check(reachable(lab, b), "back from silence")
        lab.move(a, "wl0")
        c.check(wait_until(lambda: fdb_port(lab, a) == "wl0"), "moved: its MAC on the new port")
        c.check(reachable(lab, a), "moved: still reachable on its address")
        new_ip = f"{lab.subnet}.{lab.dhcp_range[0] + 40}"
        lab.change_ip(a, new_ip)
        c.check(a.ip == new_ip and reachable(lab, a), "new address answers")
        lab.change_ip(b, f"{lab.subnet}.77")
        c.check(reachable(lab, b), "static client on a new address")
        lab.leave(a, "remove")
        c.check(a.ns not in util.list_netns(), "removed: the namespace is gone")
        c.check(unreachable(lab, a), "removed: no answer")
        a2 = lab.come_back(a)
        c.check(a2.ns in util.list_netns() and a2.mac == a.mac and reachable(lab, a2),
                "comes back with the same MAC")
        c.check(wait_until(lambda: fdb_port(lab, a2) == "wl0"), "comes back on the port it left")


if __name__ == "__main__":
    labtest.main([test_responders, test_events])
