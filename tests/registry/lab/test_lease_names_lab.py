#!/usr/bin/python3
"""Host names from the lease file, through the daemon's own faces: the bus
reply of get_hist_list_new, the console at trace level and the
"history_list" package on disk (read with the stand-in uci tool).

Lifecycle: two clients arrive (status 1 in the start-up pass, then 5);
"update" runs the compare again on the same scan, so both stay (2, then 5);
a third arrives (1) while one leaves (4, leave_time written) and another
gets a new DHCP host name (3, its section rewritten); the one that left
comes back (3). The bus shows 5 as connect_status 1 and 4 as wire_type
"offline".

Odd name: a lease line whose host name holds a double quote, "$(...)" and
backquotes reaches the console and the history file as it is, and makes
nothing run; its sixth column gives the device type."""
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.abspath(os.path.join(HERE, "..", "..", ".."))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))

import labtest  # noqa: E402
from lanlab import Lab, util  # noqa: E402

PASS_TIMEOUT = 30  # the timer's pass every 14 s, plus up to 4 s of ARP


def hex_mac(mac):
    return mac.replace(":", "").upper()


def bus_mac(mac):
    return mac.replace(":", "-").upper()


def tail(mac):
    """The two last MAC bytes as the compare's console line writes them."""
    parts = mac.lower().split(":")
    return f"mac({parts[4]}-{parts[5]})"


def history(sb):
    """{MAC: (section, {option: value})} of history_list."""
    return {opts.get("mac"): (name, opts) for name, opts in sb.uci_sections("history_list")}


def roster(sb):
    """{MAC as AA-BB-..: table} of get_hist_list_new, every client."""
    return {row.get("mac"): row for row in sb.hist_list()}


def alive(sb):
    if sb.proc is not None and sb.proc.poll() is not None:
        raise util.LabError(f"the daemon exited with {sb.proc.returncode}")


def wait(sb, pred, what, timeout=PASS_TIMEOUT):
    """pred's value once it holds and the pass behind it is done: the store
    commits one option at a time, so a section can be seen half-written.
    Done means two reads 0.5 s apart agree."""
    last = [None]

    def check():
        alive(sb)
        v = pred()
        settled = bool(v) and v == last[0]
        last[0] = v if v else None
        return v if settled else None
    return util.wait_for(check, timeout, interval=0.5, what=what)


def event_tail(mac):
    """The two last MAC bytes as the event handler's console line writes them."""
    parts = mac.upper().split(":")
    return f"mac={parts[4]}-{parts[5]}"


def console_has(sb, *parts):
    """A console line that holds every part."""
    return any(all(p in line for p in parts) for line in sb.console().splitlines())


def trace_on(sb):
    r = sb.ubus("send", "lanroster.set_log_level", '{"log_level":7}')
    return r.returncode == 0


def update(sb):
    return sb.ubus("call", "lanroster", "update", "{}").returncode == 0


def start(c, lab):
    sb = lab.sandbox()
    if not c.check(sb.start_ubusd(), "ubusd is built"):
        return None
    if not c.check(os.access(sb.daemon_binary, os.X_OK), "the daemon is built"):
        return None
    sb.start_daemon()
    sb.wait_bus_object(timeout=30)
    c.check(trace_on(sb), "set_log_level 7 sent on the bus")
    return sb


