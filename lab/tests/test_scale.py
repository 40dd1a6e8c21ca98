#!/usr/bin/python3
"""250 clients come up in under a minute; all reach the router's tables."""
import labtest
from labtest import wait_until
from lanlab import Lab, scenarios

COUNT = 250
LIMIT_S = 60.0


def test_scale(c):
    with Lab(dhcp_range=(253 - COUNT // 2, 254)) as lab:
        took = scenarios.scale(lab, COUNT, dhcp_share=0.5)
        print(f"scale: {COUNT} clients up in {took:.2f} s (limit {LIMIT_S:.0f} s)", flush=True)
        c.check(took < LIMIT_S, f"{COUNT} clients up in under {LIMIT_S:.0f} s")
        c.equal(len(lab.leases()), COUNT // 2, "half of them hold DHCP leases")
        want = {x.ip: x.mac for x in lab.clients.values()}
        seen = wait_until(lambda: (lambda n: n if all(n.get(ip) == m for ip, m in want.items()) else None)(
            {a: m for a, m, s, d in lab.neighbours()}), 10)
        c.check(bool(seen), "every client is in the router's neighbour table")
        macs = {m for m, p, local in lab.fdb() if not local}
        c.check(set(want.values()) <= macs, "every client is in the forwarding table")


if __name__ == "__main__":
    labtest.main([test_scale])
