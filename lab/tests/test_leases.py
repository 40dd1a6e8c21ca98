#!/usr/bin/python3
"""dnsmasq on br-lan writes the lease file with the clients' names."""
import labtest
from lanlab import Lab


def names_by_mac(lab):
    return {row[1]: (row[2], row[3]) for row in lab.leases()}


def test_leases(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_port("wl0")
        a, b, s, v6 = lab.add_clients([
            dict(name="alpha", port="lan1", hostname="alpha-host"),
            dict(name="beta", port="wl0"),
            dict(name="gamma", port="lan1", dhcp=False),
            dict(name="delta", port="wl0", ipv4=False)])
        leases = names_by_mac(lab)
        c.equal(leases.get(a.mac), (a.ip, "alpha-host"), "named client: its name in the lease file")
        c.equal(leases.get(b.mac), (b.ip, "*"), "nameless client: \"*\" in the lease file")
        c.check(s.mac not in leases and s.ip, "static client: an address and no lease")
        c.check(v6.mac not in leases and v6.ip is None, "IPv6-only client: no IPv4 lease")
        c.check(lab.lease_file.endswith("dhcp.leases"), "lease file path")

        lab.change_name(a, "alpha-renamed")
        c.equal(names_by_mac(lab).get(a.mac), (a.ip, "alpha-renamed"), "new name reaches the lease file")
        lo, hi = lab.dhcp_range
        new_ip = f"{lab.subnet}.{hi - 3}"
        lab.change_ip(b, new_ip)
        c.equal(names_by_mac(lab).get(b.mac), (new_ip, "*"), "new address reaches the lease file")
        c.equal(b.ip, new_ip, "client holds the new address")
        sb = lab.sandbox()
        with open(sb.path("/tmp/dhcp.leases")) as f:
            inside = f.read()
        c.check(inside == "", "run's /tmp/dhcp.leases is the mount point (empty on the host side)")
        r = sb.run(["cat", "/tmp/dhcp.leases"])
        c.check(a.mac in r.stdout and "alpha-renamed" in r.stdout,
                "the sandbox sees the LAN's lease file at /tmp/dhcp.leases", r.stderr)
        r = sb.run(["sh", "-c", "uci -c /etc/config get dhcp.@dnsmasq[0].leasefile 2>/dev/null || "
                                "grep leasefile /etc/config/dhcp"])
        c.check("/tmp/dhcp.leases" in r.stdout, "UCI dhcp.leasefile names it", r.stdout + r.stderr)


if __name__ == "__main__":
    labtest.main([test_leases])
