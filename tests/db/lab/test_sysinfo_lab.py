#!/usr/bin/python3
"""Who the device is and what the other services set, through the real
daemon in the lab.

Identity: the recording boardprobe is asked once for "MAC" and once for
"DEV_ID", with nothing but that word, and every client shows the answers as
connect_device_mac and connect_device_id. Modes, on a node behind the
LAN's gateway that has just heard from the gateway: "ap" and "repeater"
leave the gateway out of the list, "router" and "bridge" (which counts as
router) list it. A repeater lists its local clients whether it is a mesh
agent or the controller. Without the
factory profile the daemon exits 255 before it is on the bus.

Policies: the packages of the other services are written with the uci tool
in the sandbox before a start; the known clients show them in
get_hist_list_new, and a change shows after a restart."""
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.abspath(os.path.join(HERE, "..", "..", ".."))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))

import labtest  # noqa: E402
from labtest import wait_until  # noqa: E402
from lanlab import Lab, util  # noqa: E402

PASS_TIMEOUT = 45  # a pass every 14 s, plus up to 4 s of ARP
GATEWAY_MAC = "02-4C-52-00-00-FE"
ALL_KEYS = {k: 1 for k in ("online_type", "v6", "access_limit", "speed_limit", "qos", "tfstats",
                           "wireless", "qos_schedule", "high_bandwidth_occupancy", "lanroster_file")}
ALL_KEYS["online_type"] = 2


def dashed(mac):
    return mac.upper().replace(":", "-")


def hex_mac(mac):
    return mac.replace(":", "").upper()


def history_of(clients):
    """A history package that knows the clients, so that the mirrors read at
    start reach their records."""
    return "".join(f"config list\n\toption mac '{hex_mac(c.mac)}'\n\toption hostname '{c.name}'\n"
                   f"\toption access_host '1'\n" for c in clients)


def uci_batch(sb, lines):
    """Writes packages the way the other services do: the uci tool in the
    sandbox, one call a change, then a commit of each package touched."""
    packages = []
    for line in lines:
        cmd, arg = line.split(" ", 1)
        argv = ["uci", cmd] + (arg.split(" ") if cmd == "add" else [arg])
        r = sb.run(argv)
        if r.returncode != 0:
            raise RuntimeError(f"{argv}: {r.stdout} {r.stderr}")
        pkg = arg.split(".")[0].split(" ")[0]
        if pkg not in packages:
            packages.append(pkg)
    for pkg in packages:
        r = sb.run(["uci", "commit", pkg])
        if r.returncode != 0:
            raise RuntimeError(f"uci commit {pkg}: {r.stderr}")


def hello_from_gateway(lab):
    """One datagram from the gateway to the node: its ARP request leaves the
    gateway in the node's neighbour table."""
    send = ("import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
            f"s.sendto(b'hello', ('{lab.router_ip}', 9))")
    util.run(["ip", "netns", "exec", lab.gateway.ns, sys.executable, "-c", send], check=False)
    util.wait_for(lambda: "02:4c:52:00:00:fe" in util.run(
        ["ip", "netns", "exec", lab.router_ns, "ip", "neigh"], check=False).stdout, 10,
        what="the gateway in the neighbour table")


def start(sb):
    sb.start_daemon()
    sb.wait_bus_object("lanroster", 30)


def restart(sb):
    sb.stop_daemon()
    start(sb)


def test_identity_and_modes(c):
    with Lab(mode="ap") as lab:
        lab.add_gateway()
        lab.add_port("lan1")
        tv = lab.add_client("tv", port="lan1", hostname="tv")
        # "bridge" counts as router in the snapshot's mode number, but the scan
        # and the compare go by the mode's text: on any node that is not
        # "router" or "hotspot", clients behind the gateway's port are
        # upstream and left out.
        runs = [("ap", "agent", False), ("repeater", "agent", False), ("repeater", "controller", False),
                ("bridge", "agent", False), ("router", "controller", True)]
        for mode, role, gateway_listed in runs:
            sb = lab.sandbox(name=f"{mode}-{role}", mode="ap")
            c.check(sb.start_ubusd(), f"{mode}/{role}: ubusd starts")
            uci_batch(sb, [f"set sysmode.sysmode.mode={mode}", f"set meshd.meshd.role={role}"])
            # The gateway speaks first, so the node's neighbour table has it.
            hello_from_gateway(lab)
            start(sb)
            ok = wait_until(lambda: dashed(tv.mac) in {r["mac"] for r in sb.hist_list(online_type=1)},
                            PASS_TIMEOUT)
            c.check(ok, f"{mode}/{role}: the local client is listed")
            if gateway_listed:
                seen = wait_until(lambda: GATEWAY_MAC in {r["mac"] for r in sb.hist_list()}, PASS_TIMEOUT)
                c.check(seen, f"{mode}/{role}: the gateway is listed")
            else:
                # The pass that listed the tv has seen the gateway too.
                c.check(GATEWAY_MAC not in {r["mac"] for r in sb.hist_list()},
                        f"{mode}/{role}: the gateway is left out")
            rows = sb.hist_list()
            want_id = "LAB0123456789ABCDEF0123456789ABCDEF01234"
            c.check(rows and all(r["connect_device_mac"] == dashed(lab.router_mac) for r in rows),
                    f"{mode}/{role}: connect_device_mac is boardprobe's MAC")
            c.check(rows and all(r["connect_device_id"] == want_id for r in rows),
                    f"{mode}/{role}: connect_device_id is boardprobe's DEV_ID")
            c.equal([r["argv"] for r in sb.calls("boardprobe")], [["MAC"], ["DEV_ID"]],
                    f"{mode}/{role}: boardprobe asked once for each word, nothing else on its line")
            sb.stop()


