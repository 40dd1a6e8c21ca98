#!/usr/bin/python3
"""Memory of the daemon after start-up: the full pool of 388 records, all of
them known clients loaded from the history store, the thread pool running and
the bus face published; then after one client list of all 388 and after 100
more. Prints the daemon's private resident memory (RssAnon) and its total
resident set (VmRSS) at each point. A list of 388 clients is some 400 KB;
the reply buffer gives such an allocation back once the reply is sent, so the
figures after the lists should stay near the one after start-up.

Run as root from the source tree after scripts/build normal:
    bench/bus/daemon_memory.py [--build-dir build] [--lists 100]
"""
import argparse
import os
import shlex
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "lab"))

from lanlab import Lab  # noqa: E402

RECORDS = 388
LISTS = 100


def history_package(n):
    out = []
    for i in range(n):
        out.append("config list\n"
                   f"\toption mac '02000000{i >> 8:02X}{i & 0xff:02X}'\n"
                   f"\toption hostname 'known-device-{i:03d}'\n"
                   "\toption type 'Laptop'\n"
                   f"\toption nickname 'Device {i}'\n"
                   "\toption access_host '1'\n")
    return "\n".join(out)


def runs(pid, binary):
    """True when process `pid` runs `binary`, natively or as the program of
    qemu-user (an ARM build under scripts/qemu-arm-run)."""
    exe = os.readlink(f"/proc/{pid}/exe")
    if exe == binary:
        return True
    if not os.path.basename(exe).startswith("qemu-"):
        return False
    with open(f"/proc/{pid}/cmdline", "rb") as f:
        argv = f.read().split(b"\0")
    return any(os.path.realpath(a.decode()) == binary for a in argv[1:] if a)


def daemon_pid(binary, run_dir):
    """The daemon's own process: its executable, started for this run."""
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            if not runs(pid, binary):
                continue
            with open(f"/proc/{pid}/environ", "rb") as f:
                if f"LANROSTER_LAB_RUN={run_dir}".encode() in f.read():
                    return int(pid)
        except OSError:
            pass
    return None


def status_kib(pid, field):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return -1


def guest_anon_kib(pid):
    """Under qemu-user a 32-bit guest's memory lies below 4 GiB of the
    process (its guest base is 0 here), the emulator's own above: the
    anonymous memory of the guest, that is the daemon's own share."""
    total = 0
    low = False
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            head = line.split(" ", 1)[0]
            if "-" in head and not head.endswith(":"):
                low = int(head.split("-")[0], 16) < (1 << 32)
            elif low and line.startswith("Anonymous:"):
                total += int(line.split()[1])
    return total


def report(when, pid, emulated=False):
    anon = status_kib(pid, "RssAnon")
    rss = status_kib(pid, "VmRSS")
    print(f"{when}:")
    if emulated:
        guest = guest_anon_kib(pid)
        print(f"  daemon's own anonymous memory (guest): {guest} KiB = {guest / 1024:.2f} MiB (goal < 1 MiB)")
        print(f"  RssAnon (private, anonymous, with the emulator's own): {anon} KiB = {anon / 1024:.2f} MiB")
    else:
        print(f"  RssAnon (private, anonymous): {anon} KiB = {anon / 1024:.2f} MiB (goal < 1 MiB)")
    print(f"  VmRSS   (total resident):     {rss} KiB = {rss / 1024:.2f} MiB")
    print(f"  RssFile (shared libraries):   {status_kib(pid, 'RssFile')} KiB")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build-dir", default=os.path.join(ROOT, "build"))
    ap.add_argument("--lists", type=int, default=LISTS)
    ap.add_argument("--daemon", help="the daemon binary (default: lanroster of the build dir)")
    ap.add_argument("--emulator", default="",
                    help="command line that runs the daemon, such as qemu-arm-static for an ARM "
                         "build (bench/target_report)")
    args = ap.parse_args()
    build = os.path.abspath(args.build_dir)
    with Lab() as lab:
        sb = lab.sandbox(build_dir=build)
        sb.write_packages({"history_list": history_package(RECORDS)})
        if not sb.start_ubusd():
            sys.exit("ubusd is not built")
        daemon = os.path.abspath(args.daemon) if args.daemon else sb.daemon_binary
        if args.emulator:
            sb.start(shlex.split(args.emulator) + [daemon])
        else:
            sb.start_daemon()
        sb.wait_bus_object("lanroster", 30)
        # A method runs only once the loop runs, that is after the start-up
        # (pool, history, first pass); this one changes nothing.
        sb.ubus("call", "lanroster", "update", '{"interval": 14000}')
        pid = daemon_pid(os.path.realpath(daemon), sb.dir)
        if pid is None:
            sys.exit("daemon process not found")
        emulated = bool(args.emulator)
        report("after start-up", pid, emulated)
        clients = sb.hist_list(v6=1, qos=1, access_limit=1)
        print(f"known clients listed: {len(clients)} (pool {RECORDS})")
        report("after one client list", pid, emulated)
        if args.lists > 1:
            for _ in range(args.lists - 1):
                if len(sb.hist_list(v6=1, qos=1, access_limit=1)) != len(clients):
                    sys.exit("a client list came back short")
            report(f"after {args.lists} client lists", pid, emulated)


if __name__ == "__main__":
    main()
