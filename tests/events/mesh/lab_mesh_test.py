#!/usr/bin/python3
"""Mesh peers' client lists through the real daemon: each list is sent as
the bus event "lanroster.meshd_client_update" with the `ubus` tool in the
sandbox, and the result is read back with get_hist_list_new once it has
settled."""
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
sys.path.insert(0, os.path.join(ROOT, "lab", "tests"))

import labtest  # noqa: E402
from labtest import wait_until  # noqa: E402
from lanlab import Lab  # noqa: E402

PEER_A = "02-4D-00-00-00-0A"
PEER_B = "02-4D-00-00-00-0B"


def entry(mac, **kw):
    e = {"mac": mac, "ip": "192.168.1.180", "name": "peer-side-name", "guest": "MAIN",
         "connection_type": 2, "client_type": 0, "signal_strength": -55, "rxrate": 866, "txrate": 650}
    e.update(kw)
    for k in [k for k, v in e.items() if v is None]:
        del e[k]
    return e


def send(sb, device_mac, clients, device_id="NODE-PEER"):
    msg = {"device_mac": device_mac, "device_id": device_id, "client_num": len(clients),
           "mesh_client_list": clients}
    res = sb.ubus("send", "lanroster.meshd_client_update", json.dumps(msg))
    return res.returncode == 0


def by_mac(sb):
    return {r["mac"]: r for r in sb.hist_list()}


def online(sb, mac):
    return by_mac(sb).get(mac, {}).get("connect_status") == 1


def test_mesh_peers(c):
    with Lab() as lab:
        lab.add_port("lan1")
        tv, = lab.add_clients([dict(name="tv", port="lan1", hostname="living-room-tv")])
        tv_mac = tv.mac.upper().replace(":", "-")
        sb = lab.sandbox()
        c.check(sb.start_ubusd(), "ubusd starts")
        sb.start_daemon()
        sb.wait_bus_object("lanroster", 30)
        c.check(wait_until(lambda: online(sb, tv_mac), 30), "the scan finds the wired client")
        # Level 7 shows when the daemon has dealt with a list it ignores. The
        # event is a task like the lists: its effect is awaited, a pass (asked
        # for by "update") then prints lines of that level.
        sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 7}))

        def level_7():
            sb.ubus_call("lanroster", "update", {})
            return "|level:7|" in sb.console()
        c.check(wait_until(level_7, 20), "log level 7 is in force")

        # Two clients of peer A come up with A's MAC.
        c.check(send(sb, PEER_A, [entry("02:4d:00:00:10:01", ip="192.168.1.181"),
                                  entry("02-4D-00-00-10-02", connection_type=1, client_type=3)],
                     "NODE-A"), "ubus send of A's list")
        c.check(wait_until(lambda: online(sb, "02-4D-00-00-10-01") and online(sb, "02-4D-00-00-10-02"), 10),
                "A's two clients are online")
        rows = by_mac(sb)
        phone, plug = rows.get("02-4D-00-00-10-01", {}), rows.get("02-4D-00-00-10-02", {})
        c.equal((phone.get("hostname"), phone.get("connect_device_mac"), phone.get("connect_device_id"),
                 phone.get("mesh_agent"), phone.get("wire_type"), phone.get("ip")),
                ("network_device", PEER_A, "NODE-A", 1, "5G", "192.168.1.181"),
                "a new client: network_device, A's MAC and id, its band and address")
        c.equal(plug.get("wire_type"), "iot_2.4G", "client type 3 on 2.4G is an IoT client")
        c.check(sb.wait_console("client(0) mac=02:4d:00:00:10:01, ip=192.168.1.181, name=peer-side-name"),
                "above level 5 the daemon prints the list it got")

        # Compare passes do not age a peer's client: one that ends without
        # it would take a client of status 5 offline. A pass shows by the
        # keep-alive line of the scan's client.
        tv_tail = tv_mac[-5:].lower()
        kept = f"update client by compare, status(2), mac({tv_tail})"
        before = sb.console().count(kept)
        for _ in range(2):
            sb.ubus_call("lanroster", "update", {})
        c.check(wait_until(lambda: sb.console().count(kept) >= before + 2, 30), "two compare passes ran")
        c.check(online(sb, "02-4D-00-00-10-01") and online(sb, tv_mac),
                "after the passes the peer's and the scan's clients are online")

        # Peer B now reports A's phone: it moves to B and stays online.
        c.check(send(sb, PEER_B, [entry("02-4D-00-00-10-01")], "NODE-B"), "ubus send of B's list")
        c.check(wait_until(lambda: by_mac(sb).get("02-4D-00-00-10-01", {}).get("connect_device_mac") == PEER_B,
                           10), "a client of A reported by B takes B's MAC")
        c.check(online(sb, "02-4D-00-00-10-01"), "and keeps its status")

        # A's next list has neither: the plug goes offline, the phone (B's
        # now) and the scan's client stay.
        c.check(send(sb, PEER_A, [entry("02-4D-00-00-10-03", connection_type=12)], "NODE-A"),
                "ubus send of A's shorter list")
        c.check(wait_until(lambda: by_mac(sb).get("02-4D-00-00-10-02", {}).get("connect_status") == 0, 10),
                "a client no longer listed by its peer goes offline")
        rows = by_mac(sb)
        c.equal(rows.get("02-4D-00-00-10-03", {}).get("wire_type"), "wired", "connection type 12 gives 0")
        c.check(online(sb, "02-4D-00-00-10-01") and online(sb, tv_mac), "B's client and the scan's client stay")

        # This node's own list, in another case and separator, is ignored.
        own = lab.router_mac.lower()
        c.check(send(sb, own, [entry("02-4D-00-00-10-09")]), "ubus send of this node's own list")
        c.check(sb.wait_console("recv self mesh update, no need to handle"), "the daemon ignores its own list")
        c.check("02-4D-00-00-10-09" not in by_mac(sb), "no client of this node's own list is taken")

        # A missing key skips that entry only.
        c.check(send(sb, PEER_B, [entry("02-4D-00-00-10-01"), entry("02-4D-00-00-10-04"),
                                  entry("02-4D-00-00-10-05", rxrate=None)], "NODE-B"),
                "ubus send of a list with a bad entry")
        c.check(wait_until(lambda: online(sb, "02-4D-00-00-10-04"), 10), "the good entry is taken")
        c.check("02-4D-00-00-10-05" not in by_mac(sb), "the entry without rxrate is skipped")

        # Bad input: wrong types, a 1 KB name, huge numbers, malformed MACs.
        junk = [entry("02-4D-00-00-10-06", name="n" * 1024, signal_strength=2 ** 40, rxrate=-(2 ** 31)),
                entry("zz:zz", connection_type="two"), entry(12345), {"mac": []}]
        c.check(send(sb, PEER_B, [entry("02-4D-00-00-10-01"), entry("02-4D-00-00-10-04")] + junk, "x" * 1024),
                "ubus send of a list with junk")
        c.check(send(sb, PEER_B, "not a list"), "ubus send of a list that is a string")
        sb.ubus_call("lanroster", "update", {})
        rows = by_mac(sb)
        c.check(rows.get(tv_mac, {}).get("connect_status") == 1, "the scan's client is still online")
        c.check(sb.wait(0.5) is None, "the daemon is still running")


if __name__ == "__main__":
    labtest.main([test_mesh_peers])
