"""The home LAN: a router namespace with bridge "br-lan", client namespaces
behind wired ports, switches or radio-named ports, an optional upstream
gateway, real dnsmasq and udhcpc, and scripted client events."""
import ipaddress
import os
import re
import socket
import struct
import subprocess
import time

from . import util
from .util import LabError, log

ROUTER_BRIDGE = "br-lan"
SWITCH_BRIDGE = "sw0"
NAME_RE = re.compile(r"^[a-z0-9][a-z0-9_-]{0,39}$")
RADIO_RE = re.compile(r"^(wl|ath)")

# A switch is a plain L2 box: no addresses, no IPv6 chatter of its own (and
# a silent client has no IPv6 either, which would announce it through MLD).
_SWITCH_SYSCTL = {"net/ipv6/conf/all/disable_ipv6": 1, "net/ipv6/conf/default/disable_ipv6": 1}
_CLIENT_SYSCTL = {
    "net/ipv6/conf/all/accept_dad": 0, "net/ipv6/conf/default/accept_dad": 0,
    "net/ipv6/conf/default/dad_transmits": 0,
    "net/ipv6/conf/default/router_solicitations": 0,
    "net/ipv6/conf/default/accept_ra": 0,
}
_ROUTER_SYSCTL = {
    "net/ipv6/conf/all/accept_dad": 0, "net/ipv6/conf/default/accept_dad": 0,
    "net/ipv6/conf/default/dad_transmits": 0,
    "net/ipv4/ip_forward": 1, "net/ipv6/conf/all/forwarding": 1,
}


class Switch:
    """A plain L2 switch (or the upstream gateway) in a namespace of its own,
    hanging off one router port."""

    def __init__(self, lab, port, ns, address=None):
        self.lab, self.port, self.ns, self.address = lab, port, ns, address
        self.members = 0

    def next_member(self):
        self.members += 1
        return f"m{self.members}"


class Port:
    """A member of a router bridge. kind "direct": one client on the far end;
    kind "switch": a switch namespace with any number of clients behind it."""

    def __init__(self, name, bridge, kind, switch=None):
        self.name, self.bridge, self.kind, self.switch = name, bridge, kind, switch

    @property
    def radio(self):
        return bool(RADIO_RE.match(self.name))


class Client:
    def __init__(self, lab, name, mac, port, *, dhcp=True, hostname=None, ip=None,
                 ipv4=True, ipv6=False, ip6=None, silent=False, mdns=None,
                 netbios=None, workgroup="WORKGROUP", vendor_class=None, responder_mode="normal"):
        self.lab, self.name, self.mac, self.port = lab, name, mac.lower(), port
        self.dhcp = dhcp and ipv4
        self.hostname = hostname
        self.ip = ip
        self.ipv4 = ipv4
        self.ipv6 = ipv6 or not ipv4
        self.ip6 = ip6
        self.silent = silent
        self.mdns, self.netbios, self.workgroup = mdns, netbios, workgroup
        self.responder_mode = responder_mode
        self.vendor_class = vendor_class
        self.ns = lab.ns_name(f"c-{name}")
        self.local_if = None     # the veth end in the router or switch namespace
        self.link_ns = None      # namespace holding local_if
        self.state = "new"       # new, up, down, silent, gone
        self.responder = None

    @property
    def ip6_local(self):
        """EUI-64 link-local address the kernel derives from the MAC."""
        b = bytes.fromhex(self.mac.replace(":", ""))
        eui = bytes([b[0] ^ 2]) + b[1:3] + b"\xff\xfe" + b[3:]
        return str(ipaddress.IPv6Address(b"\xfe\x80" + bytes(6) + eui))

    def __repr__(self):
        return f"Client({self.name}, {self.mac}, {self.ip}, port={self.port.name})"


