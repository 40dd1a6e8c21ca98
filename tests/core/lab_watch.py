#!/usr/bin/python3
"""Lab tests of the configuration watch, on the production daemon.

A change to a watched package or to the lease file shows in the next
get_hist_list_new without an `update` call and long before the next scan
pass (every 14 s): the refresh task's own console line proves that the
watch, not a pass, took the change over. Changes are made the four ways
the router makes them: `uci set` + `uci commit`, `uci batch`, a rewrite in
place, and a new file renamed over the package. A burst of 1000 writes
stays within the pool's bound and the loop keeps answering.
"""
import json
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))
import labtest  # noqa: E402  (puts lab/ on sys.path)
from labtest import wait_until  # noqa: E402
from lanlab import Lab  # noqa: E402

BUILD = os.environ.get("LANROSTER_BUILD_DIR", os.path.join(SRC, "build"))
TRACE = os.path.join(BUILD, "tests", "scan", "lanroster_trace")
KEYS = dict({k: 0 for k in ("v6", "access_limit", "qos", "tfstats", "wireless", "qos_schedule",
                            "high_bandwidth_occupancy", "lanroster_file")}, online_type=2, speed_limit=1)


def dashed(mac):
    return mac.upper().replace(":", "-")


def start(lab, c):
    sb = lab.sandbox()
    if not sb.start_ubusd():
        c.check(False, "ubusd built")
        return None
    sb.start_daemon()
    sb.wait_bus_object("lanroster", 30)
    r = sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 7}))
    c.equal(r.returncode, 0, "log level 7")
    c.check(sb.wait_console("[lr] set_log_level", 10), "the level took")
    return sb


def row_of(sb, mac):
    res = sb.ubus_call("lanroster", "get_hist_list_new", KEYS) or {}
    for r in res.get("client_list", []):
        if r["mac"] == dashed(mac):
            return r
    return None


def timed(pred, timeout=5.0):
    """Polls every 10 ms; the milliseconds until pred held, or None."""
    t0 = time.monotonic()
    while time.monotonic() - t0 < timeout:
        if pred():
            return (time.monotonic() - t0) * 1000
        time.sleep(0.01)
    return None


def speed_limit_pkg(mac, enable, up):
    return (f"config settings 'settings'\n\toption enable 'on'\n\n"
            f"config client 'c1'\n\toption mac '{mac}'\n\toption enable '{enable}'\n"
            f"\toption up_band '{up}'\n\toption down_band '7'\n")


def shows(sb, mac, enable, up):
    r = row_of(sb, mac)
    return r is not None and r.get("enableLimit") == enable and r.get("uploadLimit") == up


def check_change(c, sb, mac, enable, up, how):
    ms = timed(lambda: shows(sb, mac, enable, up))
    c.check(ms is not None and ms < 3000, f"{how}: enableLimit {enable}, uploadLimit {up} without update "
            f"({'%.0f ms' % ms if ms is not None else 'never'})")
    if ms is not None:
        print(f"      figure: {how} seen after {ms:.0f} ms")


def test_policy_changes_four_ways(c):
    with Lab() as lab:
        lab.add_port("lan1")
        (pc,) = lab.add_clients([dict(name="pc", port="lan1", dhcp=False)])
        sb = start(lab, c)
        if not sb:
            return
        c.check(wait_until(lambda: row_of(sb, pc.mac) is not None, 40), "the client is listed")
        conf = sb.path("/etc/config")
        pkg = os.path.join(conf, "client_speed_limit")
        before = len(sb.console())

        # In place, by hand.
        with open(pkg, "w") as f:
            f.write(speed_limit_pkg(pc.mac, "on", 100))
        check_change(c, sb, pc.mac, "on", 100, "rewrite in place")

        # uci set + uci commit (the commit renames a temporary file over it).
        r1 = sb.run(["uci", "set", "client_speed_limit.c1.up_band=200"])
        r2 = sb.run(["uci", "commit", "client_speed_limit"])
        c.check(r1.returncode == 0 and r2.returncode == 0, "uci set and commit ran", r1.stderr + r2.stderr)
        check_change(c, sb, pc.mac, "on", 200, "uci set + commit")

        # uci batch.
        r = sb.run(["uci", "batch"], input="set client_speed_limit.c1.enable=off\n"
                   "set client_speed_limit.c1.up_band=300\ncommit client_speed_limit\n")
        c.equal(r.returncode, 0, "uci batch ran")
        check_change(c, sb, pc.mac, "off", 300, "uci batch")

        # A new file renamed over the package.
        tmp = os.path.join(conf, ".client_speed_limit.new")
        with open(tmp, "w") as f:
            f.write(speed_limit_pkg(pc.mac, "on", 400))
        os.rename(tmp, pkg)
        check_change(c, sb, pc.mac, "on", 400, "rename over the package")

        log = sb.console()[before:]
        c.check("[lr] uloop handle uci inotify_event, event.name = client_speed_limit" in log,
                "the watch saw the package")
        c.check(log.count("[lr] update_client_speed_limit\n") >= 4 or
                log.count("[lr] update_client_speed_limit") >= 4, "one refresh per change at least")

        # A package outside the table only logs; the mode refresh runs for sysmode.
        before = len(sb.console())
        with open(os.path.join(conf, "firewall"), "w") as f:
            f.write("config zone\n")
        c.check(sb.wait_console("event.name = firewall", 5), "a package outside the table is seen and logged")
        r1 = sb.run(["uci", "set", "sysmode.sysmode.mode=ap"])
        r2 = sb.run(["uci", "commit", "sysmode"])
        c.check(r1.returncode == 0 and r2.returncode == 0, "uci set and commit of the mode", r1.stderr + r2.stderr)
        c.check(sb.wait_console("event.name = sysmode", 5), "a mode change reaches the watch")