def test_boardprobe_and_profile_failures(c):
    with Lab() as lab:
        lab.add_port("lan1")
        # boardprobe that fails: the identity stays empty, start-up goes on.
        sb = lab.sandbox(name="silent")
        sb.set_standin(boardprobe={})
        c.check(sb.start_ubusd(), "ubusd starts")
        start(sb)
        r = sb.ubus_call("lanroster", "get_hist_list_new", dict(ALL_KEYS, lanroster_file=0))
        c.check(r is not None, "a daemon without an identity answers")
        sb.stop()
        # boardprobe that floods its output or hangs: start-up goes on after
        # a bounded wait, with what fits or nothing, and the tool is killed.
        for what, conf, want_mac in (
                ("flood", dict(boardprobe={"MAC": {"flood": 10 << 20}, "DEV_ID": "ID"}), "x" * 17),
                ("hang", dict(boardprobe={"MAC": "02-4C-52-00-00-01", "DEV_ID": "ID"}, boardprobe_hang=True),
                 "02-4C-52-00-00-01")):
            sb = lab.sandbox(name=what)
            sb.set_standin(**conf)
            c.check(sb.start_ubusd(), f"{what}: ubusd starts")
            start(sb)
            lab.add_client(f"pc-{what}", port="lan1", hostname="pc")
            rows = wait_until(lambda: sb.hist_list(online_type=1), 45)
            c.check(rows and all(r["connect_device_mac"] == want_mac for r in rows),
                    f"{what}: connect_device_mac is what fits of the first line", str(rows)[:300])
            c.check(rows and all(r["connect_device_id"] == "ID" for r in rows), f"{what}: DEV_ID as printed")
            left = util.run(["pgrep", "-f", sb.dir + "/bin/boardprobe"], check=False).stdout.split()
            c.equal(left, [], f"{what}: no boardprobe is left running")
            sb.stop()
        # No factory profile: exit 255 before the bus object exists.
        sb = lab.sandbox(name="noprofile")
        os.unlink(sb.path("/etc/profile.d/profile"))
        c.check(sb.start_ubusd(), "ubusd starts")
        sb.start_daemon()
        c.equal(sb.wait(30), 255, "without the profile the daemon exits 255")
        c.check("lanroster" not in sb.ubus("list").stdout, "and never was on the bus")
        sb.stop()


