#!/usr/bin/python3
"""Lab test of the IPv6 side of the scan, on the production daemon.

The LAN has a global /64 (2001:db8:1::/64, documentation space) on br-lan
beside the lab's ULA prefix. Clients: a dual-stack DHCP client with a
SLAAC-shaped (EUI-64) and a static global address, a client with three
static globals, an IPv6-only sensor (link-local and ULA only), and a Wi-Fi
station whose global address later stops answering, and an IPv6-only
station with an mDNS responder that is named over IPv6. The router's kernel
learns every address (the clients talk first, or the router sends to
them); the daemon's passes (every 14 s) solicit each one and read the
Advertisements. What the bus shows is read only once it has settled.
"""
import ipaddress
import os
import socket
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))
import labtest  # noqa: E402  (puts lab/ on sys.path)
from labtest import wait_until  # noqa: E402
from lanlab import Lab, util  # noqa: E402

PREFIX = "2001:db8:1"
FLAGS = ("access_limit", "speed_limit", "qos", "tfstats", "wireless", "qos_schedule",
         "high_bandwidth_occupancy", "lanroster_file")


def keys(v6):
    return dict({k: 0 for k in FLAGS}, online_type=2, v6=v6)


def dashed(mac):
    return mac.upper().replace(":", "-")


def eui64(prefix, mac):
    b = bytes.fromhex(mac.replace(":", ""))
    iid = bytes([b[0] ^ 2]) + b[1:3] + b"\xff\xfe" + b[3:]
    return str(ipaddress.IPv6Address(ipaddress.IPv6Address(prefix + "::").packed[:8] + iid))


def link_local(mac):
    return eui64("fe80:0:0:0", mac)


def rows(sb, v6):
    res = sb.ubus_call("lanroster", "get_hist_list_new", keys(v6)) or {}
    return {r["mac"]: r for r in res.get("client_list", [])}


def globals_of(row):
    n = row.get("global_ip_num", 0)
    return {row.get(f"ip6_global{i}"): row.get(f"global{i}_state") for i in range(1, n + 1)}


def add_globals(lab, c, addrs):
    util.ip_batch([f"addr add {a}/64 dev eth0 nodad" for a in addrs], ns=c.ns)


def router_sends(lab, addrs):
    """The router sends one datagram to each address: its kernel solicits
    and learns the neighbour."""
    with util.NetnsEntered(lab.router_ns):
        for a in addrs:
            s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
            try:
                s.sendto(b"lab", (a, 9))
            except OSError:
                pass
            finally:
                s.close()


def capture_solicitations(client, targets, want, timeout):
    """Multicast Neighbor Solicitations for `targets` that reach the client:
    whole frames, as its eth0 receives them."""
    packed = {ipaddress.IPv6Address(t).packed for t in targets}
    got = []
    with util.NetnsEntered(client.ns):
        s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x86dd))
    try:
        s.bind(("eth0", 0x86dd))
        s.settimeout(1.0)
        deadline = time.monotonic() + timeout
        seen = set()
        while time.monotonic() < deadline and len(seen) < want:
            try:
                f = s.recv(2048)
            except socket.timeout:
                continue
            if len(f) >= 86 and f[54] == 135 and f[0:2] == b"\x33\x33" and f[62:78] in packed:
                got.append(f)
                seen.add(f[62:78])
    finally:
        s.close()
    return got


def solicitation_fault(f, router_mac):
    """None when the frame is the daemon's solicitation to the letter, else
    what differs."""
    target = f[62:78]
    mac = bytes.fromhex(router_mac.replace(":", ""))
    group = ipaddress.IPv6Address("ff02::1:ff00:0").packed[:13] + target[13:]
    want = [
        (0, b"\x33\x33" + group[12:], "destination MAC"), (6, mac, "source MAC"),
        (12, b"\x86\xdd", "ethertype"), (18, b"\x00\x20", "payload length 32"),
        (20, b"\x3a", "next header ICMPv6"), (21, b"\xff", "hop limit 255"),
        (38, group, "solicited-node group"), (54, b"\x87\x00", "type 135, code 0"),
        (58, b"\x00\x00\x00\x00", "reserved"), (78, b"\x01\x01", "option 1, length 1"),
        (80, mac, "the bridge's MAC in the option"),
    ]
    if len(f) != 86:
        return f"frame of {len(f)} bytes"
    for at, value, what in want:
        if f[at:at + len(value)] != value:
            return f"{what}: {f[at:at + len(value)].hex()} at {at}, want {value.hex()}"
    if f[56:58] == b"\x00\x00":
        return "no checksum"
    return None


