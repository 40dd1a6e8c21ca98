#!/usr/bin/python3
"""SIGTERM at random moments ends the production daemon at once with status 0.

The router's neighbour table holds 50 stale neighbours that nobody answers,
so every pass waits for ARP replies (about 4 s), and 50 remembered rows told
through `update` keep the next pass in its ARP checks (150 ms each). The
daemon is stopped at ten random moments: during start-up and its start-up
pass (before the bus object exists), in the loop, and during timer passes.
Each time it must exit with 0, promptly; the figures are printed.
"""
import json
import os
import random
import signal
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))
import labtest  # noqa: E402  (puts lab/ on sys.path)
from lanlab import Lab, util  # noqa: E402

SILENT = 50
# The timer's first pass starts 14 s after it is armed, early in start-up.
TIMER_PASS_S = 14.0
# Far above what a stop takes (the daemon's bound is 1 s), so that a loaded
# machine cannot fail the test; the measured figures are printed.
EXIT_LIMIT_S = 5.0


def stale_neighbours(lab):
    util.ip_batch([f"neigh replace 192.168.1.{150 + i} lladdr 02:5e:00:00:00:{i:02x} dev br-lan nud stale"
                   for i in range(SILENT)], ns=lab.router_ns)


def remember_silent_rows(sb):
    for i in range(SILENT):
        sb.ubus("call", "lanroster", "update",
                json.dumps({"report_neigh": f"02:5f:00:00:00:{i:02x} 192.168.1.{50 + i}"}))


def stop_at(sb, delay):
    """Starts the daemon and sends SIGTERM `delay` seconds later: (status,
    seconds from the signal to the exit)."""
    proc = sb.start_daemon()
    time.sleep(delay)
    return signal_and_wait(sb, proc)


def signal_and_wait(sb, proc):
    t0 = time.monotonic()
    proc.send_signal(signal.SIGTERM)
    try:
        status = proc.wait(timeout=30)
    except Exception:
        proc.kill()
        status = proc.wait()
    took = time.monotonic() - t0
    sb.stop_daemon()
    return status, took


def test_sigterm_at_random_moments(c):
    seed = int(os.environ.get("LANROSTER_SHUTDOWN_SEED", time.time_ns() % 100000))
    rng = random.Random(seed)
    print(f"seed {seed}", flush=True)
    with Lab() as lab:
        lab.add_port("lan1")
        stale_neighbours(lab)
        sb = lab.sandbox()
        if not sb.start_ubusd():
            c.check(False, "ubusd built")
            return
        figures = []
        # Start-up: before the bus, during the start-up pass's ARP wait.
        for _ in range(5):
            delay = rng.uniform(0.05, 4.5)
            figures.append(("start-up", delay) + stop_at(sb, delay))
        # In the loop, between passes.
        for _ in range(2):
            proc = sb.start_daemon()
            sb.wait_bus_object("lanroster", 30)
            remember_silent_rows(sb)
            delay = rng.uniform(0.0, 1.0)
            time.sleep(delay)
            figures.append(("loop", delay) + signal_and_wait(sb, proc))
        # Timer passes: the ARP wait of the stale neighbours, then the checks
        # of the remembered rows.
        for _ in range(3):
            proc = sb.start_daemon()
            t0 = time.monotonic()
            sb.wait_bus_object("lanroster", 30)
            remember_silent_rows(sb)
            delay = TIMER_PASS_S + rng.uniform(0.2, 6.0)
            time.sleep(max(0.0, delay - (time.monotonic() - t0)))
            figures.append(("timer pass", delay) + signal_and_wait(sb, proc))
        for where, delay, status, took in figures:
            print(f"  SIGTERM {where:10} at {delay:5.2f} s: exit {status} after {took * 1000:6.1f} ms")
            c.equal(status, 0, f"SIGTERM {where} at {delay:.2f} s: exit status 0")
            c.check(took < EXIT_LIMIT_S, f"SIGTERM {where} at {delay:.2f} s: prompt exit",
                    f"took {took:.2f} s")
        print(f"slowest stop: {max(f[3] for f in figures) * 1000:.1f} ms", flush=True)


labtest.main([test_sigterm_at_random_moments])