class Lab:
    """One LAN. Use as a context manager, or call start() and teardown();
    teardown also runs at exit and on SIGTERM/SIGINT of the owning process."""

    def __init__(self, subnet="192.168.1", mode="router", dhcp_range=(100, 249),
                 lab_id=None, detached=False, ula_prefix="fd4c:5200:0:1"):
        util.require_root()
        self._fixed_id = lab_id is not None
        self._set_id(lab_id or util.new_lab_id())
        self.subnet = subnet
        self.mode = mode                    # "router": we serve DHCP; "ap": the gateway does
        self.dhcp_range = dhcp_range
        self.ula = ula_prefix
        self.router_ip = f"{subnet}.1" if mode == "router" else f"{subnet}.2"
        self.router_ip6 = f"{ula_prefix}::1" if mode == "router" else f"{ula_prefix}::2"
        self.router_mac = "02:4c:52:00:00:01"
        self.gateway = None
        self.bridges = {}       # name -> (ipv4 cidr, ipv6 cidr)
        self.ports = {}         # name -> Port
        self.clients = {}       # name -> Client
        self.detached = detached
        self.started = False
        self._mac_seq = 16
        self._static_next = 1
        self._procs = {}        # key -> (pid, start_time, description)
        self.sandboxes = []

    # ---------- names and state ----------
    def _set_id(self, lab_id):
        self.id = lab_id
        self.prefix = f"{util.PREFIX}{lab_id}-"
        self.dir = os.path.join(util.BASE_DIR, lab_id)
        self.router_ns = self.ns_name("r")

    def ns_name(self, role):
        return f"{self.prefix}{role}"

    @property
    def lease_file(self):
        return os.path.join(self.dir, "dhcp.leases")

    def _save_state(self):
        util.json_save(os.path.join(self.dir, "state.json"), {
            "id": self.id, "owner_pid": 0 if self.detached else os.getpid(),
            "owner_start": None if self.detached else util.proc_start_time(os.getpid()),
            "procs": {k: list(v) for k, v in self._procs.items()},
            "router_ns": self.router_ns, "router_ip": self.router_ip, "mode": self.mode,
            "subnet": self.subnet,
            "clients": {c.name: {"mac": c.mac, "ip": c.ip, "ip6": c.ip6, "ns": c.ns,
                                 "port": c.port.name, "state": c.state,
                                 "hostname": c.hostname}
                        for c in self.clients.values()},
            "ports": {p.name: {"bridge": p.bridge, "kind": p.kind} for p in self.ports.values()},
        })

    def track(self, key, proc_or_pid, what=""):
        pid = proc_or_pid if isinstance(proc_or_pid, int) else proc_or_pid.pid
        self._procs[key] = (pid, util.proc_start_time(pid), what)
        self._save_state()

    def untrack(self, key, kill=True):
        entry = self._procs.pop(key, None)
        if entry and kill:
            util.kill_tree(entry[0], entry[1])
        self._save_state()

    def spawn(self, key, argv, *, ns=None, log_name=None, env=None):
        """Starts a long-running service in its own session (so that stopping
        it also stops its children) and records it for teardown."""
        if ns:
            argv = util.in_netns(ns, argv)
        out = open(os.path.join(self.dir, log_name or f"{key}.log"), "ab")
        try:
            p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                 start_new_session=True, env=env)
        finally:
            out.close()
        self.track(key, p, " ".join(argv))
        return p

    # ---------- life cycle ----------
    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.teardown()
        return False

    def start(self):
        if self.started:
            return self
        from . import sweep
        sweep.sweep_dead()               # leftovers of labs whose owner died
        os.makedirs(util.BASE_DIR, exist_ok=True)
        while True:                      # claim the id: the directory is the lock
            try:
                os.mkdir(self.dir)
                break
            except FileExistsError:
                if self._fixed_id:
                    raise LabError(f"lab {self.id} exists already")
                self._set_id(util.new_lab_id())
        self._save_state()               # before anything exists, so a sweeper knows us
        if not self.detached:
            sweep.guard(self)
        self.started = True
        ns_list = [self.router_ns]
        util.ip_batch([f"netns add {ns}" for ns in ns_list])
        util.write_sysctl(self.router_ns, _ROUTER_SYSCTL)
        self.add_bridge(ROUTER_BRIDGE, f"{self.router_ip}/24", f"{self.router_ip6}/64",
                        mac=self.router_mac)
        if self.mode == "router":
            self.start_dnsmasq(self.router_ns, ROUTER_BRIDGE, self.router_ip, self.lease_file)
        log(f"lab {self.id}: router namespace {self.router_ns}, {ROUTER_BRIDGE} {self.router_ip}/24")
        return self

    def add_bridge(self, name, cidr4=None, cidr6=None, mac=None):
        """A bridge in the router namespace ("br-lan" at start; a second one,
        say "br-guest", for tests of several bridges)."""
        lines = ["link set lo up",
                 f"link add name {name} {'address ' + mac if mac else ''} type bridge "
                 f"stp_state 0 mcast_snooping 0",
                 f"link set {name} up"]
        if cidr4:
            lines.append(f"addr add {cidr4} dev {name}")
        if cidr6:
            lines.append(f"addr add {cidr6} dev {name} nodad")
        if name == ROUTER_BRIDGE:
            # multicast probes (mDNS) leave through the LAN; there is no WAN here
            lines.append(f"route add 224.0.0.0/4 dev {name}")
            if self.mode != "router":
                lines.append(f"route add default via {self.subnet}.1 dev {name}")
        util.ip_batch(lines, ns=self.router_ns)
        self.bridges[name] = (cidr4, cidr6)

    def start_dnsmasq(self, ns, iface, server_ip, lease_file):
        lo, hi = self.dhcp_range
        open(lease_file, "a").close()
        argv = ["dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--port=0",
                f"--interface={iface}", "--bind-interfaces", "--except-interface=lo",
                f"--dhcp-range={self.subnet}.{lo},{self.subnet}.{hi},255.255.255.0,12h",
                f"--dhcp-leasefile={lease_file}", "--dhcp-authoritative", "--no-ping",
                "--user=root", "--group=root", "--log-dhcp",
                f"--log-facility={os.path.join(self.dir, 'dnsmasq-' + ns[-2:] + '.log')}",
                f"--pid-file={os.path.join(self.dir, 'dnsmasq-' + ns[-2:] + '.pid')}",
                "--dhcp-option=option:router," + server_ip]
        self.spawn(f"dnsmasq:{ns}", argv, ns=ns)
        # dnsmasq is ready when it listens on the DHCP port of its namespace
        util.wait_for(lambda: self._udp_listening(ns, 67), 10, what="dnsmasq to listen")

    @staticmethod
    def _udp_listening(ns, port):
        with util.NetnsEntered(ns):
            with open("/proc/net/udp") as f:
                return any(int(line.split()[1].split(":")[1], 16) == port
                           for line in f.readlines()[1:])

    def teardown(self):
        if not self.started:
            return
        self.started = False
        from . import sweep
        for sb in list(self.sandboxes):
            try:
                sb.stop()
            except Exception as e:   # teardown must go on whatever one step does
                log(f"sandbox stop: {e}")
        sweep.remove_lab(self.id)
        sweep.unguard(self)
        log(f"lab {self.id}: torn down")

    # ---------- topology ----------
    def add_port(self, name, kind="switch", bridge=ROUTER_BRIDGE):
        """A router bridge member. kind "switch" puts a switch namespace behind
        it, so several clients share the port (a wired switch or a radio)."""
        if name in self.ports:
            return self.ports[name]
        if len(name) > 15:
            raise LabError(f"port name {name!r} is longer than 15 characters")
        port = Port(name, bridge, kind)
        if kind == "switch":
            sw = Switch(self, port, self.ns_name(f"s-{name}"))
            util.ip_batch([f"netns add {sw.ns}"])
            util.write_sysctl(sw.ns, _SWITCH_SYSCTL)
            util.ip_batch([f"link add name {name} type veth peer name up0 netns {sw.ns}",
                           f"link set {name} master {bridge} up"], ns=self.router_ns)
            util.ip_batch(["link set lo up",
                           f"link add name {SWITCH_BRIDGE} type bridge stp_state 0 mcast_snooping 0",
                           f"link set {SWITCH_BRIDGE} up",
                           f"link set up0 master {SWITCH_BRIDGE} up"], ns=sw.ns)
            port.switch = sw
        self.ports[name] = port
        self._save_state()
        return port

    def add_gateway(self, port_name="uplink", gateway_ip=None):
        """An upstream router behind one port of br-lan, with a bridge of its
        own and, in "ap" mode, the DHCP server of the whole LAN. Clients given
        port="@gateway" stand behind it."""
        port = Port(port_name, ROUTER_BRIDGE, "switch")
        ns = self.ns_name("gw")
        gw_ip = gateway_ip or f"{self.subnet}.1"
        sw = Switch(self, port, ns, address=gw_ip)
        util.ip_batch([f"netns add {ns}"])
        util.write_sysctl(ns, _ROUTER_SYSCTL)
        util.ip_batch([f"link add name {port_name} type veth peer name up0 netns {ns}",
                       f"link set {port_name} master {ROUTER_BRIDGE} up"], ns=self.router_ns)
        util.ip_batch(["link set lo up",
                       f"link add name {SWITCH_BRIDGE} address 02:4c:52:00:00:fe type bridge "
                       f"stp_state 0 mcast_snooping 0",
                       f"link set {SWITCH_BRIDGE} up", f"link set up0 master {SWITCH_BRIDGE} up",
                       f"addr add {gw_ip}/24 dev {SWITCH_BRIDGE}",
                       f"addr add {self.ula}::fe/64 dev {SWITCH_BRIDGE} nodad"], ns=ns)
        port.switch = sw
        self.ports[port_name] = port
        self.ports["@gateway"] = port
        self.gateway = sw
        if self.mode != "router":
            self.start_dnsmasq(ns, SWITCH_BRIDGE, gw_ip, self.lease_file)
        self._save_state()
        return sw

    def _free_port_name(self):
        n = 1
        while f"port{n}" in self.ports:
            n += 1
        return f"port{n}"

    def _new_mac(self):
        self._mac_seq += 1
        n = self._mac_seq
        return f"02:4c:52:{(n >> 16) & 255:02x}:{(n >> 8) & 255:02x}:{n & 255:02x}"

    def _new_static_ip(self):
        used = {c.ip for c in self.clients.values()}
        while True:
            self._static_next += 1
            if self._static_next >= 255:
                raise LabError("no static IPv4 address left in the subnet")
            cand = f"{self.subnet}.{self._static_next}"
            lo, hi = self.dhcp_range
            if cand not in used and not lo <= self._static_next <= hi and \
                    cand not in (self.router_ip, f"{self.subnet}.1"):
                return cand

    def add_client(self, name, **kw):
        return self.add_clients([dict(name=name, **kw)])[0]

    def add_clients(self, specs):
        """Creates clients in batches: namespaces, veths, addresses, DHCP, and
        a first packet to the router so the router's tables learn them.
        Each spec: name, and optionally mac, port (name; None for a port of
        its own), dhcp, hostname, ip, ipv4, ipv6, silent, mdns, netbios,
        workgroup, vendor_class, responder_mode (malformed replies, see
        responder.py), up (default True)."""
        made = []
        for spec in specs:
            spec = dict(spec)
            name = spec.pop("name")
            if not NAME_RE.match(name) or name in self.clients:
                raise LabError(f"bad or duplicate client name {name!r}")
            port_name = spec.pop("port", None)
            spec.pop("up", None)
            if port_name is None:
                port = Port(self._free_port_name(), ROUTER_BRIDGE, "direct")
                self.ports[port.name] = port
            else:
                port = self.ports.get(port_name) or self.add_port(port_name)
            mac = spec.pop("mac", None) or self._new_mac()
            c = Client(self, name, mac, port, **spec)
            if c.ipv4 and not c.dhcp and not c.ip:
                c.ip = self._new_static_ip()
            if c.ipv6 and not c.ip6:
                c.ip6 = f"{self.ula}::{0x100 + len(self.clients):x}"
            self.clients[name] = c
            made.append(c)
        self._save_state()
        self._create_netns(made)
        self._wire(made)
        self._configure(made)
        self.dhcp([c for c in made if c.dhcp])
        self.announce([c for c in made if not c.silent])
        for c in made:
            c.state = "silent" if c.silent else "up"
            if c.mdns or c.netbios:
                self.start_responder(c)
        self._save_state()
        return made

    def _create_netns(self, clients):
        util.ip_batch([f"netns add {c.ns}" for c in clients])
        for c in clients:
            util.write_sysctl(c.ns, _CLIENT_SYSCTL if not c.silent else
                              dict(_CLIENT_SYSCTL, **_SWITCH_SYSCTL))

    def _wire(self, clients):
        """veth pairs: the local end in the router (direct port) or switch
        namespace, the far end "eth0" in the client namespace."""
        batches = {}
        for c in clients:
            port = c.port
            if port.kind == "direct":
                c.link_ns, c.local_if, master = self.router_ns, port.name, port.bridge
                port.client = c
            else:
                c.link_ns, c.local_if, master = port.switch.ns, port.switch.next_member(), SWITCH_BRIDGE
            batches.setdefault(c.link_ns, []).extend([
                f"link add name {c.local_if} type veth peer name eth0 netns {c.ns} address {c.mac}",
                f"link set {c.local_if} master {master} up"])
        for ns, lines in batches.items():
            util.ip_batch(lines, ns=ns)

    def _configure(self, clients):
        batches = {}
        for c in clients:
            lines = ["link set lo up", "link set eth0 up"]
            if c.ipv4 and c.ip and not c.dhcp:
                lines.append(f"addr add {c.ip}/24 dev eth0")
            if c.ipv6 and c.ip6:
                lines.append(f"addr add {c.ip6}/64 dev eth0 nodad")
            batches[c.ns] = lines
        util.parallel_ip_batches(batches)
        silent = [c for c in clients if c.silent]
        if silent:
            self._silence(silent)

    SILENCE_RULES = ('table netdev lab_silent {\n chain in {\n'
                     '  type filter hook ingress device "eth0" priority 0; policy accept;\n'
                     '  meta protocol != arp drop\n }\n}\n')

    @classmethod
    def _silence(cls, clients):
        # Everything but ARP dropped on the way in: the client answers ARP
        # (the kernel does) and nothing else, and it never speaks first.
        util.parallel([util.in_netns(c.ns, ["nft", "-f", "-"]) for c in clients],
                      inputs=[cls.SILENCE_RULES] * len(clients))

    # ---------- services in clients ----------
    def _udhcpc_argv(self, c, request_ip=None):
        script = os.path.join(util.LIB_DIR, "udhcpc.script")
        argv = ["udhcpc", "-f", "-q", "-n", "-i", "eth0", "-t", "8", "-T", "1", "-A", "1",
                "-s", script]
        if c.hostname:
            argv += ["-x", f"hostname:{c.hostname}"]
        if c.vendor_class:
            argv += ["-V", c.vendor_class]
        if request_ip:
            argv += ["-r", request_ip]
        return util.in_netns(c.ns, argv)

    def dhcp(self, clients, request_ips=None):
        """Runs one udhcpc per client, all at once, each leaving after its lease."""
        if not clients:
            return
        request_ips = request_ips or {}
        out_dir = os.path.join(self.dir, "dhcp-out")
        os.makedirs(out_dir, exist_ok=True)
        procs = []
        for c in clients:
            out = os.path.join(out_dir, c.name)
            if os.path.exists(out):
                os.unlink(out)
            env = dict(os.environ, LAB_LEASE_OUT=out)
            procs.append((c, out, subprocess.Popen(
                self._udhcpc_argv(c, request_ips.get(c.name)), env=env,
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE, text=True, start_new_session=True)))
        failed = []
        for c, out, p in procs:
            try:
                _, err = p.communicate(timeout=40)
            except subprocess.TimeoutExpired:
                util.kill_tree(p.pid)
                err = "timeout"
            try:
                with open(out) as f:
                    c.ip = f.read().strip()
            except OSError:
                failed.append(f"{c.name} ({(err or '').strip()[-200:]})")
        if failed:
            raise LabError("DHCP failed for " + ", ".join(failed))

    def dhcp_release(self, c):
        """Sends a DHCPRELEASE for the client's lease, as a client does when it
        gives its address back (udhcpc -q leaves without one)."""
        server = self.gateway.address if self.mode != "router" and self.gateway else self.router_ip
        mac = bytes.fromhex(c.mac.replace(":", ""))
        pkt = struct.pack("!BBBBIHH4s4s4s4s16s64s128s4s", 1, 1, 6, 0, 0x4c52c0de, 0, 0,
                          socket.inet_aton(c.ip), bytes(4), bytes(4), bytes(4),
                          mac.ljust(16, b"\0"), bytes(64), bytes(128), b"\x63\x82\x53\x63")
        pkt += bytes([53, 1, 7, 54, 4]) + socket.inet_aton(server)
        pkt += bytes([61, 7, 1]) + mac + b"\xff"
        with util.NetnsEntered(c.ns):
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            try:
                s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                s.bind((c.ip, 68))
                s.sendto(pkt, (server, 67))
            finally:
                s.close()
        gone = lambda: all(row[1] != c.mac for row in self.leases())
        util.wait_for(gone, 10, what=f"the server to drop the lease of {c.name}")

    def announce(self, clients):
        """Each client sends one datagram to the router, as a real device does
        when it starts talking: the router learns it in its neighbour table
        (from the ARP or NS), and the bridges learn its MAC on its port."""
        sent4 = []
        for c in clients:
            with util.NetnsEntered(c.ns):
                if c.ipv4 and c.ip and self._send(socket.AF_INET, (self._gw_for(c), 9)):
                    sent4.append(c)
                if c.ipv6:
                    self._send(socket.AF_INET6, (self.router_ip6, 9))
                    self._send(socket.AF_INET6, ("fe80::" + self._router_ll_suffix(), 9, 0,
                                                 socket.if_nametoindex("eth0")))
        self._wait_learnt(sent4)

    def _wait_learnt(self, clients, timeout=20):
        """The datagram leaves once the client's ARP exchange is done, which
        on a loaded machine can be after announce returns: a test that scans
        at once would miss the client. So announce ends when the router's
        neighbour table holds every announced IPv4 address with a MAC (or,
        for a scenario where the router cannot learn it, after the timeout)."""
        want = {c.ip for c in clients}
        deadline = time.monotonic() + timeout
        while want and time.monotonic() < deadline:
            known = {a for a, mac, state, _dev in self.neighbours() if mac and state != "FAILED"}
            if want <= known:
                return
            time.sleep(0.02)
        if want:
            log(f"lab {self.id}: not learnt by the router: {sorted(want - known)}")

    def _gw_for(self, c):
        """The router's address on the client's bridge."""
        if c.port.bridge == ROUTER_BRIDGE:
            return self.router_ip
        cidr4 = self.bridges.get(c.port.bridge, (None, None))[0]
        return cidr4.split("/")[0] if cidr4 else self.router_ip

    def _router_ll_suffix(self):
        b = bytes.fromhex(self.router_mac.replace(":", ""))
        eui = bytes([b[0] ^ 2]) + b[1:3] + b"\xff\xfe" + b[3:]
        return str(ipaddress.IPv6Address(bytes(8) + eui)).lstrip(":")

    @staticmethod
    def _send(family, addr):
        s = socket.socket(family, socket.SOCK_DGRAM)
        try:
            s.sendto(b"lab", addr)
            return True
        except OSError:
            return False   # an unreachable peer is the point of some scenarios
        finally:
            s.close()

    def poke(self, clients, ns=None):
        """The router sends one datagram to each client, resolving its address
        with ARP / NS: how a silent client gets into the neighbour table."""
        with util.NetnsEntered(ns or self.router_ns):
            for c in clients:
                if c.ipv4 and c.ip:
                    self._send(socket.AF_INET, (c.ip, 9))
                if c.ipv6 and c.ip6:
                    self._send(socket.AF_INET6, (c.ip6, 9))

    def poke_address(self, address, ns=None):
        """One datagram from the router to any address (the gateway, say)."""
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        with util.NetnsEntered(ns or self.router_ns):
            self._send(family, (address, 9))

    def start_responder(self, c):
        argv = [util.PYTHON, os.path.join(util.LIB_DIR, "responder.py"),
                "--ready", os.path.join(self.dir, f"responder-{c.name}.ready"),
                "--log", os.path.join(self.dir, f"responder-{c.name}.queries")]
        if c.mdns:
            argv += ["--mdns", c.mdns]
        if c.netbios:
            argv += ["--netbios", c.netbios, "--workgroup", c.workgroup]
        if c.responder_mode != "normal":
            argv += ["--mode", c.responder_mode]
        ready = argv[3]
        if os.path.exists(ready):
            os.unlink(ready)
        self.spawn(f"responder:{c.name}", argv, ns=c.ns, log_name=f"responder-{c.name}.log")
        util.wait_for(lambda: os.path.exists(ready), 10, what=f"responder of {c.name}")

    def responder_queries(self, c):
        try:
            with open(os.path.join(self.dir, f"responder-{c.name}.queries")) as f:
                return [line.split() for line in f]
        except OSError:
            return []

    # ---------- events ----------
    def client(self, name):
        return self.clients[name] if isinstance(name, str) else name

    def leave(self, name, how="down"):
        """The client leaves: "down" takes its link down (cable pulled, radio
        off); "remove" destroys its namespace."""
        c = self.client(name)
        if how == "down":
            util.ip_batch(["link set eth0 down"], ns=c.ns)
            c.state = "down"
        elif how == "remove":
            self.untrack(f"responder:{c.name}")
            # the kernel frees a deleted namespace later, in the background:
            # cut the cable first so the client is gone at once
            util.ip_batch([f"link del {c.local_if}"], ns=c.link_ns, check=False)
            from . import sweep
            sweep.remove_netns([c.ns])
            c.state = "gone"
        else:
            raise LabError(f"unknown way to leave: {how}")
        self._save_state()

    def silence(self, name, arp=True):
        """The client stops answering anything but ARP (arp=False: not even that)."""
        c = self.client(name)
        if c.state != "silent":
            self._silence([c])
        if not arp:
            util.write_sysctl(c.ns, {"net/ipv4/conf/eth0/arp_ignore": 8,
                                     "net/ipv4/conf/all/arp_ignore": 8})
        c.state = "silent"
        self._save_state()

    def come_back(self, name):
        c = self.client(name)
        if c.state == "gone":
            del self.clients[c.name]
            spec = dict(name=c.name, mac=c.mac, port=c.port.name if c.port.kind != "direct" else None,
                        dhcp=c.dhcp, hostname=c.hostname, ip=None if c.dhcp else c.ip,
                        ipv4=c.ipv4, ipv6=c.ipv6, ip6=c.ip6, silent=False, mdns=c.mdns,
                        netbios=c.netbios, workgroup=c.workgroup, vendor_class=c.vendor_class,
                        responder_mode=c.responder_mode)
            return self.add_clients([spec])[0]
        if c.state == "silent":
            util.run(util.in_netns(c.ns, ["nft", "delete", "table", "netdev", "lab_silent"]),
                     check=False)
            util.write_sysctl(c.ns, {"net/ipv4/conf/eth0/arp_ignore": 0,
                                     "net/ipv4/conf/all/arp_ignore": 0})
        if c.state == "down":
            lines = ["link set eth0 up"]
            if c.ipv4 and c.ip:
                lines.append(f"addr replace {c.ip}/24 dev eth0")
            if c.ipv6 and c.ip6:
                lines.append(f"addr replace {c.ip6}/64 dev eth0 nodad")
            util.ip_batch(lines, ns=c.ns)
        c.silent = False
        if c.dhcp:
            self.dhcp([c], {c.name: c.ip} if c.ip else None)
        self.announce([c])
        c.state = "up"
        self._save_state()
        return c

    def change_ip(self, name, new_ip):
        c = self.client(name)
        if c.dhcp:
            # the server keeps a client on its address: give the lease back
            # first, then ask for the new one
            self.dhcp_release(c)
            self.dhcp([c], {c.name: new_ip})
            if c.ipv6 and c.ip6:
                util.ip_batch([f"addr replace {c.ip6}/64 dev eth0 nodad"], ns=c.ns)
        else:
            util.ip_batch([f"addr del {c.ip}/24 dev eth0", f"addr add {new_ip}/24 dev eth0"], ns=c.ns)
            c.ip = new_ip
        self.announce([c])
        self._save_state()
        return c.ip

    def change_name(self, name, hostname):
        """New DHCP host name (a fresh request: the lease file follows) and,
        for a responder, new mDNS / NetBIOS names."""
        c = self.client(name)
        c.hostname = hostname
        if c.dhcp:
            self.dhcp([c], {c.name: c.ip})
        if c.mdns or c.netbios:
            c.mdns = hostname if c.mdns else None
            c.netbios = hostname.upper()[:15] if c.netbios else None
            self.untrack(f"responder:{c.name}")
            self.start_responder(c)
        self._save_state()

    def move(self, name, port_name):
        """Unplugs the client and plugs it into another port (or radio)."""
        c = self.client(name)
        util.ip_batch([f"link del {c.local_if}"], ns=c.link_ns, check=False)
        port = self.ports.get(port_name) or self.add_port(port_name)
        c.port = port
        self._wire([c])
        lines = ["link set eth0 up"]
        if c.ipv4 and c.ip:
            lines.append(f"addr replace {c.ip}/24 dev eth0")
        if c.ipv6 and c.ip6:
            lines.append(f"addr replace {c.ip6}/64 dev eth0 nodad")
        util.ip_batch(lines, ns=c.ns)
        if not c.silent:
            self.announce([c])
        self._save_state()

    # ---------- what the router sees ----------
    def neighbours(self):
        """[(address, mac or None, state words)] of the router's neighbour table."""
        out = util.run(["ip", "-n", self.router_ns, "neigh", "show"]).stdout
        rows = []
        for line in out.splitlines():
            parts = line.split()
            if not parts:
                continue
            mac = parts[parts.index("lladdr") + 1] if "lladdr" in parts else None
            rows.append((parts[0], mac, parts[-1], parts[parts.index("dev") + 1]))
        return rows

    def fdb(self, bridge=ROUTER_BRIDGE):
        """[(mac, port name, is_local)] from "brctl showmacs" and the port map."""
        out = util.run(util.in_netns(self.router_ns, ["bridge", "fdb", "show", "br", bridge])).stdout
        rows = []
        for line in out.splitlines():
            parts = line.split()
            if len(parts) < 3 or "dev" not in parts or "self" in parts:
                continue
            dev = parts[parts.index("dev") + 1]
            if dev == bridge:
                continue
            rows.append((parts[0], dev, "permanent" in parts))
        return rows

    def stations(self):
        """{radio port: [(mac, active)]}: the clients behind each radio-named
        port, as a Wi-Fi driver's station list would give them (active: the
        client is up and not silenced)."""
        out = {}
        for c in self.clients.values():
            if c.port.radio and c.state != "gone":
                out.setdefault(c.port.name, []).append((c.mac, c.state == "up"))
        return out

    def client_by_mac(self, mac):
        mac = mac.lower().replace("-", ":")
        return next((c for c in self.clients.values() if c.mac == mac), None)

    def showmacs(self, bridge=ROUTER_BRIDGE):
        # brctl reads /sys, which only "ip netns exec" shows for the namespace
        return util.run(["ip", "netns", "exec", self.router_ns, "brctl", "showmacs", bridge]).stdout

    def leases(self):
        """[(expiry, mac, ip, hostname, client id)] of the lease file."""
        try:
            with open(self.lease_file) as f:
                return [tuple(line.split()[:5]) for line in f if line.strip()]
        except OSError:
            return []

    def sandbox(self, **kw):
        from .sandbox import Sandbox
        sb = Sandbox(self, **kw)
        self.sandboxes.append(sb)
        return sb
