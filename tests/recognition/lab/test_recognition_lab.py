#!/usr/bin/python3
"""Lab tests of the recognition state, the new-client notifications and the
name probes, through the production daemon (lanroster) in the lab's router.

- New clients: the notification files fill during a pass, and the recording
  stand-ins of "smart_home_report" and "new_client_access_report" run once
  per pass that had new clients, with the file's path as their one argument.
- Names: silent clients are asked by NetBIOS and reverse mDNS, and answer
  through the lab's responder, normally and with replies no real responder
  sends; the names reach the bus (printable only) and "/var/state/fing".
- Real responders: Debian's avahi-daemon (without D-Bus) and Samba's nmbd,
  each in a client namespace.
- The state store is shared with scripts (`uci -P /var/state`), and garbage
  lines in a hand-edited delta file are read past.

State is read only once it has settled: the notification calls are made
inside the compare pass (the bus object appears after the first one), and
names appear on the bus after a later scan pass, which the tests wait for.
"""
import json
import os
import shutil
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))
import labtest  # noqa: E402  (puts lab/ on sys.path)
from labtest import wait_until  # noqa: E402
from lanlab import Lab  # noqa: E402

# A probe finishes within 4.5 s and the scan timer turns every 14 s: a name
# shows on the bus within two passes of the probe.
NAME_WAIT = 60


def hex_mac(c):
    return c.mac.replace(":", "").upper()


def dashed(c):
    return c.mac.upper().replace(":", "-")


def daemon_sandbox(lab, c, before_start=None):
    sb = lab.sandbox()
    if not sb.start_ubusd():
        c.check(False, "ubusd built")
        return None
    if before_start:
        before_start(sb)
    sb.start_daemon()
    sb.wait_bus_object("lanroster", 30)
    # The object is registered before the start-up pass; a call is answered
    # only once the loop runs, after that pass and its compare.
    sb.hist_list()
    return sb


def state_get(sb, target):
    r = sb.run(["uci", "-P", "/var/state", "get", target])
    return r.stdout.strip() if r.returncode == 0 else None


def names(sb):
    return {x["mac"]: x["hostname"] for x in sb.hist_list()}


def printable(text):
    return all(0x20 <= ord(ch) <= 0x7E for ch in text)


def file_lines(text):
    return [x for x in (text or "").splitlines() if x]


def test_burst_of_new_clients(c):
    with Lab() as lab:
        lab.add_port("lan1")
        clients = lab.add_clients([dict(name=f"n{i}", port="lan1", dhcp=False) for i in range(50)])
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        want = sorted(hex_mac(x) for x in clients)
        for cmd, path in (("smart_home_report", "/tmp/smart_home_new_clients"),
                          ("new_client_access_report", "/tmp/new_access_clients")):
            calls = sb.calls(cmd)
            c.equal(len(calls), 1, f"{cmd}: one call for the pass of 50 new clients")
            if not calls:
                continue
            c.equal(calls[0]["argv"], [path], f"{cmd}: the file's path is the one argument")
            c.equal(sorted(file_lines(calls[0]["files"].get(path))), want,
                    f"{cmd}: the file held the 50 MACs as 12 upper-case hex digits")
        batches = []
        for suffix in "1234":
            p = sb.path(f"/tmp/fing_report_mac{suffix}")
            batches.append(len(file_lines(open(p).read())) if os.path.exists(p) else 0)
        c.equal(batches, [20, 20, 10, 0], "recognition batches of 20 with suffixes '1', '2', '3'")

        # The compare again over the same scan: nobody is new.
        r = sb.ubus("call", "lanroster", "update", "{}")
        c.equal(r.returncode, 0, "update {} runs a compare pass")
        c.equal(len(sb.calls("smart_home_report")), 1, "a pass without new clients runs no command")
        c.equal(len(sb.calls("new_client_access_report")), 1, "nor the other one")

        late = lab.add_client("late", port="lan1", dhcp=False)
        calls = sb.wait_calls("smart_home_report", 2, timeout=40)
        c.equal(file_lines(calls[1]["files"].get("/tmp/smart_home_new_clients")), [hex_mac(late)],
                "the next pass's call has the one new client (the consumer emptied the file)")
        wait_until(lambda: len(sb.calls("new_client_access_report")) >= 2, 10)
        c.equal(len(sb.calls("new_client_access_report")), 2, "and one new-access call with it")


