#!/usr/bin/python3
"""Teardown leaves nothing behind (namespaces, processes, mounts, links,
files): after a normal end, an exception, Ctrl-C and SIGTERM of the owner;
and after SIGKILL of the owner, "labctl cleanup" removes what is left."""
import os
import signal
import subprocess
import sys

import labtest
from labtest import leftovers, wait_until
from lanlab import Lab, util

CHILD = r'''
import sys
sys.path.insert(0, sys.argv[1])
from lanlab import Lab
with Lab() as lab:
    lab.add_port("wl0")
    lab.add_clients([dict(name="a", port="wl0", hostname="a", mdns="a"), dict(name="b")])
    sb = lab.sandbox()
    sb.start(["sh", "-c", "exec sleep 300"])
    print(lab.id, flush=True)
    sys.stdin.read()
'''


def busy_lab():
    lab = Lab()
    lab.start()
    lab.add_port("lan1")
    lab.add_clients([dict(name="x", port="lan1", hostname="x", netbios="X"),
                     dict(name="y", dhcp=False, silent=True)])
    sb = lab.sandbox()
    sb.start(["sh", "-c", "echo up > /dev/console; exec sleep 300"])
    wait_until(lambda: "up" in sb.console())
    return lab


def host_links():
    return util.run(["ip", "-o", "link"]).stdout.count("\n")


def test_normal_and_exception(c):
    links = host_links()
    with busy_lab() as lab:
        pids = [p for p, _, _ in lab._procs.values()]
        c.check(len(pids) >= 4, "the lab runs services (dnsmasq, responder, console, command)")
    c.equal(leftovers(lab.id), [], "normal end: nothing left")
    c.check(all(not util.pid_alive(p) for p in pids), "normal end: its processes are gone")
    c.equal(host_links(), links, "no link appeared in the host namespace")
    try:
        with busy_lab() as lab:
            raise RuntimeError("a failing test")
    except RuntimeError:
        pass
    c.equal(leftovers(lab.id), [], "exception: nothing left")


def run_child_and(signum):
    p = subprocess.Popen([sys.executable, "-c", CHILD, labtest.LAB_DIR], stdin=subprocess.PIPE,
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                         env=dict(os.environ, LANROSTER_LAB_QUIET="1"))
    lab_id = p.stdout.readline().strip()
    present = bool(lab_id) and leftovers(lab_id) != []
    p.send_signal(signum)
    try:
        p.wait(timeout=30)
    except subprocess.TimeoutExpired:
        p.kill()
    return lab_id, present, p


def test_signals(c):
    for signum, name in ((signal.SIGINT, "Ctrl-C"), (signal.SIGTERM, "SIGTERM")):
        lab_id, present, p = run_child_and(signum)
        c.check(present, f"{name}: the child's lab was up")
        c.equal(leftovers(lab_id), [], f"{name}: the owner tore its lab down")
    lab_id, present, p = run_child_and(signal.SIGKILL)
    c.check(present and leftovers(lab_id) != [], "SIGKILL: leftovers stay behind")
    r = subprocess.run([sys.executable, os.path.join(labtest.LAB_DIR, "labctl"), "cleanup"],
                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    c.equal(r.returncode, 0, "labctl cleanup runs")
    c.equal(leftovers(lab_id), [], "labctl cleanup removed the dead owner's lab")


def test_sweeper_spares_live_labs(c):
    with Lab() as lab:
        lab.add_client("keep", dhcp=False)
        r = subprocess.run([sys.executable, os.path.join(labtest.LAB_DIR, "labctl"), "cleanup"],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        c.equal(r.returncode, 0, "cleanup beside a live lab")
        c.check(lab.router_ns in util.list_netns() and lab.clients["keep"].ns in util.list_netns(),
                "a live lab's namespaces survive the sweeper")


if __name__ == "__main__":
    labtest.main([test_normal_and_exception, test_signals, test_sweeper_spares_live_labs])