def test_ipv6_clients(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_port("wl0")
        util.ip_batch([f"addr add {PREFIX}::1/64 dev br-lan nodad"], ns=lab.router_ns)
        dual, multi, sensor, phone, cam = lab.add_clients([
            dict(name="dual", port="lan1", hostname="dual-pc", ipv6=True),
            dict(name="multi", port="lan1", dhcp=False, ipv6=True),
            dict(name="sensor", port="lan1", dhcp=False, ipv4=False),
            dict(name="phone", port="wl0", dhcp=False, ipv6=True),
            dict(name="cam", port="wl0", dhcp=False, ipv4=False, mdns="garden-cam")])
        dual_globals = [eui64(PREFIX, dual.mac), f"{PREFIX}::10"]
        multi_globals = [f"{PREFIX}::21", f"{PREFIX}::22", f"{PREFIX}::23"]
        phone_global = f"{PREFIX}::30"
        add_globals(lab, dual, dual_globals)
        add_globals(lab, multi, multi_globals)
        add_globals(lab, phone, [phone_global])
        everyone = dual_globals + multi_globals + [phone_global]
        router_sends(lab, everyone)

        sb = lab.sandbox()
        if not sb.start_ubusd():
            c.check(False, "ubusd built")
            return
        sb.sync_stations(signal=-50, rx_rate=100000, tx_rate=100000)
        sb.start_daemon()
        sb.wait_bus_object("lanroster", 30)

        def settled():
            router_sends(lab, everyone)   # keeps the router's entries fresh
            r = rows(sb, 1)
            want = {dashed(dual.mac): "TWO_ALIVE", dashed(multi.mac): "MORE_ALIVE",
                    dashed(sensor.mac): "ONE_ALIVE", dashed(phone.mac): "ONE_ALIVE"}
            return all(r.get(m, {}).get("global_state") == s for m, s in want.items()) and r

        r = wait_until(settled, 60)
        c.check(bool(r), "every client reaches its summary state",
                repr({m: x.get("global_state") for m, x in rows(sb, 1).items()}))
        r = r or rows(sb, 1)

        d = r.get(dashed(dual.mac), {})
        c.equal(globals_of(d), {a: "REACHABLE" for a in dual_globals},
                "dual stack: SLAAC-shaped and static global, both answered")
        c.equal(d.get("ip6_local"), link_local(dual.mac), "dual stack: its link-local address")
        c.check(d.get("ip", "0.0.0.0") != "0.0.0.0", "dual stack: its IPv4 address too")

        m = r.get(dashed(multi.mac), {})
        c.equal(set(globals_of(m)), set(multi_globals), "three globals listed")

        s = r.get(dashed(sensor.mac), {})
        c.equal(s.get("ip"), "0.0.0.0", "the sensor has no IPv4 address")
        ll = link_local(sensor.mac)
        c.equal(globals_of(s), {ll: "REACHABLE"},
                "the sensor's answering link-local address is listed as a global one; its ULA is not")
        c.check(dashed(sensor.mac) not in rows(sb, 0), "the IPv6-only sensor is absent with v6 0")
        c.check(dashed(dual.mac) in rows(sb, 0), "a dual-stack client is present with v6 0")
        c.check("global_state" not in rows(sb, 0).get(dashed(dual.mac), {}), "v6 0 adds no IPv6 keys")

        # An IPv6-only station: its link-local address is known from the
        # neighbour table, so the name probe asks it over IPv6 mDNS.
        def named():
            x = rows(sb, 1).get(dashed(cam.mac), {})
            return x.get("hostname") == "garden-cam" and x

        x = wait_until(named, 60)
        c.check(bool(x), "an IPv6-only station is named by reverse mDNS over IPv6",
                repr(rows(sb, 1).get(dashed(cam.mac))))
        c.equal((x or {}).get("ip6_local"), link_local(cam.mac), "the station's link-local address")
        c.check(any(q and ":" in q[-1] for q in lab.responder_queries(cam)),
                "the responder answered a query from an IPv6 peer", repr(lab.responder_queries(cam)))

        # Solicitations on the wire, as a client sees them during a pass.
        frames = capture_solicitations(multi, multi_globals, 3, 40)
        c.check(len(frames) >= 3, f"{len(frames)} solicitations for the three addresses captured")
        for f in frames[:3]:
            why = solicitation_fault(f, lab.router_mac)
            c.check(why is None, "a solicitation laid out byte for byte", why or "")

        # The phone's global address stops answering: a station's neighbour
        # entry still counts, as stale.
        util.ip_batch([f"addr del {phone_global}/64 dev eth0"], ns=phone.ns)

        def stale():
            x = rows(sb, 1).get(dashed(phone.mac), {})
            return x.get("global_state") == "ONE_STALE" and x

        p = wait_until(stale, 60)
        c.check(bool(p), "the station whose address fell silent shows ONE_STALE",
                repr(rows(sb, 1).get(dashed(phone.mac))))
        if p:
            c.equal(globals_of(p), {phone_global: "STALE"}, "its address listed as STALE")


if __name__ == "__main__":
    labtest.main([test_ipv6_clients])
