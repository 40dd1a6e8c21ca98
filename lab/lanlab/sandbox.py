"""A run of the daemon (or any command) inside the lab: in the router's
network namespace and a mount namespace of its own, with per-run directories
over /etc/config, /etc/profile.d, /etc/crontabs, /etc/init.d, /tmp,
/var/state and /var/run, a capture of /dev/console, recording stand-ins for
the platform commands, and the bus daemon on /var/run/ubus.sock."""
import json
import os
import shutil
import socket
import subprocess

from . import uci_defaults, util
from .util import LabError

STANDINS = ["boardprobe", "online-test", "fing_device_recognize", "smart_home_report",
            "new_client_access_report", "lua"]
SRC_ROOT = os.path.dirname(os.path.dirname(util.LIB_DIR))


def default_build_dir():
    return os.environ.get("LANROSTER_BUILD_DIR", os.path.join(SRC_ROOT, "build"))


class Sandbox:
    def __init__(self, lab, name=None, build_dir=None, mode=None, packages=None):
        self.lab = lab
        self.name = name or f"run{len(lab.sandboxes) + 1}"
        self.dir = os.path.join(lab.dir, "runs", self.name)
        self.build_dir = build_dir or default_build_dir()
        self.platform_bin = os.path.join(self.build_dir, "platform-bin")
        self.proc = None
        self.ubusd = None
        self._make_dirs()
        self.write_packages(uci_defaults.packages(lab, mode))
        if packages:
            self.write_packages(packages)
        self.set_standin()
        self._install_standins()

    def tool(self, name):
        """Path of a platform tool (ubusd, ubus, uci): this build's stand-in,
        or in a build against the real libraries, the one on PATH; None when
        there is neither."""
        own = os.path.join(self.platform_bin, name)
        if os.access(own, os.X_OK):
            return own
        return shutil.which(name)

    # ---------- layout ----------
    def path(self, inside):
        """Host path of a path as the daemon sees it ("/tmp/x" -> run/tmp/x)."""
        for prefix, sub in (("/etc/config", "etc/config"), ("/etc/profile.d", "etc/profile.d"),
                            ("/etc/crontabs", "etc/crontabs"), ("/etc/init.d", "etc/init.d"),
                            ("/var/state", "var/state"), ("/var/run", "var/run"),
                            ("/tmp", "tmp")):
            if inside == prefix or inside.startswith(prefix + "/"):
                return os.path.join(self.dir, sub, inside[len(prefix):].lstrip("/"))
        raise LabError(f"{inside} is not a sandboxed path")

    @property
    def ubus_socket(self):
        return self.path("/var/run/ubus.sock")

    @property
    def console_log(self):
        return os.path.join(self.dir, "console.log")

    def _make_dirs(self):
        for sub in ("etc/config", "etc/profile.d", "etc/crontabs", "etc/init.d", "tmp",
                    "var/state", "var/run", "bin", "ovl/etc/u", "ovl/etc/w", "ovl/var/u",
                    "ovl/var/w"):
            os.makedirs(os.path.join(self.dir, sub), exist_ok=True)
        os.chmod(self.path("/tmp"), 0o1777)
        # the daemon's lease file is the LAN's: the same file, bound into /tmp
        lease = self.path("/tmp/dhcp.leases")
        open(lease, "a").close()
        with open(os.path.join(self.dir, "lease-source"), "w") as f:
            f.write(self.lab.lease_file)
        with open(os.path.join(self.dir, "lease-name"), "w") as f:
            f.write("dhcp.leases")
        open(self.console_log, "a").close()
        self._write_keep_paths()
        fifo = os.path.join(self.dir, "console.fifo")
        if not os.path.exists(fifo):
            os.mkfifo(fifo, 0o622)

    def _write_keep_paths(self):
        # A checkout or build tree under /tmp (a CI clone, say) would vanish
        # under the run's own /tmp, and with it the daemon, the tools and the
        # stand-ins: sandbox.sh binds these trees back at the same paths.
        keep = []
        for tree in (SRC_ROOT, os.path.abspath(self.build_dir)):
            if tree.startswith("/tmp/") and not any(tree.startswith(k + "/") for k in keep):
                keep.append(tree)
        with open(os.path.join(self.dir, "keep-paths"), "w") as f:
            f.write("".join(k + "\n" for k in keep))

    def _install_standins(self):
        src = os.path.join(util.LIB_DIR, "standin.py")
        for name in STANDINS:
            dst = os.path.join(self.dir, "bin", name)
            if not os.path.lexists(dst):
                os.symlink(src, dst)
        cron = os.path.join(self.dir, "etc/init.d/cron")
        if not os.path.lexists(cron):
            os.symlink(src, cron)

    # ---------- configuration ----------
    def write_packages(self, packages):
        for name, text in packages.items():
            d = "etc/profile.d" if name == "profile" else "etc/config"
            with open(os.path.join(self.dir, d, name), "w") as f:
                f.write(text)

    def uci_sections(self, package):
        """Sections of a package in file order, as the stand-in uci tool
        reads them: [(name, {option: value})]."""
        uci = self.tool("uci") or "uci"
        out = subprocess.run([uci, "-c", self.path("/etc/config"), "-X", "show", package],
                             text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE).stdout
        sections, by_name = [], {}
        for line in out.splitlines():
            key, _, value = line.partition("=")
            parts = key.split(".")
            if len(parts) == 2:
                by_name[parts[1]] = {}
                sections.append((parts[1], by_name[parts[1]]))
            elif len(parts) == 3 and parts[1] in by_name:
                v = value[1:-1] if value.startswith("'") and value.endswith("'") else value
                by_name[parts[1]][parts[2]] = v.replace("'\\''", "'")
        return sections

    def read_package(self, name):
        d = "etc/profile.d" if name == "profile" else "etc/config"
        with open(os.path.join(self.dir, d, name)) as f:
            return f.read()

    def set_standin(self, **conf):
        """Answers of the stand-ins; see standin.py for the keys."""
        path = os.path.join(self.dir, "standin.json")
        cur = util.json_load(path, None) or {
            "boardprobe": {"MAC": self.lab.router_mac.upper().replace(":", "-"),
                           "DEV_ID": "LAB0123456789ABCDEF0123456789ABCDEF01234"},
            "online_test_exit": 0, "fing_reply": None, "exit": {}}
        cur.update(conf)
        util.json_save(path, cur)

    def calls(self, cmd=None):
        """Recorded stand-in calls, oldest first, optionally of one command."""
        rows = []
        try:
            with open(os.path.join(self.dir, "calls.jsonl")) as f:
                for line in f:
                    try:
                        rows.append(json.loads(line))
                    except ValueError:
                        pass
        except OSError:
            pass
        return [r for r in rows if cmd is None or r["cmd"] == cmd]

    def console(self):
        with open(self.console_log, errors="replace") as f:
            return f.read()

    def wait_console(self, text, timeout=20):
        """Waits until the console capture holds text; returns the capture."""
        return util.wait_for(lambda: text in self.console() and self.console(), timeout,
                             what=f"console line {text!r}")

    def wait_calls(self, cmd, count=1, timeout=20):
        """Waits until the stand-in cmd was called count times; returns the calls."""
        return util.wait_for(lambda: len(self.calls(cmd)) >= count and self.calls(cmd), timeout,
                             what=f"{count} call(s) of {cmd}")

    # ---------- files other programs hand the daemon ----------
    def write_hook_file(self, entries):
        """"/tmp/dhcp_hook.file": a JSON array of {mac, ipaddr, name, type,
        obt_name_ok} as a relay or snooper writes it (access point mode)."""
        with open(self.path("/tmp/dhcp_hook.file"), "w") as f:
            json.dump(entries, f)

    def write_dhcpv6_leases(self, rows):
        """"/tmp/dhcpv6.leases": lines of host name and IPv6 address."""
        with open(self.path("/tmp/dhcpv6.leases"), "w") as f:
            f.writelines(f"{name} {addr}\n" for name, addr in rows)

    def write_stations(self, stations):
        """Station files of the iwinfo stand-in, "/var/run/iwinfo/<radio>":
        {radio: [{mac, inactive, signal, rx_rate, tx_rate, mlo_addr,
        mlo_rx_2g, ...}]}, one line of key=value words per station (see
        platform/libiwinfo/iwinfo.cc). A radio given None loses its file: no
        backend claims it then, as for a radio the driver does not know."""
        d = self.path("/var/run/iwinfo")
        os.makedirs(d, exist_ok=True)
        for radio, rows in stations.items():
            path = os.path.join(d, radio)
            if rows is None:
                if os.path.exists(path):
                    os.unlink(path)
                continue
            lines = [" ".join(f"{k}={v}" for k, v in row.items()) + "\n" for row in rows]
            tmp = path + ".new"
            with open(tmp, "w") as f:
                f.writelines(lines)
            os.replace(tmp, path)

    def sync_stations(self, **figures):
        """Station files from the lab's clients behind radio-named ports: an
        up client is active (inactive 100 ms), a silenced one inactive for
        120 s; `figures` (signal, rx_rate, tx_rate ...) go on every line."""
        rows = {}
        for radio, members in self.lab.stations().items():
            rows[radio] = [dict(mac=mac, inactive=100 if active else 120000, **figures)
                           for mac, active in members]
        self.write_stations(rows)

    def send_driver_event(self, payload, port=44032):
        """One datagram to the router's loopback, where the Wi-Fi driver's
        association events arrive."""
        with util.NetnsEntered(self.lab.router_ns):
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            try:
                s.sendto(payload, ("127.0.0.1", port))
            finally:
                s.close()

    # ---------- processes ----------
    def start_ubusd(self):
        """Starts the bus daemon on the sandbox's /var/run/ubus.sock when it is
        built (or on PATH); returns False when it is not there. Readiness is
        a connect that succeeds, so any ubusd will do."""
        ubusd = self.tool("ubusd")
        if not ubusd:
            return False
        sock = self.ubus_socket
        self.ubusd = self.lab.spawn(f"ubusd:{self.name}", [ubusd, "-s", sock],
                                    log_name=f"ubusd-{self.name}.log")
        util.wait_for(lambda: self._connectable(sock) or self.ubusd.poll() is not None, 10,
                      what="ubusd socket")
        if self.ubusd.poll() is not None:
            raise LabError(f"ubusd exited with {self.ubusd.returncode}")
        return True

    @staticmethod
    def _connectable(path):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            s.connect(path)
            return True
        except OSError:
            return False
        finally:
            s.close()

    def _start_console(self):
        # /dev/console is opened with O_TRUNC by "echo ... > /dev/console";
        # a FIFO drained into an append-only file keeps every line.
        key = f"console:{self.name}"
        if key in self.lab._procs:
            return
        fifo = os.path.join(self.dir, "console.fifo")
        self.lab.spawn(key, ["sh", "-c", 'exec cat 0<>"$1" >>"$2"', "console", fifo,
                             self.console_log], log_name=f"console-{self.name}.err")

    def env_path(self):
        parts = [os.path.join(self.dir, "bin")]
        if os.path.isdir(self.platform_bin):
            parts.append(self.platform_bin)
        # Against the real libraries: where the real uci and ubus were found.
        for name in ("uci", "ubus"):
            found = self.tool(name)
            if found and os.path.dirname(found) not in parts:
                parts.append(os.path.dirname(found))
        return ":".join(parts + ["/usr/sbin", "/usr/bin", "/sbin", "/bin"])

    # Sanitizer settings of the test run reach a sanitized daemon, and the
    # library path reaches the real uci and ubus of a build against the
    # OpenWrt libraries; nothing else of the caller's environment does.
    PASS_ENV = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "MSAN_OPTIONS", "TSAN_OPTIONS",
                "LD_LIBRARY_PATH")

    def argv(self, command, env=None):
        """The full argument vector that runs command in the sandbox."""
        assigns = [f"{k}={os.environ[k]}" for k in self.PASS_ENV if k in os.environ]
        assigns += [f"{k}={v}" for k, v in (env or {}).items()]
        return ["ip", "netns", "exec", self.lab.router_ns, "sh",
                os.path.join(util.LIB_DIR, "sandbox.sh"), self.dir, self.env_path(), "--"] + \
            assigns + list(command)

    def start(self, command, key=None, env=None):
        """Starts a long-running command (the daemon) in the sandbox; env
        adds variables to its otherwise empty environment."""
        self._start_console()
        self.key = key or f"daemon:{self.name}"
        out = open(os.path.join(self.dir, "stdout.log"), "ab")
        err = open(os.path.join(self.dir, "stderr.log"), "ab")
        try:
            self.proc = subprocess.Popen(self.argv(command, env), stdin=subprocess.DEVNULL,
                                         stdout=out, stderr=err, start_new_session=True)
        finally:
            out.close()
            err.close()
        self.lab.track(self.key, self.proc, " ".join(command))
        return self.proc

    def run(self, command, timeout=30, input=None, env=None):
        """Runs a short command in the sandbox and returns CompletedProcess."""
        self._start_console()
        return subprocess.run(self.argv(command, env), input=input, text=True, timeout=timeout,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    @property
    def daemon_binary(self):
        return os.path.join(self.build_dir, "lanroster")

    def start_daemon(self):
        """Starts build/lanroster (the production binary, unchanged)."""
        if not os.access(self.daemon_binary, os.X_OK):
            raise LabError(f"{self.daemon_binary} is not built")
        return self.start([self.daemon_binary])

    def stop_daemon(self):
        """Stops the command started by start(); ubusd and the run's files
        stay, so a second start() is a restart of the daemon on the same
        router (its /etc/config, /tmp and /var/state kept)."""
        if self.proc is not None:
            self.lab.untrack(self.key)
            self.proc = None

    def wait(self, timeout):
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None

    def stdout(self):
        with open(os.path.join(self.dir, "stdout.log"), errors="replace") as f:
            return f.read()

    def stderr(self):
        with open(os.path.join(self.dir, "stderr.log"), errors="replace") as f:
            return f.read()

    def stop(self):
        self.stop_daemon()
        for key in (f"ubusd:{self.name}", f"console:{self.name}"):
            if key in self.lab._procs:
                self.lab.untrack(key)
        self.ubusd = None
        if self in self.lab.sandboxes:
            self.lab.sandboxes.remove(self)

    # ---------- the bus ----------
    def ubus(self, *args, timeout=10):
        """Runs the ubus command line tool on the sandbox's socket."""
        tool = self.tool("ubus")
        if not tool:
            raise LabError("the ubus tool is not built yet")
        return subprocess.run([tool, "-s", self.ubus_socket, "-t", str(timeout)] + list(args),
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=timeout + 5)

    def wait_bus_object(self, name="lanroster", timeout=30):
        """Waits until an object is on the bus (the daemon answers only after
        its first pass); fails early if the daemon exited."""
        def on_bus():
            if self.proc is not None and self.proc.poll() is not None:
                raise LabError(f"the daemon exited with {self.proc.returncode}")
            r = self.ubus("list", name, timeout=2)
            return r.returncode == 0 and name in r.stdout
        return util.wait_for(on_bus, timeout, interval=0.1, what=f"bus object {name}")

    def hist_list(self, **query):
        """client_list of "lanroster get_hist_list_new"; every request key is
        sent (0 unless given; online_type 2: all clients)."""
        req = {"online_type": 2, "v6": 0, "access_limit": 0, "speed_limit": 0, "qos": 0,
               "tfstats": 0, "wireless": 0, "qos_schedule": 0, "high_bandwidth_occupancy": 0,
               "lanroster_file": 0}
        req.update(query)
        return (self.ubus_call("lanroster", "get_hist_list_new", req) or {}).get("client_list", [])

    def ubus_call(self, obj, method, payload=None, timeout=10):
        res = self.ubus("call", obj, method, json.dumps(payload or {}), timeout=timeout)
        if res.returncode != 0:
            raise LabError(f"ubus call {obj} {method}: {res.returncode} {res.stderr.strip()}")
        return json.loads(res.stdout) if res.stdout.strip() else None
