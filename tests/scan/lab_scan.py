#!/usr/bin/python3
"""Lab tests of the scan pass and the daemon's frame, in the lab's router
namespace.

What the daemon shows on the bus or its console is checked on the
production binary (lanroster): the clients of a pass through
get_hist_list_new after `update`, the remembered neighbours through
`update {"print_neigh":1}`, the LAN description through the event
print_lan_info, the console frame and level filter after the event
set_log_level, and SIGTERM.

Two test programs remain, each for what the daemon cannot show:
- lr_scan_probe (the scan pass alone, its result as JSON lines):
  * how long one pass waits for answers (4000 ms for an unanswered probe,
    the end of the wait at the last answer): the daemon's passes run on a
    14 s timer and nothing on the bus times one;
  * the entries of a pass before the registry merges them by MAC (two
    addresses of one MAC are one record on the bus);
  * the neighbour dump's buffer (datagrams, growth steps), which is private
    to the pass;
  * the gateway's address and whole MAC (the console line shows its last
    two bytes and port);
  * a text of our choosing through the log call, for the shell-text check:
    the daemon logs only names that clients give it.
- lanroster_trace (the daemon's start function with the level preset to
  7): the start-up lines at level 7, which are printed before the bus is up
  and so before any event can raise the level.
"""
import json
import os
import re
import signal
import socket
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))
import labtest  # noqa: E402  (puts lab/ on sys.path)
from labtest import wait_until  # noqa: E402
from lanlab import Lab, util  # noqa: E402

BUILD = os.environ.get("LANROSTER_BUILD_DIR", os.path.join(SRC, "build"))
PROBE = os.path.join(BUILD, "tests", "scan", "lr_scan_probe")
TRACE = os.path.join(BUILD, "tests", "scan", "lanroster_trace")
DAEMON = os.path.join(BUILD, "lanroster")

ALL_KEYS = {k: 1 for k in ("online_type", "v6", "access_limit", "speed_limit", "qos", "tfstats",
                           "wireless", "qos_schedule", "high_bandwidth_occupancy", "lanroster_file")}


def dashed(mac):
    return mac.upper().replace(":", "-")


def daemon_sandbox(lab, c):
    """A sandbox with ubusd and the production daemon, after its first pass
    (it publishes its objects only then)."""
    sb = lab.sandbox()
    if not sb.start_ubusd():
        c.check(False, "ubusd built")
        return None
    sb.start_daemon()
    sb.wait_bus_object("lanroster", 30)
    return sb


def raise_log_level(sb, c):
    r = sb.ubus("send", "lanroster.set_log_level", json.dumps({"log_level": 7}))
    c.equal(r.returncode, 0, "ubus send lanroster.set_log_level")
    c.check(sb.wait_console("[lr] set_log_level", 10), "the level-7 line of the task itself")


def lan_info_line(sb, c):
    """The line of the event print_lan_info (level 6: raise the level first)."""
    before = len(sb.console())
    r = sb.ubus("send", "lanroster.print_lan_info", "{}")
    c.equal(r.returncode, 0, "ubus send lanroster.print_lan_info")
    wait_until(lambda: "lan info, ip : " in sb.console()[before:], 10)
    for m in console_lines(sb.console()[before:]):
        if m.group(6).startswith("lan info, ip : "):
            return m
    return None


def print_neigh(sb, c=None):
    """The rows of `update {"print_neigh":1}`. Tables with an empty name
    print without a name, so the text is read table by table."""
    r = sb.ubus("call", "lanroster", "update", json.dumps({"print_neigh": 1}))
    if c:
        c.equal(r.returncode, 0, "update print_neigh")
    body = r.stdout.strip()[1:-1]
    return [json.loads("{" + t.split("{", 1)[1].rsplit("}", 1)[0] + "}")
            for t in body.split("},") if "{" in t]


