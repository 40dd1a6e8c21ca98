#!/usr/bin/python3
"""The router's neighbour table and bridge forwarding table show the clients
on their ports: switch ports, radio-named ports, ports of their own, a second
bridge, and an upstream gateway with its own clients (access-point mode)."""

import labtest
from labtest import wait_until
from lanlab import Lab, util


def neigh_macs(lab):
    return {addr: mac for addr, mac, state, dev in lab.neighbours() if mac}


def fdb_ports(lab, bridge="br-lan"):
    return {mac: port for mac, port, local in lab.fdb(bridge) if not local}


def test_router_lan(c):
    with Lab() as lab:
        for p in ("lan1", "wl0", "ath1"):
            lab.add_port(p)
        cl = lab.add_clients([
            dict(name="w1", port="lan1", hostname="w1"), dict(name="w2", port="lan1", dhcp=False),
            dict(name="r1", port="wl0", hostname="r1"), dict(name="r2", port="ath1"),
            dict(name="own", hostname="own"), dict(name="six", port="wl0", ipv4=False),
            dict(name="mute", port="lan1", dhcp=False, silent=True)])
        w1, w2, r1, r2, own, six, mute = cl
        talkers = [w1, w2, r1, r2, own]
        ok = wait_until(lambda: all(neigh_macs(lab).get(x.ip) == x.mac for x in talkers))
        c.check(ok, "neighbour table: every IPv4 client with its MAC", str(lab.neighbours()))
        n = neigh_macs(lab)
        c.equal(n.get(six.ip6_local), six.mac, "neighbour table: IPv6-only client by link-local")
        c.equal(n.get(six.ip6), six.mac, "neighbour table: IPv6-only client by ULA address")
        c.check(mute.ip not in n and mute.mac not in fdb_ports(lab), "silent client: unknown until asked")
        lab.poke([mute])
        c.check(wait_until(lambda: neigh_macs(lab).get(mute.ip) == mute.mac),
                "silent client answers ARP when the router asks")
        f = fdb_ports(lab)
        want = {w1.mac: "lan1", w2.mac: "lan1", r1.mac: "wl0", r2.mac: "ath1", own.mac: own.port.name,
                six.mac: "wl0"}
        c.equal({m: f.get(m) for m in want}, want, "forwarding table: each MAC on its port")
        c.check(own.port.name.startswith("port"), "a client without a port gets one of its own")
        st = lab.stations()
        c.equal(sorted(st), ["ath1", "wl0"], "stations: the radio ports")
        c.check((r1.mac, True) in st["wl0"] and (r2.mac, True) in st["ath1"], "stations: their clients")
        c.check(lab.client_by_mac(r1.mac.upper().replace(":", "-")) is r1, "client_by_mac")
        members = util.run(["ip", "netns", "exec", lab.router_ns, "ls",
                            "/sys/class/net/br-lan/brif"]).stdout.split()
        c.check({"lan1", "wl0", "ath1", own.port.name} <= set(members),
                "radio-named interfaces are members of br-lan", str(members))
        show = lab.showmacs()
        c.check(all(x.mac in show for x in talkers), "brctl showmacs br-lan lists them")
        # the daemon reads the same table through sysfs, with the port numbers
        brforward = util.run(["ip", "netns", "exec", lab.router_ns, "sh", "-c",
                              "od -An -v -tx1 /sys/class/net/br-lan/brforward | tr -d ' \\n'"]).stdout
        c.check(w1.mac.replace(":", "") in brforward, "sysfs brforward holds the client MAC")

        # a second bridge with a client of its own
        lab.add_bridge("br-guest", "192.168.2.1/24")
        lab.add_port("wl0.1", bridge="br-guest")
        g = lab.add_client("guest", port="wl0.1", dhcp=False, ip="192.168.2.50")
        c.check(wait_until(lambda: neigh_macs(lab).get("192.168.2.50") == g.mac),
                "second bridge: neighbour entry of its client")
        c.equal(fdb_ports(lab, "br-guest").get(g.mac), "wl0.1", "second bridge: its forwarding table")
        c.check(g.mac not in fdb_ports(lab), "second bridge's client is not on br-lan")


def test_access_point(c):
    with Lab(mode="ap") as lab:
        gw = lab.add_gateway()
        lab.add_port("wl0")
        up1, up2 = lab.add_clients([dict(name="up1", port="@gateway", hostname="upstairs"),
                                    dict(name="up2", port="@gateway", dhcp=False)])
        mine = lab.add_client("mine", port="wl0", hostname="mine")
        c.check(mine.ip and mine.ip.startswith(lab.subnet + "."), "AP mode: the gateway's DHCP serves our client")
        leases = {row[1]: row[3] for row in lab.leases()}
        c.equal(leases.get(mine.mac), "mine", "AP mode: lease written by the gateway's dnsmasq")
        c.equal(lab.router_ip, f"{lab.subnet}.2", "AP mode: the node has a plain LAN address")
        lab.poke([up1, up2])
        f = wait_until(lambda: (lambda f: f if f.get(up1.mac) and f.get(up2.mac) else None)(fdb_ports(lab)))
        c.equal({m: (f or {}).get(m) for m in (up1.mac, up2.mac)},
                {up1.mac: "uplink", up2.mac: "uplink"}, "gateway's clients sit behind the uplink port")
        lab.poke_address(gw.address)
        c.check(wait_until(lambda: neigh_macs(lab).get(gw.address) == "02:4c:52:00:00:fe"),
                "neighbour table: the gateway with its MAC")


if __name__ == "__main__":
    labtest.main([test_router_lan, test_access_point])