def test_smart_home_off(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_clients([dict(name=f"s{i}", port="lan1", dhcp=False) for i in range(3)])

        def off(sb):
            sb.write_packages({"smart_home": "config info 'info'\n\toption enable '0'\n"})
        sb = daemon_sandbox(lab, c, off)
        if not sb:
            return
        c.equal(sb.calls("smart_home_report"), [], "smart home off: no call")
        c.check(not os.path.exists(sb.path("/tmp/smart_home_new_clients")), "and its file untouched")
        calls = sb.calls("new_client_access_report")
        c.equal(len(calls), 1, "the new-client notifier still gets the clients")
        if calls:
            c.equal(len(file_lines(calls[0]["files"].get("/tmp/new_access_clients"))), 3, "all three")


def test_names_from_responders(c):
    with Lab() as lab:
        lab.add_port("lan1")
        nas, tv, cafe = lab.add_clients([
            dict(name="nas", port="lan1", dhcp=False, netbios="NAS", workgroup="HOME"),
            dict(name="tv", port="lan1", dhcp=False, mdns="living-room-tv"),
            dict(name="cafe", port="lan1", dhcp=False, mdns="caf\u00e9-tv")])
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        want = {dashed(nas): "NAS", dashed(tv): "living-room-tv", dashed(cafe): "caf^^-tv"}
        got = wait_until(lambda: (lambda n: n if all(n.get(m) == v for m, v in want.items()) else None)(names(sb)),
                         NAME_WAIT)
        c.check(got, "names from NetBIOS and mDNS on the bus, bytes above 0x7E as '^'", f"{names(sb)}")
        c.check(lab.responder_queries(nas), "the NAS was asked by NetBIOS")
        c.equal(state_get(sb, f"fing.{hex_mac(nas)}.netbios_name"), "NAS", "netbios_name in the state store")
        c.equal(state_get(sb, f"fing.{hex_mac(nas)}.netbios_domain"), "HOME", "netbios_domain in the state store")
        c.equal(state_get(sb, f"fing.{hex_mac(tv)}.mdns_name"), "living-room-tv", "mdns_name in the state store")
        c.equal(state_get(sb, f"fing.{hex_mac(cafe)}.mdns_name"), "caf^^-tv", "stored cleaned")
        with open(sb.path("/var/state/fing")) as f:
            delta = f.read()
        sections = [ln for ln in delta.splitlines() if ln.endswith("='state'") and ln.count(".") == 1]
        c.equal(len(sections), 3, "three client sections")
        c.equal(state_get(sb, "fing.global.mac_num"), "3", "mac_num counts the sections of three probe threads")
        c.check(f"fing.{hex_mac(tv)}='state'" in delta, "the section line as libuci writes it", delta)


def test_malformed_replies(c):
    with Lab() as lab:
        lab.add_port("lan1")
        specs = [dict(name="nb16", netbios="x", responder_mode="sixteen"),
                 dict(name="nbrb", netbios="$(reboot)"),
                 dict(name="nbtr", netbios="t", responder_mode="truncated"),
                 dict(name="nbov", netbios="o", responder_mode="oversized"),
                 dict(name="mdlp", mdns="loop", responder_mode="loop"),
                 dict(name="mdtr", mdns="t", responder_mode="truncated"),
                 dict(name="mdov", mdns="o", responder_mode="oversized"),
                 dict(name="mdrb", mdns="$(reboot)")]
        clients = lab.add_clients([dict(s, port="lan1", dhcp=False) for s in specs])
        by = {x.name: x for x in clients}
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        want = {dashed(by["nb16"]): "ABCDEFGHIJKLMNOP", dashed(by["nbrb"]): "$(REBOOT)",
                dashed(by["mdrb"]): "$(reboot)"}
        got = wait_until(lambda: all(names(sb).get(m) == v for m, v in want.items()), NAME_WAIT)
        c.check(got, "a 16-byte NetBIOS name without terminator, and shell text kept as text", f"{names(sb)}")
        for x in clients:
            c.check(lab.responder_queries(x), f"{x.name} was asked")
        roster = sb.hist_list()
        c.equal(len(roster), len(clients), "the daemon is alive and lists every client")
        for r in roster:
            c.check(printable(r["hostname"]) and 0 < len(r["hostname"]) <= 64,
                    f"{r['mac']}: a printable name of at most 64 characters", repr(r["hostname"]))
        c.equal(names(sb).get(dashed(by["mdlp"])), "network device", "a pointer loop gives no name")
        c.equal(state_get(sb, f"fing.{hex_mac(by['mdrb'])}.mdns_name"), "$(reboot)", "stored as text")
        c.check(not any("reboot" in json.dumps(x) for x in sb.calls()), "no command carried client text")
        c.equal(sb.wait(0), None, "the daemon still runs")


def test_store_shared_with_scripts(c):
    with Lab() as lab:
        lab.add_port("lan1")
        quiet, nas = lab.add_clients([dict(name="quiet", port="lan1", dhcp=False),
                                      dict(name="nas", port="lan1", dhcp=False, netbios="NAS")])

        def seed(sb):
            # A hand-edited file with garbage lines, then a script's section.
            with open(sb.path("/var/state/fing"), "w") as f:
                f.write("garbage line\n\x01\x02\n" + "x" * 3000 + "\nfing.$(reboot)='state'\nfing.ABC='state'\n")
            sec = f"fing.{hex_mac(quiet)}"
            for arg in (f"{sec}=state", f"{sec}.mdns_name=scripted-name", "fing.global.mac_num=1"):
                r = sb.run(["uci", "-P", "/var/state", "set", arg])
                c.equal(r.returncode, 0, f"script: uci -P /var/state set {arg}")
        sb = daemon_sandbox(lab, c, seed)
        if not sb:
            return
        c.equal(names(sb).get(dashed(quiet)), "scripted-name",
                "a name the script stored is the host name of a client no probe named")
        got = wait_until(lambda: state_get(sb, f"fing.{hex_mac(nas)}.netbios_name") == "NAS", NAME_WAIT)
        c.check(got, "the daemon's write is seen by the script")
        c.equal(state_get(sb, "fing.global.mac_num"), "2", "mac_num counted on from the script's value")
        c.equal(state_get(sb, f"fing.{hex_mac(quiet)}.mdns_name"), "scripted-name", "the script's value stays")


def test_hook_name_is_cleaned(c):
    with Lab(mode="ap") as lab:
        lab.add_gateway()
        lab.add_port("lan1")
        cl = lab.add_client("cafe", port="lan1", dhcp=False)

        def hook(sb):
            sb.write_hook_file([{"mac": cl.mac.upper(), "ipaddr": cl.ip, "name": "caf\u00e9-tv", "type": -1,
                                 "obt_name_ok": 1}])
        sb = daemon_sandbox(lab, c, hook)
        if not sb:
            return
        c.equal(names(sb).get(dashed(cl)), "caf^^-tv", "a UTF-8 name from the hook file, cleaned")


def start_avahi(lab, c):
    """Debian's avahi-daemon in the client's namespace, without D-Bus; its
    pid file goes to a /run of its own."""
    d = os.path.join(lab.dir, "avahi-" + c.name)
    os.makedirs(d, exist_ok=True)
    conf = os.path.join(d, "avahi-daemon.conf")
    with open(conf, "w") as f:
        f.write("[server]\nhost-name=avahi-box\nuse-ipv4=yes\nuse-ipv6=yes\nallow-interfaces=eth0\n"
                "enable-dbus=no\n[publish]\npublish-addresses=yes\npublish-hinfo=no\n"
                "publish-workstation=no\n")
    script = ("mount -t tmpfs none /run && mkdir -p /run/avahi-daemon && exec avahi-daemon -f \"$0\" "
              "--no-drop-root --no-chroot --no-rlimits")
    lab.spawn("avahi:" + c.name, ["unshare", "-m", "sh", "-c", script, conf], ns=c.ns,
              log_name=f"avahi-{c.name}.log")
    return os.path.join(lab.dir, f"avahi-{c.name}.log"), "Server startup complete"


def start_nmbd(lab, c, name, workgroup):
    """Samba's nmbd in the client's namespace with directories of its own."""
    d = os.path.join(lab.dir, "samba-" + c.name)
    dirs = {"lock directory": "lock", "state directory": "state", "cache directory": "cache",
            "private dir": "private", "pid directory": "pid", "ncalrpc dir": "ncalrpc"}
    for sub in dirs.values():
        os.makedirs(os.path.join(d, sub), exist_ok=True)
    conf = os.path.join(d, "smb.conf")
    with open(conf, "w") as f:
        f.write(f"[global]\nnetbios name = {name}\nworkgroup = {workgroup}\ninterfaces = eth0\n"
                "bind interfaces only = yes\n" + "".join(f"{k} = {d}/{v}\n" for k, v in dirs.items()) +
                f"log file = {d}/log\n")
    lab.spawn("nmbd:" + c.name, ["nmbd", "-F", "--no-process-group", "--debug-stdout", "-s", conf], ns=c.ns,
              log_name=f"nmbd-{c.name}.log")
    return os.path.join(lab.dir, f"nmbd-{c.name}.log"), "is now a local master browser"


def log_has(path, text):
    try:
        with open(path, errors="replace") as f:
            return text in f.read()
    except OSError:
        return False


def test_real_responders(c):
    for tool in ("avahi-daemon", "nmbd"):
        if not shutil.which(tool):
            c.check(False, f"{tool} installed (scripts/packages/recognition.list)")
            return
    with Lab() as lab:
        lab.add_port("lan1")
        av, nb = lab.add_clients([dict(name="av", port="lan1", dhcp=False, ipv6=True),
                                  dict(name="nb", port="lan1", dhcp=False)])
        ready = [start_avahi(lab, av), start_nmbd(lab, nb, "SAMBABOX", "LABGROUP")]
        # Five unanswered searches would give the fallback name for 600 s, so
        # the responders are up before the daemon asks.
        for path, text in ready:
            c.check(wait_until(lambda: log_has(path, text), 90), f"{os.path.basename(path)}: {text}")
        sb = daemon_sandbox(lab, c)
        if not sb:
            return
        want = {dashed(av): "avahi-box", dashed(nb): "SAMBABOX"}
        got = wait_until(lambda: all(names(sb).get(m) == v for m, v in want.items()), NAME_WAIT)
        c.check(got, "names from avahi-daemon (reverse PTR) and nmbd (node status)", f"{names(sb)}")
        c.equal(state_get(sb, f"fing.{hex_mac(av)}.mdns_name"), "avahi-box", "mdns_name from avahi")
        c.equal(state_get(sb, f"fing.{hex_mac(nb)}.netbios_name"), "SAMBABOX", "netbios_name from nmbd")


labtest.main([test_burst_of_new_clients, test_smart_home_off, test_names_from_responders,
              test_malformed_replies, test_store_shared_with_scripts, test_hook_name_is_cleaned,
              test_real_responders])