def probe(sb, *args, timeout=60):
    r = sb.run([PROBE] + list(args), timeout=timeout)
    if r.returncode != 0:
        raise RuntimeError(f"lr_scan_probe {args} failed: {r.returncode}\n{r.stderr}")
    return [json.loads(line) for line in r.stdout.splitlines() if line.startswith("{")]


def passes(lines):
    return [x for x in lines if "pass" in x]


def entries_by_mac(p):
    return {e["mac"]: e for e in p["entries"]}


def wired_lab(lab, n, **spec):
    lab.add_port("lan1")
    return lab.add_clients([dict(name=f"c{i}", port="lan1", dhcp=False, **spec) for i in range(n)])


def test_twenty_wired_clients_one_pass(c):
    with Lab() as lab:
        clients = wired_lab(lab, 20)
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        raise_log_level(sb, c)
        m = lan_info_line(sb, c)
        c.check(m is not None, "print_lan_info printed the LAN")
        if m:
            c.check(m.group(6).startswith("lan info, ip : 192.168.1.1, mask : 24,"),
                    f"LAN address from the network package, mask 255.255.255.0 as 24 ({m.group(6)})")
        r = sb.ubus("call", "lanroster", "update", "{}")
        c.equal(r.returncode, 0, "update {} runs a compare pass")
        res = sb.ubus_call("lanroster", "get_hist_list_new", dict(ALL_KEYS, online_type=2)) or {}
        roster = res.get("client_list", [])
        c.equal(len(roster), 20, "20 entries from one pass")
        want = {dashed(cl.mac): cl.ip for cl in clients}
        c.equal({r["mac"]: r["ip"] for r in roster}, want, "each client with its address")
        c.check(all(r["hostname"] == "network device" for r in roster),
                "no lease and no known vendor: every host name is \"network device\"")
        c.check(all(r["connect_status"] == 1 for r in roster), "every client connected")
        rows = print_neigh(sb, c)
        c.equal(sorted(r["ip"] for r in rows if r["active"] == "1"), sorted(want.values()),
                "each answering client's row is set and active")


def test_twenty_wired_clients_wait_ends_with_the_last_answer(c):
    with Lab() as lab:
        wired_lab(lab, 20)
        sb = lab.sandbox()
        p = passes(probe(sb))[0]
        c.equal(p["result"], 20, "20 entries counted")
        c.check(p["wall_ms"] < 4000, f"the wait ended with the last answer ({p['wall_ms']} ms)")


def capture_arp(ns):
    with util.NetnsEntered(ns):
        s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0806))
    s.settimeout(0.2)
    return s


def test_arp_request_bytes_on_the_wire(c):
    with Lab() as lab:
        (cl,) = wired_lab(lab, 1)
        cap = capture_arp(cl.ns)
        sb = daemon_sandbox(lab, c)
        if not sb:
            cap.close()
            return
        frames = []
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline:
            try:
                frames.append(cap.recv(2048))
            except socket.timeout:
                if frames:
                    break
        cap.close()
        mine = bytes.fromhex(cl.mac.replace(":", ""))
        router = bytes.fromhex(lab.router_mac.replace(":", ""))
        requests = [f for f in frames if len(f) >= 42 and f[20:22] == b"\x00\x01" and f[22:28] == router]
        c.check(requests, "the client received ARP requests from the router")
        if not requests:
            return
        want = (mine + router + b"\x08\x06" + b"\x00\x01" + b"\x08\x00" + bytes([6, 4]) + b"\x00\x01" +
                router + socket.inet_aton(lab.router_ip) + bytes(6) + socket.inet_aton(cl.ip))
        c.equal(requests[0][:42].hex(), want.hex(), "a 42-byte unicast request laid out byte for byte")
        c.equal(len(requests[0]), 42, "nothing after the 42 bytes")


def silence_quiet_and_drop_away(lab, talk, quiet, away):
    """quiet stops answering ARP but stays in the neighbour table; talk and
    away drop out of the kernel table; away leaves."""
    lab.silence(quiet, arp=False)
    lab.leave(away, "down")
    util.run(util.in_netns(lab.router_ns, ["ip", "neigh", "del", talk.ip, "dev", "br-lan"]))
    util.run(util.in_netns(lab.router_ns, ["ip", "neigh", "del", away.ip, "dev", "br-lan"]))