def test_policies(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_port("lan2")
        tv, phone, laptop = lab.add_clients([dict(name="tv", port="lan1", hostname="tv"),
                                             dict(name="phone", port="lan2", hostname="phone"),
                                             dict(name="laptop", port="lan1", hostname="laptop")])
        sb = lab.sandbox(name="policies")
        sb.write_packages({"history_list": history_of([tv, phone, laptop])})
        c.check(sb.start_ubusd(), "ubusd starts")
        uci_batch(sb, [
            "set qos_v2.settings.enable=on",
            "add client_speed_limit client", f"set client_speed_limit.@client[-1].mac={dashed(tv.mac)}",
            "set client_speed_limit.@client[-1].enable=on", "set client_speed_limit.@client[-1].up_band=1000",
            "set client_speed_limit.@client[-1].down_band=2000",
            "set access_control.settings.enable=on", "set access_control.settings.access_mode=black",
            "add access_control black_list", f"set access_control.@black_list[-1].mac={dashed(phone.mac)}",
            "add lanroster client", f"set lanroster.@client[-1].mac={dashed(laptop.mac)}",
            "set lanroster.@client[-1].prio=on", "set lanroster.@client[-1].prio_time=60",
            "set lanroster.@client[-1].time_period=30", "set lanroster.@client[-1].schedule_enable=on",
            "set lanroster.@client[-1].time_mode=schedule", "set lanroster.@client[-1].slots=2200 2359",
            "set lanroster.@client[-1].slots_next_day=0000 0600", "set lanroster.@client[-1].status=on",
            "set lanroster.@client[-1].repeats=Mon Tue", "set lanroster.@client[-1].owner_id=3",
            "set lanroster.@client[-1].client_type_changed=true", "set lanroster.@client[-1].type=Laptop",
            "add lanroster client", "set lanroster.@client[-1].mac=02-4C-52-AA-AA-01",
            "set lanroster.@client[-1].real_mac=02-4C-52-AA-AA-02", "set lanroster.@client[-1].name=Living room",
            "add parental_control_v2 owner", "set parental_control_v2.@owner[-1].owner_id=3",
            "set parental_control_v2.@owner[-1].name=Kid",
        ])
        start(sb)

        def seen(res):
            return {r["mac"]: r for r in (res or {}).get("client_list", [])}

        def all_listed():
            res = sb.ubus_call("lanroster", "get_hist_list_new", ALL_KEYS)
            rows = seen(res)
            want = {dashed(tv.mac), dashed(laptop.mac)}
            return res if all(rows.get(m, {}).get("connect_status") == 1 for m in want) else None

        res = wait_until(all_listed, PASS_TIMEOUT)
        c.check(res, "tv and laptop online")
        rows = seen(res)
        t, p, lt = rows.get(dashed(tv.mac), {}), rows.get(dashed(phone.mac), {}), rows.get(dashed(laptop.mac), {})
        c.equal((t.get("enableLimit"), t.get("uploadLimit"), t.get("downloadLimit")), ("on", 1000, 2000),
                "tv: its speed limit")
        c.equal((lt.get("enableLimit"), lt.get("uploadLimit")), ("off", 0), "laptop: no limit")
        c.equal((p.get("connect_status"), p.get("ip")), (0, "0.0.0.0"), "phone: blocked by the black list")
        c.equal((lt.get("prio"), lt.get("prio_time"), lt.get("time_period")), ("on", 60, 30), "laptop: priority")
        c.check(isinstance(lt.get("remainTime"), int), "laptop: remainTime")
        c.equal((lt.get("owner_id"), lt.get("owner_name")), (3, "Kid"), "laptop: parental owner")
        c.equal((lt.get("schedule_enable"), lt.get("time_mode"), lt.get("slots"), lt.get("repeats"),
                 lt.get("qos_status")), ("on", "schedule", "22:00-06:00", 6, "on"),
                "laptop: schedule, next-day slot, Mon Tue")
        c.equal(lt.get("device_type"), "Laptop", "laptop: the type a user set")
        c.equal((t.get("prio"), t.get("owner_id"), t.get("owner_name")), ("off", -1, ""), "tv: no priority")
        files = (res or {}).get("file_client_list", [])
        by_mac = {f["mac"]: f for f in files}
        c.equal(sorted(by_mac), sorted([dashed(laptop.mac), "02-4C-52-AA-AA-02"]),
                "file_client_list: each client section, real_mac over mac")
        c.equal(by_mac.get("02-4C-52-AA-AA-02", {}).get("name"), "Livi", "a file client's name: 4 characters")
        c.equal(by_mac.get(dashed(laptop.mac), {}).get("slots"), "22:0-6:0", "a file client's slot, unpadded")

        # Changes of the other services show after a restart.
        uci_batch(sb, ["set access_control.settings.enable=off", "set parental_control_v2.@owner[-1].name=Teen",
                       "set client_speed_limit.@client[-1].up_band=500", "set qos_v2.settings.enable=off"])
        restart(sb)
        res = wait_until(all_listed, PASS_TIMEOUT)
        rows = seen(res)
        t, p, lt = rows.get(dashed(tv.mac), {}), rows.get(dashed(phone.mac), {}), rows.get(dashed(laptop.mac), {})
        c.equal(t.get("uploadLimit"), 500, "restart: the new limit")
        c.equal(lt.get("owner_name"), "Teen", "restart: the owner's new name")
        c.equal(lt.get("prio"), "off", "restart: QoS off shows no priority")
        ok = wait_until(lambda: seen(sb.ubus_call("lanroster", "get_hist_list_new", ALL_KEYS))
                        .get(dashed(phone.mac), {}).get("connect_status") == 1, PASS_TIMEOUT)
        c.check(ok, "restart: access control off, the phone shows connected")
        # A white list also leaves the block unshown.
        uci_batch(sb, ["set access_control.settings.enable=on", "set access_control.settings.access_mode=white"])
        restart(sb)
        ok = wait_until(lambda: seen(sb.ubus_call("lanroster", "get_hist_list_new", ALL_KEYS))
                        .get(dashed(phone.mac), {}).get("connect_status") == 1, PASS_TIMEOUT)
        c.check(ok, "restart: a white list, the phone shows connected")
        sb.stop()


if __name__ == "__main__":
    labtest.main([test_identity_and_modes, test_boardprobe_and_profile_failures, test_policies])
