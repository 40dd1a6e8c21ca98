"""Shared frame of the lab self-tests: root check, lanlab on the path, and a
tiny runner that prints one line per check and the closing count."""
import os
import sys
import time
import traceback

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))
LAB_DIR = os.path.dirname(HERE)
sys.path.insert(0, LAB_DIR)

from lanlab import util  # noqa: E402

os.environ.setdefault("LANROSTER_LAB_QUIET", "1")


def require_root():
    if os.geteuid() != 0:
        print("FAIL: the lab tests need root (they make network and mount namespaces); "
              "run ctest as root", flush=True)
        sys.exit(1)


class Checks:
    def __init__(self):
        self.passed = 0
        self.failed = 0

    def check(self, cond, what, detail=""):
        if cond:
            self.passed += 1
            print(f"ok    {what}", flush=True)
        else:
            self.failed += 1
            print(f"FAIL  {what}" + (f"\n      {detail}" if detail else ""), flush=True)
        return cond

    def equal(self, got, want, what):
        return self.check(got == want, what, f"got {got!r}, want {want!r}")


def main(tests):
    """Runs test functions taking a Checks; an exception fails that test."""
    require_root()
    c = Checks()
    t0 = time.monotonic()
    for fn in tests:
        print(f"--- {fn.__name__}", flush=True)
        try:
            fn(c)
        except Exception:
            c.failed += 1
            print(f"FAIL  {fn.__name__} raised:\n{traceback.format_exc()}", flush=True)
    print(f"({time.monotonic() - t0:.1f} s)")
    print(f"{c.passed} passed, {c.failed} failed", flush=True)
    sys.exit(1 if c.failed else 0)


def leftovers(lab_id):
    """What a lab left behind: namespaces, state directory, mounts, processes
    started from its directory."""
    found = []
    found += [f"netns {ns}" for ns in util.list_netns() if ns.startswith(f"{util.PREFIX}{lab_id}-")]
    d = os.path.join(util.BASE_DIR, lab_id)
    if os.path.exists(d):
        found.append(f"directory {d}")
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            with open(f"/proc/{pid}/mountinfo") as f:
                if d in f.read():
                    found.append(f"mount of {d} seen by pid {pid}")
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                cmd = f.read()
                if d.encode() in cmd or f"{util.PREFIX}{lab_id}-".encode() in cmd:
                    found.append(f"process {pid}")
        except OSError:
            pass
    return found


def wait_until(pred, timeout=10.0):
    """Polls an observable state of the kernel (tables, files) until it holds."""
    deadline = time.monotonic() + timeout
    while True:
        v = pred()
        if v or time.monotonic() > deadline:
            return v
        time.sleep(0.05)