def test_silent_and_remembered(c):
    with Lab() as lab:
        talk, quiet, away = wired_lab(lab, 3)
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        first = {r["ip"]: r["active"] for r in print_neigh(sb, c)}
        c.equal(first, {cl.ip: "1" for cl in (talk, quiet, away)}, "first pass: all three answer")
        silence_quiet_and_drop_away(lab, talk, quiet, away)
        # The next pass comes with the 14 s timer, then waits 4 s for quiet.
        wait_until(lambda: len(print_neigh(sb)) == 1, 30)
        rows = {r["ip"]: r for r in print_neigh(sb, c)}
        c.check(talk.ip in rows and rows[talk.ip]["active"] == "1", "remembered neighbour kept and active")
        c.check(quiet.ip not in rows, "silent client's row cleared")
        c.check(away.ip not in rows, "departed client's row cleared")
        # The rows change during the scan, the list at the compare pass that
        # follows it: wait for that pass too.
        def online():
            return [r["mac"] for r in sb.hist_list(online_type=1)]
        wait_until(lambda: online() == [dashed(talk.mac)], 10)
        c.equal(online(), [dashed(talk.mac)], "second pass: only the remembered client that answers")


def test_unanswered_probe_wait_limit(c):
    with Lab() as lab:
        talk, quiet, away = wired_lab(lab, 3)
        sb = lab.sandbox()
        proc = subprocess.Popen(sb.argv([PROBE, "--passes", "3", "--step"]), stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, text=True)
        try:
            first = json.loads(read_pass(proc))
            c.equal(first["result"], 3, "first pass: all three answer")
            silence_quiet_and_drop_away(lab, talk, quiet, away)
            proc.stdin.write("next\n")
            proc.stdin.flush()
            second = json.loads(read_pass(proc))
            # 4000 ms for the probe, then 150 ms for the departed client's
            # two checks; the rest is slack for a loaded test machine.
            c.check(4000 <= second["wall_ms"] < 6000,
                    f"an unanswered probe waits 4000 ms and not much longer ({second['wall_ms']} ms)")
        finally:
            proc.stdin.close()
            proc.wait(timeout=30)


def read_pass(proc):
    while True:
        line = proc.stdout.readline()
        if not line:
            raise RuntimeError("probe ended early")
        if line.startswith('{"pass"'):
            return line


def test_two_addresses_one_mac(c):
    with Lab() as lab:
        (cl,) = wired_lab(lab, 1)
        second_ip = "192.168.1.222"
        util.ip_batch([f"addr add {second_ip}/24 dev eth0"], ns=cl.ns)
        with util.NetnsEntered(lab.router_ns):
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            s.sendto(b"lab", (second_ip, 9))
            s.close()
        util.wait_for(lambda: any(n[0] == second_ip and n[1] for n in lab.neighbours()), 5,
                      what="second address in the neighbour table")
        sb = lab.sandbox()
        p = passes(probe(sb))[0]
        ips = sorted(e["ip"] for e in p["entries"] if e["mac"] == cl.mac)
        c.check(ips and set(ips) <= {cl.ip, second_ip}, f"the MAC has entries ({ips})")
        c.check(p["wall_ms"] < 2000, f"one answer ends the wait for both ({p['wall_ms']} ms)")
        rows = {r["ip"] for r in p["arp_item"]}
        c.check(all(ip in rows for ip in ips) and all(ip in ips for ip in rows & {cl.ip, second_ip}),
                "rows exist exactly for the addresses that got entries")