def test_lease_by_hand(c):
    with Lab() as lab:
        lab.add_port("lan1")
        (pad,) = lab.add_clients([dict(name="pad", port="lan1")])
        sb = start(lab, c)
        if not sb:
            return
        ok = wait_until(lambda: (row_of(sb, pad.mac) or {}).get("hostname") == "network device", 40)
        c.check(ok, "a nameless lease: network device", repr(row_of(sb, pad.mac)))
        lines = open(lab.lease_file).read().splitlines()
        mac = pad.mac.lower()
        new = []
        for line in lines:
            cols = line.split()
            if len(cols) >= 4 and cols[1].lower() == mac:
                cols[3] = "kitchen-pad"
            new.append(" ".join(cols))
        # In place: the daemon sees the very file through a bind mount.
        with open(lab.lease_file, "w") as f:
            f.write("\n".join(new) + "\n")
        ms = timed(lambda: (row_of(sb, pad.mac) or {}).get("hostname") == "kitchen-pad")
        c.check(ms is not None and ms < 3000,
                f"the lease's new name shows without update ({'%.0f ms' % ms if ms is not None else 'never'})")
        if ms is not None:
            print(f"      figure: lease name seen after {ms:.0f} ms")
        c.check("update by dhcp_leases, mac=" in sb.console(), "update_dhcp took it over")


def test_burst_of_writes(c):
    with Lab() as lab:
        lab.add_port("lan1")
        (pc,) = lab.add_clients([dict(name="pc", port="lan1", dhcp=False)])
        sb = start(lab, c)
        if not sb:
            return
        c.check(wait_until(lambda: row_of(sb, pc.mac) is not None, 40), "the client is listed")
        pkg = sb.path("/etc/config/client_speed_limit")
        before = len(sb.console())
        t0 = time.monotonic()
        for i in range(1000):
            with open(pkg, "w") as f:
                f.write(speed_limit_pkg(pc.mac, "on", 1000 + i))
        t1 = time.monotonic()
        r = row_of(sb, pc.mac)
        answer_ms = (time.monotonic() - t1) * 1000
        c.check(r is not None, f"the bus answers right after the burst ({answer_ms:.0f} ms)")
        check_change(c, sb, pc.mac, "on", 1999, "the last of 1000 writes")
        log = sb.console()[before:]
        refreshes = log.count("[lr] update_client_speed_limit\n") or log.count("[lr] update_client_speed_limit")
        reads = log.count("event.name = client_speed_limit")
        # Each read of the watch gives one refresh per file however many of
        # its events it holds, so there are never more refreshes than events;
        # how many events one read takes depends on how fast the writer is
        # against the loop, and on a loaded machine that may be one.
        c.check(0 < refreshes <= reads, f"{refreshes} refreshes for 1000 writes ({reads} events, "
                f"{(t1 - t0) * 1000:.0f} ms of writing)")


def test_start_sets_the_watch_but_no_diagnostic_timer(c):
    """The start function with the level at 7 from the first line: the watch
    is set, and the diagnostic timers are never armed."""
    with Lab() as lab:
        lab.add_port("lan1")
        sb = lab.sandbox()
        if not sb.start_ubusd():
            c.check(False, "ubusd built")
            return
        proc = sb.start([TRACE])
        text = sb.wait_console("[lr] begin to start uloop", 30)
        c.check("[lr] db_inotify_init" in text, "the watch is set at start")
        c.check("[lr] start to watch dir:/etc/config uci_wd=" in text, "on the UCI directory and the lease file")
        c.check("[lr] db_timeout_init" not in text, "the start does not arm the diagnostic timers")
        proc.terminate()
        proc.wait(10)


if __name__ == "__main__":
    labtest.main([test_policy_changes_four_ways, test_lease_by_hand, test_burst_of_writes,
                  test_start_sets_the_watch_but_no_diagnostic_timer])
