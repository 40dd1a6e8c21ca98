#!/usr/bin/python3
"""The registry in the lab, seen through what it leaves behind: the
"history_list" package (read with the stand-in uci tool), the crontab and the
recorded call of cron's init script.

One daemon life: clients arrive (a section each, with first_access_time),
stay (nothing rewritten), one leaves (leave_time), comes back (a new
access_time in the same section) while another changes its name (the section
is rewritten). A second life on the same router: the file is filled to the
pool's 388 records, the known clients load offline in reversed file order,
so a 389th client evicts the first section of the file."""
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.abspath(os.path.join(HERE, "..", "..", ".."))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))

import labtest  # noqa: E402
from lanlab import Lab, util  # noqa: E402

PASS_TIMEOUT = 45  # a pass every 14 s, plus up to 4 s of ARP
POOL = 388


def hex_mac(mac):
    return mac.replace(":", "").upper()


def history(sb):
    """Sections of history_list in file order: [(name, {option: value})]."""
    return sb.uci_sections("history_list")


def by_mac(sb):
    return {opts.get("mac"): (name, opts) for name, opts in history(sb)}


def wait_file(sb, pred, what, timeout=PASS_TIMEOUT):
    """The package once pred holds and the pass that made it true is done
    writing: the pass commits one client at a time, so the file can be seen
    between two of them. Done means two reads 0.5 s apart agree."""
    last = [None]

    def check():
        if sb.proc is not None and sb.proc.poll() is not None:
            raise util.LabError(f"the daemon exited with {sb.proc.returncode}")
        m = by_mac(sb)
        if not pred(m):
            last[0] = None
            return None
        settled = m == last[0]
        last[0] = m
        return m if settled else None
    return util.wait_for(check, timeout, interval=0.5, what=what)


def crontab_lines(sb):
    try:
        with open(sb.path("/etc/crontabs/root")) as f:
            return [line for line in f.read().splitlines() if "saveconfig" in line]
    except OSError:
        return []


def run(c):
    with Lab() as lab:
        lab.add_port("lan1")
        tv, nas = lab.add_clients([dict(name="tv", port="lan1", hostname="living-room-tv"),
                                   dict(name="nas", port="lan1", hostname="nas-box")])
        sb = lab.sandbox()
        if not c.check(sb.start_ubusd(), "ubusd is built"):
            return
        if not c.check(os.access(sb.daemon_binary, os.X_OK), "the daemon is built"):
            return
        TV, NAS = hex_mac(tv.mac), hex_mac(nas.mac)
        sb.start_daemon()

        # Arrival: the pass at start writes one section per client.
        m = wait_file(sb, lambda m: TV in m and NAS in m, "sections of both clients", 30)
        t = m[TV][1]
        c.equal(t.get("hostname"), "living-room-tv", "arrival: host name from the lease file")
        c.equal(t.get("type"), "unknown", "arrival: no type yet")
        c.equal(t.get("access_host"), "1", "arrival: seen on the main network")
        c.check(t.get("first_access_time") and t.get("first_access_time") == t.get("access_time"),
                "arrival: first_access_time written with access_time", t)
        c.check("leave_time" not in t, "arrival: no leave_time")
        c.equal(len(crontab_lines(sb)), 1, "the daily saveconfig line is in the crontab")
        c.equal(crontab_lines(sb)[:1],
                ["55 2 * * * lua -e 'require(\"luci.sys.config\").saveconfig()' "],
                "the crontab line, byte for byte")
        cron = sb.wait_calls("cron", 1, timeout=10)
        c.equal(cron[0].get("argv"), ["restart"], "cron's init script is restarted")

        # Stay and leave: the next pass writes leave_time for the one that
        # left, and nothing for the one that stayed.
        tv_before = dict(m[TV][1])
        lab.leave("nas")
        m = wait_file(sb, lambda m: "leave_time" in m[NAS][1], "leave_time of the client that left")
        c.equal(m[TV][1], tv_before, "keep-alive: the section of a staying client is not rewritten")
        c.check(int(m[NAS][1]["leave_time"]) >= int(m[NAS][1]["access_time"]),
                "leaving: leave_time after the connection")
        nas_left = dict(m[NAS][1])
        nas_section = m[NAS][0]
        tv_section = m[TV][0]

        # Back again: a reconnection.
        lab.come_back("nas")
        lab.announce([lab.client("nas")])
        m = wait_file(sb, lambda m: m[NAS][1].get("access_time") != nas_left.get("access_time"),
                      "reconnection")
        c.equal(m[NAS][0], nas_section, "reconnection: the same section")
        c.equal(m[NAS][1].get("first_access_time"), nas_left.get("first_access_time"),
                "reconnection: first_access_time kept")
        c.equal(m[NAS][1].get("leave_time"), nas_left.get("leave_time"),
                "reconnection: leave_time kept")
        c.check(int(m[NAS][1]["access_time"]) > int(nas_left["access_time"]),
                "reconnection: a later access_time")

        # A new name is a reconnection too: the lease file brings it.
        lab.change_name("tv", "tv-renamed")
        m = wait_file(sb, lambda m: m[TV][1].get("hostname") == "tv-renamed", "rename")
        c.equal(m[TV][0], tv_section, "rename: the same section, rewritten")
        c.check(int(m[TV][1]["access_time"]) > int(tv_before["access_time"]),
                "rename: a reconnection, with a new access_time")
        c.equal(len(history(sb)), 2, "two clients, two sections")

        # Second life: fill the file to the pool's size, the lab's clients
        # last; a third client is the 389th.
        sb.stop_daemon()
        known = history(sb)
        fakes = [f"02EE0000{i:04X}" for i in range(POOL - len(known))]
        text = "".join(f"\nconfig list\n\toption mac '{f}'\n\toption hostname 'old-{i}'\n"
                       f"\toption type 'Printer'\n\toption access_host '1'\n"
                       for i, f in enumerate(fakes))
        for _, opts in known:
            text += "\nconfig list\n" + "".join(f"\toption {k} '{v}'\n" for k, v in opts.items())
        sb.write_packages({"history_list": text})
        cam, = lab.add_clients([dict(name="cam", port="lan1", hostname="cam")])
        CAM = hex_mac(cam.mac)
        sb.start_daemon()
        m = wait_file(sb, lambda m: CAM in m, "section of the 389th client", 30)
        c.check(fakes[0] not in m, "eviction: the first section of the file is gone "
                "(loaded last, so it was the tail)")
        c.check(all(f in m for f in fakes[1:]), "eviction: only one section went")
        c.equal(len(m), POOL, "the file holds as many clients as the pool")
        c.check(TV in m and NAS in m, "the lab's clients are still known")
        m = wait_file(sb, lambda m: m[TV][1].get("access_time") != known[0][1].get("access_time")
                      or m[NAS][1].get("access_time") != known[1][1].get("access_time"),
                      "known clients back after the restart", 30)
        c.check(True, "loaded offline, the known clients reconnect after the restart")
        c.equal(len(crontab_lines(sb)), 1, "restart: the crontab line is not added twice")
        c.equal(len(sb.calls("cron")), 1, "restart: cron is not restarted again")
        c.check(sb.proc.poll() is None, "the daemon runs on")


if __name__ == "__main__":
    labtest.main([run])