def test_dump_spans_several_datagrams(c):
    with Lab() as lab:
        lab.add_port("lan1")
        sb = lab.sandbox()
        lines = ["link add dum0 type veth peer name dum1", "link set dum0 up", "link set dum1 up"]
        for i in range(600):
            lines.append(f"neigh add 10.77.{i // 250}.{i % 250 + 1} lladdr 02:77:00:00:{i // 256:02x}:{i % 256:02x} "
                         f"dev dum0 nud permanent")
        util.ip_batch(lines, ns=lab.router_ns)
        d = probe(sb, "--dump")[0]
        c.check(d["dump_bytes"] > 16384, f"dump larger than one datagram ({d['dump_bytes']} bytes)")
        c.check(d["messages"] >= 600, f"every neighbour message is there ({d['messages']})")
        c.check((d["capacity"] - 16384) % 8192 == 0 and d["capacity"] >= d["dump_bytes"],
                f"buffer grew in 8192-byte steps ({d['capacity']})")


def gateway_lab(lab):
    lab.add_port("lan1")
    gw = lab.add_gateway("uplink")
    lab.poke_address(f"{lab.subnet}.1")
    util.wait_for(lambda: any(n[0] == f"{lab.subnet}.1" and n[1] for n in lab.neighbours()), 5,
                  what="gateway in the neighbour table")
    gw_mac = next(n[1] for n in lab.neighbours() if n[0] == f"{lab.subnet}.1")
    want_port = None
    for line in lab.showmacs().splitlines():
        parts = line.split()
        if len(parts) > 2 and parts[1] == gw_mac:
            want_port = int(parts[0])
    return gw, gw_mac, want_port


def test_gateway_mac_and_port(c):
    with Lab(mode="ap") as lab:
        gw, gw_mac, want_port = gateway_lab(lab)
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        raise_log_level(sb, c)
        m = lan_info_line(sb, c)
        tail = gw_mac.upper().split(":")[4:]
        want = f"gateway : {tail[0]}-{tail[1]}(port {want_port})"
        c.check(m is not None and m.group(6).endswith(want),
                f"gateway MAC from the neighbour table, port from brctl showmacs ({want})",
                m.group(6) if m else sb.console())
        # The address and the whole MAC are not printed: the scan alone.
        lan = probe(lab.sandbox())[0]["lan"]
        c.equal(lan["gateway"], f"{lab.subnet}.1", "gateway option read")
        c.equal(lan["gateway_mac"], gw_mac, "gateway MAC from the neighbour table, all six bytes")
        del gw


def console_lines(text, level=None):
    frame = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\|level:(\d+)\| (\w+):(\d+)\|(\d+)\|- (.*)$")
    out = []
    for line in text.splitlines():
        m = frame.match(line)
        if m and (level is None or int(m.group(2)) == level):
            out.append(m)
    return out


def in_loop(proc, binary):
    """The daemon's main thread waits in epoll: it is inside uloop_run, where
    a SIGTERM ends the loop (one that lands earlier is either fatal, before
    uloop_init, or forgotten when the loop starts)."""
    try:
        return (os.path.realpath(f"/proc/{proc.pid}/exe") == os.path.realpath(binary) and
                "epoll" in open(f"/proc/{proc.pid}/wchan").read())
    except OSError:
        return False


def stop(proc, binary):
    util.wait_for(lambda: in_loop(proc, binary) or proc.poll() is not None, 20, what="daemon in its loop")
    proc.send_signal(signal.SIGTERM)
    try:
        return proc.wait(timeout=10)
    except subprocess.TimeoutExpired:
        proc.kill()
        return proc.wait()


