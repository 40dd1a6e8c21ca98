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
import time

from . import uci_defaults, util
from .util import LabError, log

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
        fifo = os.path.join(self.dir, "console.fifo")
        if not os.path.exists(fifo):
            os.mkfifo(fifo, 0o622)

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

    # ---------- processes ----------
    def start_ubusd(self):
        """Starts the bus daemon on the sandbox's /var/run/ubus.sock when it is
        built; returns False when it is not there yet."""
        ubusd = os.path.join(self.platform_bin, "ubusd")
        if not os.access(ubusd, os.X_OK):
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
        return ":".join(parts + ["/usr/sbin", "/usr/bin", "/sbin", "/bin"])

    def argv(self, command):
        """The full argument vector that runs command in the sandbox."""
        return ["ip", "netns", "exec", self.lab.router_ns, "sh",
                os.path.join(util.LIB_DIR, "sandbox.sh"), self.dir, self.env_path(), "--"] + \
            list(command)

    def start(self, command, key=None):
        """Starts a long-running command (the daemon) in the sandbox."""
        self._start_console()
        self.key = key or f"daemon:{self.name}"
        out = open(os.path.join(self.dir, "stdout.log"), "ab")
        err = open(os.path.join(self.dir, "stderr.log"), "ab")
        try:
            self.proc = subprocess.Popen(self.argv(command), stdin=subprocess.DEVNULL,
                                         stdout=out, stderr=err, start_new_session=True)
        finally:
            out.close()
            err.close()
        self.lab.track(self.key, self.proc, " ".join(command))
        return self.proc

    def run(self, command, timeout=30, input=None):
        """Runs a short command in the sandbox and returns CompletedProcess."""
        self._start_console()
        return subprocess.run(self.argv(command), input=input, text=True, timeout=timeout,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

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
        if self.proc is not None:
            self.lab.untrack(self.key)
            self.proc = None
        for key in (f"ubusd:{self.name}", f"console:{self.name}"):
            if key in self.lab._procs:
                self.lab.untrack(key)
        self.ubusd = None
        if self in self.lab.sandboxes:
            self.lab.sandboxes.remove(self)

    # ---------- the bus ----------
    def ubus(self, *args, timeout=10):
        """Runs the ubus command line tool on the sandbox's socket."""
        tool = os.path.join(self.platform_bin, "ubus")
        if not os.access(tool, os.X_OK):
            raise LabError("the ubus tool is not built yet")
        return subprocess.run([tool, "-s", self.ubus_socket, "-t", str(timeout)] + list(args),
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=timeout + 5)

    def ubus_call(self, obj, method, payload=None, timeout=10):
        res = self.ubus("call", obj, method, json.dumps(payload or {}), timeout=timeout)
        if res.returncode != 0:
            raise LabError(f"ubus call {obj} {method}: {res.returncode} {res.stderr.strip()}")
        return json.loads(res.stdout) if res.stdout.strip() else None
