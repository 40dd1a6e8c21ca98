#!/usr/bin/python3
"""A storm of bus events while the workers are busy leaves the production
daemon's memory where it was.

The daemon logs at level 6, so each "lanroster.print_lan_info" task writes
console lines and the two workers fall behind a sender that goes as fast as
the bus: the 64-slot queue turns tasks away, and the dispatcher must free
the event copy of each. Two storms of 100,000 events: RssAnon after the
second is where it was after the first. In the sanitizer build RssAnon
means little; there the leak checker judges at the daemon's exit instead.
"""
import json
import os
import signal
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "lab", "tests"))

import labtest  # noqa: E402
from lanlab import Lab, util  # noqa: E402

BUILD = os.environ.get("LANROSTER_BUILD_DIR", os.path.join(ROOT, "build"))
STORM = os.path.join(BUILD, "tests", "bus", "lr_event_storm")
EVENTS = 100_000
# Allocator noise of a long-running process, far below what 100,000 lost
# copies would pin.
GROWTH_LIMIT_KB = 256


def sanitized():
    with open(os.path.join(BUILD, "CMakeCache.txt")) as f:
        return "LANROSTER_SANITIZE:BOOL=ON" in f.read()


def status_kb(pid, key):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    return None


def cpu_ticks(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def settled(sb, pid, marker):
    """The storm is over once the daemon burns no CPU for a second and then
    handles one more event."""
    last = [cpu_ticks(pid), time.monotonic()]

    def idle():
        now = cpu_ticks(pid)
        if now != last[0]:
            last[0], last[1] = now, time.monotonic()
            return False
        return time.monotonic() - last[1] >= 1.0
    util.wait_for(idle, 240, interval=0.1, what="the daemon idle after the storm")
    before = len(sb.console())
    sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": marker}))
    util.wait_for(lambda: "[lr] set_log_level" in sb.console()[before:] or marker < 7, 30,
                  what="the marker event handled")


def storm(sb, c, what):
    r = sb.run([STORM, "/var/run/ubus.sock", str(EVENTS), "lanroster.print_lan_info", "{}"], timeout=240)
    c.equal(r.returncode, 0, f"{what}: {EVENTS} events sent")


def test_storm_leaves_memory_where_it_was(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_clients([dict(name=f"c{i}", port="lan1") for i in range(3)])
        sb = lab.sandbox()
        if not sb.start_ubusd():
            c.check(False, "ubusd built")
            return
        proc = sb.start_daemon()
        sb.wait_bus_object("lanroster", 30)
        # The sandbox's wrappers exec the daemon: it keeps the process id.
        pid = proc.pid
        sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 7}))
        sb.wait_console("[lr] set_log_level")
        sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 6}))
        storm(sb, c, "first storm")
        settled(sb, pid, 7)
        sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 6}))
        first = status_kb(pid, "RssAnon")
        storm(sb, c, "second storm")
        settled(sb, pid, 7)
        second = status_kb(pid, "RssAnon")
        print(f"  RssAnon after the first storm {first} kB, after the second {second} kB", flush=True)
        if not sanitized():
            c.check(second - first < GROWTH_LIMIT_KB, "the second storm leaves RssAnon where it was",
                    f"{first} kB -> {second} kB")
        proc.send_signal(signal.SIGTERM)
        c.equal(proc.wait(timeout=30), 0, "exit 0 after SIGTERM (and a quiet leak checker when sanitized)")
        sb.stop_daemon()


labtest.main([test_storm_leaves_memory_where_it_was])