def test_lifecycle(c):
    with Lab() as lab:
        lab.add_port("lan1")
        tv, nas = lab.add_clients([dict(name="tv", port="lan1", hostname="living-room-tv"),
                                   dict(name="nas", port="lan1", hostname="nas-box")])
        sb = start(c, lab)
        if sb is None:
            return
        TV, NAS = hex_mac(tv.mac), hex_mac(nas.mac)

        # Arrival, in the start-up pass: a section each, named by the lease.
        h = wait(sb, lambda: (lambda h: TV in h and NAS in h and h)(history(sb)),
                 "sections of both clients")
        c.equal(h[TV][1].get("hostname"), "living-room-tv", "arrival: host name from the lease file")
        c.equal(h[NAS][1].get("hostname"), "nas-box", "arrival: the other host name too")
        c.check(h[TV][1].get("first_access_time") == h[TV][1].get("access_time"),
                "arrival (status 1): first_access_time written with access_time", h[TV][1])
        r = roster(sb)
        c.check(r.get(bus_mac(tv.mac), {}).get("connect_status") == 1
                and r.get(bus_mac(nas.mac), {}).get("connect_status") == 1,
                "after the pass (status 5): connect_status 1 on the bus", r)
        c.equal(r.get(bus_mac(tv.mac), {}).get("hostname"), "living-room-tv",
                "the bus shows the lease's host name")

        # Stay: the compare again over the same scan, asked for on the bus.
        tv_before = dict(h[TV][1])
        tv_section = h[TV][0]
        c.check(update(sb), "ubus call lanroster update '{}'")
        wait(sb, lambda: console_has(sb, "update client by compare, status(2)", tail(tv.mac),
                                     "hostname(living-room-tv)"), "console: status(2) of tv", 10)
        c.check(console_has(sb, "status(2)", tail(nas.mac)), "keep-alive (status 2) of both clients")
        c.equal(history(sb)[TV][1], tv_before, "keep-alive: the section is not rewritten")
        c.equal(roster(sb).get(bus_mac(tv.mac), {}).get("connect_status"), 1,
                "after the compare (status 5): connect_status 1")

        # One arrives, one leaves, one is renamed: all seen by the next pass.
        cam, = lab.add_clients([dict(name="cam", port="lan1", hostname="porch-cam")])
        lab.leave("nas")
        lab.change_name("tv", "tv-renamed")
        # The client talks as it comes up, so the kernel's neighbour event
        # may bring it in before the pass does; either road is an arrival.
        wait(sb, lambda: console_has(sb, "status(1)(new)", tail(cam.mac), "hostname(porch-cam)")
             or console_has(sb, "ASSOC_add", event_tail(cam.mac)),
             "console: arrival of the new client, by the pass or by the event")
        c.check(True, "arrival of a new client on the console (status 1 by the pass, or the event's join)")
        wait(sb, lambda: console_has(sb, "status(4)", tail(nas.mac)), "console: status(4) of nas")
        c.check(True, "leaving (status 4) on the console")
        h = wait(sb, lambda: (lambda h: "leave_time" in h[NAS][1] and h)(history(sb)),
                 "leave_time of the client that left")
        c.check(int(h[NAS][1]["leave_time"]) >= int(h[NAS][1]["access_time"]),
                "leaving (status 4): leave_time written")
        r = roster(sb)
        c.equal(r.get(bus_mac(nas.mac), {}).get("wire_type"), "offline", "leaving: wire_type offline on the bus")
        c.equal(r.get(bus_mac(nas.mac), {}).get("connect_status"), 0, "leaving: connect_status 0")
        c.equal(r.get(bus_mac(cam.mac), {}).get("hostname"), "porch-cam", "the new client, named by its lease")

        h = wait(sb, lambda: (lambda h: h[TV][1].get("hostname") == "tv-renamed" and h)(history(sb)),
                 "the new name in the history file")
        c.equal(h[TV][0], tv_section, "rename: the same section")
        c.check(int(h[TV][1]["access_time"]) >= int(tv_before["access_time"])
                and h[TV][1].get("first_access_time") == tv_before.get("first_access_time"),
                "rename: section rewritten, first_access_time kept", h[TV][1])
        c.check(console_has(sb, "status(3)", tail(tv.mac), "hostname(tv-renamed)"),
                "rename: a reconnection (status 3) on the console")
        c.equal(roster(sb).get(bus_mac(tv.mac), {}).get("hostname"), "tv-renamed", "rename: the bus shows the new name")

        # Back again: a reconnection into the same section.
        nas_left = dict(h[NAS][1])
        lab.come_back("nas")
        wait(sb, lambda: console_has(sb, "status(3)", tail(nas.mac))
             or console_has(sb, "ASSOC_reconnect", event_tail(nas.mac)),
             "console: nas back, by the pass (status 3) or by the event")
        c.check(True, "coming back on the console (status 3 by the pass, or the event's reconnection)")
        h = wait(sb, lambda: (lambda h: h[NAS][1].get("access_time") != nas_left.get("access_time") and h)(
            history(sb)), "the reconnection in the history file", 10)
        c.equal(h[NAS][1].get("leave_time"), nas_left.get("leave_time"), "reconnection: leave_time kept")
        c.equal(h[NAS][1].get("first_access_time"), nas_left.get("first_access_time"),
                "reconnection: first_access_time kept")
        wait(sb, lambda: roster(sb).get(bus_mac(nas.mac), {}).get("connect_status") == 1,
             "connect_status 1 of nas after the pass", 5)
        c.check(True, "reconnection: connect_status 1 again on the bus")
        c.equal(len(history(sb)), 3, "three clients, three sections")
        c.check(sb.proc.poll() is None, "the daemon runs on")


ODD_NAME = 'a"b$(touch${IFS}/tmp/lr-p1)c`touch${IFS}/tmp/lr-p2`'


def test_odd_name(c):
    with Lab() as lab:
        lab.add_port("lan1")
        odd, = lab.add_clients([dict(name="odd", port="lan1", dhcp=False, ip="192.168.1.60")])
        # dnsmasq would not hand out such a name, and with no DHCP client in
        # this LAN it never rewrites the file: the line stays as written.
        with open(lab.lease_file, "w") as f:
            # The sixth column is the device type: row 27, "Printer".
            f.write(f"{int(time.time()) + 86400} {odd.mac} 192.168.1.60 {ODD_NAME} * 27\n")
        sb = start(c, lab)
        if sb is None:
            return
        ODD = hex_mac(odd.mac)
        h = wait(sb, lambda: (lambda h: ODD in h and h)(history(sb)), "section of the client")
        c.equal(h[ODD][1].get("hostname"), ODD_NAME, "the history file holds the name as it is")
        c.equal(roster(sb).get(bus_mac(odd.mac), {}).get("hostname"), ODD_NAME,
                "the bus shows the name as it is")
        c.equal(h[ODD][1].get("type"), "Printer", "the lease's type column gives the device type")
        c.equal(roster(sb).get(bus_mac(odd.mac), {}).get("device_type"), "Printer",
                "the bus shows the lease's device type")
        c.check(update(sb), "ubus call lanroster update '{}'")
        wait(sb, lambda: console_has(sb, "status(2)", tail(odd.mac)), "console: status(2) of the client", 10)
        c.check(console_has(sb, f"hostname({ODD_NAME})"), "the console shows the name literally",
                [line for line in sb.console().splitlines() if tail(odd.mac) in line][-1:])
        for p in ("/tmp/lr-p1", "/tmp/lr-p2"):
            c.check(not os.path.exists(sb.path(p)) and not os.path.exists(p), f"nothing made {p}")
        c.check(sb.proc.poll() is None, "the daemon runs on")


if __name__ == "__main__":
    labtest.main([test_lifecycle, test_odd_name])
