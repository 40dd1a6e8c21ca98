"""Small helpers: commands, ip batches, network namespace entry, state paths."""
import ctypes
import json
import os
import secrets
import signal
import subprocess
import sys
import time

CLONE_NEWNET = 0x40000000
NETNS_DIR = "/run/netns"
# Lab state lives on a tmpfs that none of the sandbox's bind mounts hide, so
# the same path works on the host and inside the daemon's mount namespace.
BASE_DIR = os.environ.get("LANROSTER_LAB_BASE", "/dev/shm/lanroster-lab")
PREFIX = "lrl-"          # every namespace of every lab starts with this
PYTHON = "/usr/bin/python3"
LIB_DIR = os.path.dirname(os.path.abspath(__file__))

_libc = ctypes.CDLL(None, use_errno=True)


class LabError(RuntimeError):
    pass


def log(msg):
    if os.environ.get("LANROSTER_LAB_QUIET") != "1":
        print(f"[lab] {msg}", file=sys.stderr, flush=True)


def require_root():
    if os.geteuid() != 0:
        raise LabError("the lab needs root (network and mount namespaces); run it with sudo or as root")


def new_lab_id():
    return secrets.token_hex(3)


def run(argv, *, input=None, check=True, timeout=60, capture=True):
    """Runs a command; returns CompletedProcess with text output."""
    res = subprocess.run(argv, input=input, text=True, timeout=timeout,
                         stdout=subprocess.PIPE if capture else None,
                         stderr=subprocess.PIPE if capture else None)
    if check and res.returncode != 0:
        raise LabError(f"{' '.join(argv)} failed ({res.returncode}): {(res.stderr or '').strip()}")
    return res


def ip_batch(lines, ns=None, tool="ip", check=True):
    """Feeds many ip (or tc) commands to one process: much faster than one each."""
    if not lines:
        return
    argv = [tool]
    if ns:
        argv += ["-n", ns]
    argv += ["-batch", "-"]
    run(argv, input="\n".join(lines) + "\n", check=check)


def parallel(argvs, *, inputs=None, timeout=60, check=True):
    """Starts all commands at once and waits for all; returns their results."""
    procs = []
    for i, argv in enumerate(argvs):
        p = subprocess.Popen(argv, stdin=subprocess.PIPE if inputs else subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        procs.append(p)
        if inputs:
            p.stdin.write(inputs[i])   # small: fits the pipe, never blocks
            p.stdin.close()
            p.stdin = None
    deadline = time.monotonic() + timeout
    results = []
    for argv, p in zip(argvs, procs):
        try:
            out, err = p.communicate(timeout=max(0.1, deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            p.kill()
            out, err = p.communicate()
        results.append((p.returncode, out, err))
        if check and p.returncode != 0:
            for q in procs:
                if q.poll() is None:
                    q.kill()
            raise LabError(f"{' '.join(argv)} failed ({p.returncode}): {err.strip()}")
    return results


def parallel_ip_batches(batches, tool="ip", check=True):
    """batches: {namespace: [lines]}; one ip process per namespace, all at once,
    in groups so that a 250-client lab does not fork 250 processes at a time."""
    items = [(ns, lines) for ns, lines in batches.items() if lines]
    group = 64
    for i in range(0, len(items), group):
        chunk = items[i:i + group]
        parallel([[tool, "-n", ns, "-batch", "-"] for ns, _ in chunk],
                 inputs=["\n".join(lines) + "\n" for _, lines in chunk], check=check)


def in_netns(ns, argv):
    """Argument vector that runs argv inside a network namespace, and only that:
    no mount namespace of its own, so paths stay the host's."""
    return ["nsenter", f"--net={NETNS_DIR}/{ns}", "--"] + list(argv)


class NetnsEntered:
    """Moves the calling thread into a namespace for a block; sockets opened
    inside stay in it after the block ends."""

    def __init__(self, ns):
        self.ns = ns

    def __enter__(self):
        self._home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        fd = os.open(f"{NETNS_DIR}/{self.ns}", os.O_RDONLY)
        try:
            if _libc.setns(fd, CLONE_NEWNET) != 0:
                err = ctypes.get_errno()
                raise LabError(f"setns {self.ns}: {os.strerror(err)}")
        finally:
            os.close(fd)
        return self

    def __exit__(self, *exc):
        _libc.setns(self._home, CLONE_NEWNET)
        os.close(self._home)
        return False


def write_sysctl(ns, settings):
    """settings: {"net/ipv6/conf/all/accept_dad": "0", ...} written inside ns."""
    with NetnsEntered(ns):
        for key, value in settings.items():
            try:
                with open(f"/proc/sys/{key}", "w") as f:
                    f.write(str(value))
            except OSError:
                pass   # a knob missing on this kernel is not worth failing a lab for


def proc_start_time(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return int(f.read().rsplit(")", 1)[1].split()[19])
    except (OSError, IndexError, ValueError):
        return None


def pid_alive(pid, start_time=None):
    st = proc_start_time(pid)
    return st is not None and (start_time is None or st == start_time)


def kill_tree(pid, start_time=None, grace=2.0):
    """SIGTERM to the process group led by pid (each service runs in its own
    session), then SIGKILL after the grace time."""
    if not pid or not pid_alive(pid, start_time):
        return
    for sig in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.killpg(pid, sig)
        except ProcessLookupError:
            pass
        except PermissionError:
            try:
                os.kill(pid, sig)
            except ProcessLookupError:
                pass
        deadline = time.monotonic() + grace
        while time.monotonic() < deadline:
            try:
                wpid, _ = os.waitpid(pid, os.WNOHANG)
                if wpid == pid:
                    return
            except ChildProcessError:
                pass
            if not pid_alive(pid, start_time) or _is_zombie(pid):
                return
            time.sleep(0.02)


def _is_zombie(pid):
    try:
        with open(f"/proc/{pid}/stat") as f:
            return f.read().rsplit(")", 1)[1].split()[0] == "Z"
    except OSError:
        return True


def netns_pids(ns):
    res = run(["ip", "netns", "pids", ns], check=False)
    return [int(x) for x in res.stdout.split()] if res.returncode == 0 else []


def list_netns():
    try:
        return sorted(os.listdir(NETNS_DIR))
    except FileNotFoundError:
        return []


def json_load(path, default=None):
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError):
        return default


def json_save(path, data):
    tmp = f"{path}.tmp{os.getpid()}"
    with open(tmp, "w") as f:
        json.dump(data, f, indent=1)
    os.replace(tmp, path)


def wait_for(pred, timeout, interval=0.05, what="condition"):
    deadline = time.monotonic() + timeout
    while True:
        v = pred()
        if v:
            return v
        if time.monotonic() >= deadline:
            raise LabError(f"timed out after {timeout:.0f} s waiting for {what}")
        time.sleep(interval)