def test_console_frame_levels_and_sigterm(c):
    with Lab() as lab:
        wired_lab(lab, 2)
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        # The daemon at its default level prints none of its level 6 or 7
        # lines, its pass included.
        sb.hist_list()
        c.equal([m.group(6) for m in console_lines(sb.console()) if int(m.group(2)) > 2], [],
                "level 2: no level 6 or 7 lines on the console")
        raise_log_level(sb, c)
        # A compare pass over known clients logs each at level 6.
        r = sb.ubus("call", "lanroster", "update", "{}")
        c.equal(r.returncode, 0, "update {} runs a compare pass")
        c.check(sb.wait_console("update client by compare, status(", 10), "compare lines reach the console")
        kept = [x for x in console_lines(sb.console()) if x.group(6).startswith("update client by compare")]
        c.check(kept and all(int(x.group(2)) == 6 for x in kept), "compare lines at level 6")
        sb.hist_list()
        c.check(sb.wait_console("[lr] UBUS get_hist_list_new", 10), "level-7 lines reach the console")
        lines = console_lines(sb.console())
        c.check(lines, "framed lines on the console")
        mine = [x for x in lines if x.group(6) == "[lr] UBUS get_hist_list_new"]
        c.check(mine and int(mine[0].group(2)) == 7, "level in the frame")
        c.check(all(x.group(3) and int(x.group(5)) > 0 for x in lines), "function, line and thread id")
        # Event copies are freed by their task or, for an unknown name, at
        # once: a leak checker in the daemon (sanitizer build) stays quiet.
        for event in ("lanroster.print_lan_info", "lanroster.no_such_event"):
            c.equal(sb.ubus("send", event, "{}").returncode, 0, f"ubus send {event}")
        c.check(sb.wait_console("lan info, ip : ", 10), "print_lan_info ran before the stop")
        c.equal(stop(sb.proc, DAEMON), 0, "SIGTERM: uloop_run returns and main returns 0")


def test_start_up_lines_at_level_7(c):
    with Lab() as lab:
        wired_lab(lab, 2)
        sb = lab.sandbox()
        if not sb.start_ubusd():
            c.check(False, "ubusd built")
            return
        proc = sb.start([TRACE])
        text = sb.wait_console("[lr] begin to start uloop")
        lines = console_lines(text)
        msgs = [m.group(6) for m in lines]
        c.check("[lr] begin to init lr_ubus" in msgs, "bus step traced")
        c.check(any(m.startswith("update lan info, ip : 192.168.1.1, mask : 24, ifnum : 1, gateway : 00-00(port -1)")
                    for m in msgs), "start-up lan info line at level 6")
        c.check("[lr] begin to create_client_table" in msgs and "[lr] begin to start uloop" in msgs,
                "start-up lines at level 7")
        idx = text.find("[lr] begin to start uloop")
        c.check(text[idx:].startswith("[lr] begin to start uloop\n\n"),
                "a message ending in a line break keeps it inside the echo")
        c.equal(stop(proc, TRACE), 0, "SIGTERM: the start function returns 0")


def test_shell_text_is_printed_not_run(c):
    with Lab() as lab:
        lab.add_port("lan1")
        sb = lab.sandbox()
        name = 'tv"; touch /tmp/lr-pwned1; echo " $(touch /tmp/lr-pwned2) `touch /tmp/lr-pwned3` $HOME'
        probe(sb, "--log", name)
        text = sb.wait_console("tv\"")
        c.check(any(m.group(6) == name for m in console_lines(text)), "the text appears literally")
        c.check(not any(os.path.exists(sb.path(f"/tmp/lr-pwned{i}")) for i in (1, 2, 3)),
                "nothing of it ran")
        c.check(not any(os.path.exists(f"/tmp/lr-pwned{i}") for i in (1, 2, 3)), "not on the host either")


def test_empty_lan_first_pass_is_empty(c):
    with Lab() as lab:
        lab.add_port("lan1")
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        c.equal(sb.hist_list(), [], "no neighbours: no client")
        c.equal(print_neigh(sb, c), [], "no neighbours: no row")


labtest.main([test_twenty_wired_clients_one_pass, test_twenty_wired_clients_wait_ends_with_the_last_answer,
              test_arp_request_bytes_on_the_wire, test_silent_and_remembered, test_unanswered_probe_wait_limit,
              test_two_addresses_one_mac, test_dump_spans_several_datagrams, test_gateway_mac_and_port,
              test_console_frame_levels_and_sigterm, test_start_up_lines_at_level_7,
              test_shell_text_is_printed_not_run, test_empty_lan_first_pass_is_empty])
