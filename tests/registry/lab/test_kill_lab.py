#!/usr/bin/python3
"""kill -9 of the real daemon while clients arrive, in the lab.

The router knows 300 clients from an earlier life (none of them on the LAN)
and six DHCP clients are on the LAN but not in the package, so every life of
the daemon begins with six arrivals: a new section each, written while the
package is large. The daemon is killed with SIGKILL at a random moment of its
start-up and first pass, and the package is read back with the uci tool
(pending changes of the save directory replayed, as the next start-up would):
it must parse, every section must carry its mac and its hostname, and the 300
known clients must all be there. Kill moments spread over a span a little
longer than one calibrated life, from the start to the last arrival written."""
import os
import random
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.abspath(os.path.join(HERE, "..", "..", ".."))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))

import labtest  # noqa: E402
from lanlab import Lab, util  # noqa: E402

KNOWN = 300
ARRIVALS = 6
LIVES = int(os.environ.get("LANROSTER_KILL_LIVES", "1000"))


def hex_mac(mac):
    return mac.replace(":", "").upper()


def known_package():
    return "".join(f"\nconfig list\n\toption mac '02EE0000{i:04X}'\n\toption hostname 'old-{i}'\n"
                   f"\toption type 'Printer'\n\toption access_host '1'\n" for i in range(KNOWN))


def show(sb):
    """{section: {option: value}} of history_list as the uci tool reads it
    with the daemon's save directory, or None when it does not parse."""
    uci = os.path.join(sb.platform_bin, "uci")
    r = subprocess.run([uci, "-c", sb.path("/etc/config"), "-t", sb.path("/tmp/.uci"), "show",
                        "history_list"], text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if r.returncode != 0:
        return None
    sections = {}
    for line in r.stdout.splitlines():
        key, _, value = line.partition("=")
        parts = key.split(".")
        if len(parts) == 2:
            sections.setdefault(parts[1], {})
        elif len(parts) == 3:
            v = value[1:-1] if value.startswith("'") and value.endswith("'") else value
            sections.setdefault(parts[1], {})[parts[2]] = v
    return sections


def macs_of(sections):
    return {opts.get("mac") for opts in sections.values()}


def kill_daemon(sb):
    proc = sb.proc
    try:
        os.kill(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    proc.wait(timeout=10)
    try:  # what it had started (its session) goes with it, as in a power cut
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    sb.stop_daemon()


def fresh_life(sb):
    """The package as the life begins: the known clients, no lab client."""
    sb.write_packages({"history_list": known_package()})
    try:
        os.unlink(sb.path("/tmp/.uci/history_list"))
    except FileNotFoundError:
        pass


def run(c):
    with Lab() as lab:
        lab.add_port("lan1")
        clients = lab.add_clients([dict(name=f"dev{i}", port="lan1", hostname=f"dev-{i}")
                                   for i in range(ARRIVALS)])
        lab_macs = {hex_mac(x.mac) for x in clients}
        sb = lab.sandbox()
        if not c.check(sb.start_ubusd(), "ubusd is built"):
            return
        if not c.check(os.access(sb.daemon_binary, os.X_OK), "the daemon is built"):
            return
        known = {f"02EE0000{i:04X}" for i in range(KNOWN)}

        # Calibration: one whole life, from the start to the last arrival
        # on file.
        fresh_life(sb)
        t0 = time.monotonic()
        sb.start_daemon()

        def all_arrived():
            if sb.proc.poll() is not None:
                raise util.LabError(f"the daemon exited with {sb.proc.returncode}")
            s = show(sb)
            return s is not None and lab_macs <= macs_of(s)
        util.wait_for(all_arrived, 45, interval=0.02, what="the arrivals on file")
        span = (time.monotonic() - t0) * 1.2
        kill_daemon(sb)
        c.check(True, f"one life writes {ARRIVALS} arrivals within {span / 1.2:.2f} s")

        rng = random.Random(20261123)
        torn, lost, half, mid = [], [], [], 0
        for life in range(1, LIVES + 1):
            fresh_life(sb)
            sb.start_daemon()
            time.sleep(rng.uniform(0, span))  # the kill moment, not a wait for state
            kill_daemon(sb)
            s = show(sb)
            if s is None:
                torn.append(life)
                continue
            if not known <= macs_of(s):
                lost.append((life, sorted(known - macs_of(s))[:3]))
            half += [(life, name, opts) for name, opts in s.items()
                     if "mac" not in opts or "hostname" not in opts]
            arrived = len(lab_macs & macs_of(s))
            mid += 0 < arrived < ARRIVALS
        c.equal(torn, [], "after every kill the package parses")
        c.equal(lost, [], "after every kill the known clients are all there")
        c.equal(half, [], "after every kill every section has its mac and its hostname")
        c.check(True, f"{LIVES} kills, {mid} of them between two arrivals")


if __name__ == "__main__":
    labtest.main([run])
