"""The demo: a home LAN of a dozen devices with the daemon in it; the LAN
roster as the daemon tells it over the bus, before and after one device
leaves and another joins, the two clients of a second mesh node as that
node reports them, and a phone that the radio driver reports is listed at
once. Shows what exists so far and says what does not."""
import os
import time

from . import driver, mesh, scenarios, sweep, util
from .lab import Lab
from .roster import format_table, roster_rows
from .sandbox import default_build_dir

def say(text=""):
    print(text, flush=True)


def section(title):
    say(f"\n=== {title} ===")


def table(rows, headers):
    widths = [max(len(str(x)) for x in col) for col in zip(headers, *rows)] if rows else \
        [len(h) for h in headers]
    fmt = "  ".join(f"{{:<{w}}}" for w in widths)
    say(fmt.format(*headers))
    say(fmt.format(*("-" * w for w in widths)))
    for r in rows:
        say(fmt.format(*(str(x) for x in r)))


def show_lan(lab):
    rows = []
    for c in lab.clients.values():
        kind = "radio" if c.port.radio else "wired"
        how = "silent" if c.silent else ("DHCP" if c.dhcp else ("IPv6 only" if not c.ipv4 else "static"))
        probes = ", ".join(x for x in (c.mdns and f"mDNS {c.mdns}",
                                       c.netbios and f"NetBIOS {c.netbios}") if x) or "-"
        rows.append((c.name, c.mac, c.ip or "-", c.ip6 or "-", f"{c.port.name} ({kind})",
                     c.hostname or "(no name)", probes, how, c.state))
    table(rows, ["device", "mac", "ipv4", "ipv6", "port", "dhcp name", "answers probes as",
                 "address", "state"])


def show_kernel(lab):
    section("router: neighbour table (ip neigh, as the daemon's dump sees it)")
    for addr, mac, state, dev in lab.neighbours():
        say(f"  {addr:<28} {mac or '-':<18} {state:<10} {dev}")
    section("router: br-lan forwarding table (brctl showmacs br-lan)")
    say(lab.showmacs().rstrip())
    section(f"DHCP leases (dnsmasq, {os.path.basename(lab.lease_file)})")
    for row in lab.leases():
        say("  " + "  ".join(row))


def show_roster(clients):
    rows = []
    for c in clients:
        rows.append((c.get("hostname", ""), c.get("mac", ""), c.get("ip", ""),
                     c.get("wire_type", ""), c.get("guest", ""),
                     "online" if c.get("connect_status") else "offline",
                     c.get("online_time", ""), c.get("device_type", ""),
                     c.get("ip6_local", "")))
    table(rows, ["hostname", "mac", "ip", "link", "network", "status", "online s", "type",
                 "ipv6 link-local"])


class Daemon:
    """The daemon in the lab, if it is built and on the bus."""

    def __init__(self, lab, build_dir):
        self.sb = lab.sandbox(build_dir=build_dir, packages=scenarios.home_packages())
        self.binary = os.path.join(build_dir, "lanroster")
        self.bus = False
        self.running = False

    def start(self):
        if not self.sb.start_ubusd():
            say("ubusd: not built yet (build/platform-bin/ubusd) and none on PATH; the daemon needs the bus")
            return
        say(f"ubusd: listening on the sandbox's /var/run/ubus.sock ({self.sb.ubus_socket})")
        if not os.access(self.binary, os.X_OK):
            say(f"daemon: not built yet ({self.binary} does not exist)")
            return
        # What the radios' drivers would tell iwinfo: their stations.
        self.sb.sync_stations(signal=-52, rx_rate=585000, tx_rate=433000)
        self.sb.start([self.binary])
        self.running = True
        say(f"daemon: started in the router namespace (run directory {self.sb.dir})")
        try:
            self.sb.wait_bus_object("lanroster", 30)
            self.bus = True
        except util.LabError:
            if self.sb.proc.poll() is not None:
                say(f"daemon: exited with status {self.sb.proc.returncode}")
                self.running = False
            else:
                say("daemon: running, but it has no bus face yet (no object \"lanroster\")")

    def wait_roster(self, pred, timeout):
        deadline = time.monotonic() + timeout
        clients = []
        while time.monotonic() < deadline:
            try:
                clients = self.sb.hist_list(v6=1)
            except util.LabError:
                clients = []
            if pred(clients):
                break
            time.sleep(0.5)
        return clients


