#!/usr/bin/python3
"""The bus face of the real daemon in the lab: the client list with every
key, its online filters, the vendor object, the log-level event and the
remembered neighbours."""
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "lab", "tests"))

import labtest  # noqa: E402
from labtest import wait_until  # noqa: E402
from lanlab import Lab  # noqa: E402

ALL_KEYS = {k: 1 for k in ("online_type", "v6", "access_limit", "speed_limit", "qos", "tfstats",
                           "wireless", "qos_schedule", "high_bandwidth_occupancy", "lanroster_file")}

# A client the daemon knew before this start and that isn't on the LAN.
HISTORY = """
config list
	option mac '0200000000AA'
	option hostname 'old-printer'
	option type 'Printer'
	option nickname 'Office printer'
	option access_host '1'
"""

CISCO_MAC = "00:00:0c:12:34:56"


def dashed(mac):
    return mac.upper().replace(":", "-")


def expected_keys(rec, online):
    """The keys of a client table for a request with all ten keys on a node
    with no optional feature: the ones that are always there, the priority
    and IPv6 keys, ifname for a connected client, and the radio keys for a
    client on a radio."""
    keys = ["mac", "wire_type", "guest", "device_type", "access_time", "access_uptime",
            "online_time", "hostname"]
    if rec["wire_type"] not in ("wired", "offline"):
        keys += ["signal", "rxrate", "txrate"]
    keys += ["connect_status", "ip", "prio", "prio_time", "time_period", "remainTime",
             "owner_id", "owner_name", "global_state", "ip6_local"]
    n = rec.get("global_ip_num", 0)
    for i in range(1, n + 1):
        keys += [f"ip6_global{i}", f"global{i}_state"]
    keys += ["global_ip_num", "brand", "sys_version", "connect_device_mac"]
    if "mesh_agent" in rec:
        keys.append("mesh_agent")
    keys.append("connect_device_id")
    if online:
        keys.append("ifname")
    return keys


def test_bus_face(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_port("wl0")
        clients = lab.add_clients([
            dict(name="tv", port="lan1", hostname="living-room-tv"),
            dict(name="cisco", port="lan1", mac=CISCO_MAC, dhcp=False, ip="192.168.1.50"),
            dict(name="phone", port="wl0", hostname="phone")])
        sb = lab.sandbox()
        # A factory profile of no optional feature: the keys below are those
        # every node sends.
        sb.write_packages({"history_list": HISTORY, "profile": ""})
        c.check(sb.start_ubusd(), "ubusd starts")
        sb.start_daemon()
        sb.wait_bus_object("lanroster", 30)
        sb.wait_bus_object("mac_oui", 5)
        want = {dashed(x.mac): x for x in clients}
        roster = []
        wait_until(lambda: want.keys() <= {r["mac"] for r in sb.hist_list()}, 20)

        # All ten keys: every lab client, each key in its place.
        res = sb.ubus_call("lanroster", "get_hist_list_new", dict(ALL_KEYS, online_type=2))
        c.equal(list(res.keys()), ["client_list"], "reply holds client_list alone (no file clients)")
        roster = res["client_list"]
        by_mac = {r["mac"]: r for r in roster}
        c.check(want.keys() <= by_mac.keys(), "every lab client is listed", json.dumps(roster))
        c.check("02-00-00-00-00-AA" in by_mac, "the remembered client is listed too")
        for mac, cl in want.items():
            r = by_mac.get(mac)
            if not r:
                continue
            c.equal(list(r.keys()), expected_keys(r, True), f"{cl.name}: keys in order")
            c.equal(r["ip"], cl.ip, f"{cl.name}: ip")
            c.equal(r["connect_status"], 1, f"{cl.name}: connected")
            c.check(r["wire_type"] in ("wired", "2.4G", "5G", "5G_2", "6G", "mlo", "iot_2.4G",
                                       "iot_5G", "iot_5G_2"), f"{cl.name}: wire_type {r['wire_type']}")
            c.check(r["guest"] in ("GUEST", "NON_GUEST", "UNKONW"), f"{cl.name}: guest text")
            c.check(r["online_time"] >= 0 and r["access_time"] > 0, f"{cl.name}: times")
            c.equal((r["prio"], r["remainTime"], r["owner_id"], r["owner_name"]),
                    ("off", -1, -1, ""), f"{cl.name}: no priority and no owner")
        c.equal(by_mac.get(dashed(CISCO_MAC), {}).get("hostname"), "Cisco Systems, Inc",
                "a nameless client shows its vendor")
        old = by_mac.get("02-00-00-00-00-AA", {})
        c.equal(list(old.keys()), expected_keys(old, False) if old else [], "offline client: keys in order")
        c.equal((old.get("wire_type"), old.get("connect_status"), old.get("hostname"), old.get("device_type")),
                ("offline", 0, "Office printer", "Printer"), "offline client: state, nickname, type")

        # online_type 0 offline, 1 online, 2 everyone, online first.
        online = [r["mac"] for r in sb.hist_list(online_type=1)]
        offline = [r["mac"] for r in sb.hist_list(online_type=0)]
        everyone = [r["mac"] for r in sb.hist_list(online_type=2)]
        c.equal(sorted(online), sorted(want), "online_type 1: the lab's clients")
        c.equal(offline, ["02-00-00-00-00-AA"], "online_type 0: the remembered client")
        c.equal(everyone, online + offline, "online_type 2: all, online ones first")
        res = sb.ubus("call", "lanroster", "get_hist_list_new", json.dumps({"online_type": 2}))
        c.check(res.returncode != 0 and not res.stdout.strip(),
                "a request without all ten keys gets an error and no data", res.stderr)

        # The vendor object.
        c.equal(sb.ubus_call("mac_oui", "req", {"mac": "00-00-0C-AA-BB-CC"}),
                {"vendor": "Cisco Systems, Inc", "err_code": 0}, "req: vendor of a known prefix")
        c.equal(sb.ubus_call("mac_oui", "req", {"mac": "020000000001"}),
                {"vendor": "", "err_code": 1}, "req: unknown prefix")
        c.equal(sb.ubus_call("mac_oui", "req", {"mac": "00:00:0c:zz:00:01"}),
                {"err_code": -1}, "req: bad MAC")

        # The remembered neighbours.
        # Tables with an empty name print without a name, so the text is not
        # JSON as a whole: read it table by table.
        r = sb.ubus("call", "lanroster", "update", json.dumps({"print_neigh": 1}))
        c.equal(r.returncode, 0, "update print_neigh")
        body = r.stdout.strip()[1:-1]
        rows = [json.loads("{" + t.split("{", 1)[1].rsplit("}", 1)[0] + "}")
                for t in body.split("},") if "{" in t]
        for cl in clients:
            c.check({"mac": cl.mac.replace(":", "-"), "ip": cl.ip, "active": "1"} in rows,
                    f"print_neigh lists {cl.name}", r.stdout)

        # The log level, through an event handled on the pool.
        c.check("[lr] UBUS get_hist_list_new" not in sb.console(), "level 7 is off by default")
        r = sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 7}))
        c.equal(r.returncode, 0, "ubus send set_log_level")
        c.check(sb.wait_console("[lr] set_log_level", 10), "the level-7 line of the task itself")
        sb.hist_list()
        c.check(sb.wait_console("[lr] UBUS get_hist_list_new", 10), "level-7 lines reach the console")
        c.check("|level:7|" in sb.console(), "lines carry their level")
        sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 2}))


if __name__ == "__main__":
    labtest.main([test_bus_face])