def show_mesh_peer(d):
    section(f"mesh: node {mesh.DEMO_PEER} reports its two clients "
            "(ubus send lanroster.meshd_client_update)")
    clients = mesh.demo_clients()
    mesh.send_update(d.sb, mesh.DEMO_PEER, clients)
    want = {c["mac"].upper().replace(":", "-") for c in clients}
    listed = d.wait_roster(lambda cl: want <= {r[0] for r in mesh.peer_rows(d.sb, cl)}, 10)
    table(mesh.peer_rows(d.sb, listed), mesh.PEER_HEADERS)


RADIO_PHONE = "3c:22:fb:10:20:0e"


def radio_event(d):
    """The radio driver tells of a phone that associates on wl1: the daemon
    lists it at once, before any pass."""
    section(f"radio event: a phone ({RADIO_PHONE}) associates on wl1 (driver datagram to 127.0.0.1:44032)")
    mac = RADIO_PHONE.upper().replace(":", "-")
    t0 = time.monotonic()
    d.sb.send_driver_event(driver.driver_event("wl1", driver.ASSOC_IND, RADIO_PHONE))
    row = None
    while row is None and time.monotonic() - t0 < 10:
        row = next((c for c in d.sb.hist_list(online_type=1) if c.get("mac") == mac), None)
        time.sleep(0.005)
    if row:
        say(f"listed after {1000 * (time.monotonic() - t0):.0f} ms on {row.get('ifname')} "
            f"({row.get('wire_type')}), no pass needed")
        say(format_table(roster_rows(d.sb)))
    else:
        say("the daemon did not list it within 10 s")


def main(build_dir=None):
    build_dir = build_dir or default_build_dir()
    t0 = time.monotonic()
    with Lab() as lab:
        section("the LAN")
        say(f"lab {lab.id}: router namespace {lab.router_ns}, bridge br-lan "
            f"{lab.router_ip}/24 and {lab.router_ip6}/64, dnsmasq serving DHCP")
        scenarios.home(lab)
        show_lan(lab)
        section("the daemon")
        d = Daemon(lab, build_dir)
        d.start()
        if d.bus:
            section("LAN roster, from the daemon (ubus call lanroster get_hist_list_new)")
            d.wait_roster(lambda cl: len(cl) >= 8, 30)
            say(format_table(roster_rows(d.sb)))
        else:
            show_kernel(lab)
        section("events: \"phone\" leaves (radio off), \"guest-phone\" joins the guest radio wl2")
        lab.leave("phone")
        lab.add_clients([scenarios.HOME_JOINER])
        if d.running:
            d.sb.sync_stations(signal=-52, rx_rate=585000, tx_rate=433000)
        show_lan(lab)
        if d.bus:
            section("LAN roster after the next pass (every 14 s)")
            phone = lab.clients["phone"].mac.upper().replace(":", "-")
            guest = lab.clients["guest-phone"].mac.upper().replace(":", "-")

            def changed(cl):
                by_mac = {c.get("mac"): c for c in cl}
                return guest in by_mac and not by_mac.get(phone, {}).get("connect_status", 0)
            d.wait_roster(changed, 40)
            say(format_table(roster_rows(d.sb)))
        else:
            show_kernel(lab)
            say("\n\"phone\" is still in the kernel's tables: a station that leaves a radio "
                "ages out of them; it is the daemon's ARP probe that finds it gone.")
            say("The daemon's roster (its bus query) is not there yet: it appears here "
                "once build/lanroster answers on the bus.")
        if d.bus:
            show_mesh_peer(d)
            radio_event(d)
        if d.running:
            say(f"\ndaemon console lines captured: {len(d.sb.console().splitlines())}; "
                f"platform commands it ran: {sorted({c['cmd'] for c in d.sb.calls()})}")
        lab_id = lab.id
    left = sweep.lab_namespaces(lab_id) + \
        ([lab_id] if os.path.exists(os.path.join(util.BASE_DIR, lab_id)) else [])
    section("teardown")
    say("nothing left behind" if not left else f"LEFT BEHIND: {left}")
    say(f"demo took {time.monotonic() - t0:.1f} s")
    return 1 if left else 0
