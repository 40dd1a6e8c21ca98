"""Removal of labs: the teardown of one lab, the guard that runs it when the
owner exits or is interrupted, and the sweeper for leftovers."""
import atexit
import os
import shutil
import signal
import subprocess

from . import util
from .util import log

_guarded = []
_old_handlers = {}


def _on_signal(signum, frame):
    # Turn SIGTERM/SIGHUP into an exception, so that with-blocks and finally
    # clauses run; SIGINT already raises KeyboardInterrupt.
    raise SystemExit(128 + signum)


def _at_exit():
    for lab in list(_guarded):
        try:
            lab.teardown()
        except Exception as e:   # at exit, report and go on with the others
            log(f"teardown of lab {lab.id} at exit failed: {e}")


def guard(lab):
    if not _guarded:
        atexit.register(_at_exit)
        for sig in (signal.SIGTERM, signal.SIGHUP):
            try:
                _old_handlers[sig] = signal.signal(sig, _on_signal)
            except ValueError:
                pass   # not the main thread: atexit still covers a normal exit
    _guarded.append(lab)


def unguard(lab):
    if lab in _guarded:
        _guarded.remove(lab)


def lab_namespaces(lab_id):
    prefix = f"{util.PREFIX}{lab_id}-"
    return [ns for ns in util.list_netns() if ns.startswith(prefix)]


def remove_netns(names):
    """Kills every process in the namespaces, then deletes them (which takes
    their veths and bridges along)."""
    for ns in names:
        for pid in util.netns_pids(ns):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
    if names:
        util.ip_batch([f"netns del {ns}" for ns in names], check=False)
        for ns in names:           # a batch stops at its first failure
            if os.path.exists(os.path.join(util.NETNS_DIR, ns)):
                util.run(["ip", "netns", "del", ns], check=False)


def _umount_under(path):
    """Unmounts anything left mounted below the lab's directory in our own
    mount namespace (the sandboxes mount only in their own)."""
    try:
        with open("/proc/self/mountinfo") as f:
            points = [line.split()[4] for line in f]
    except OSError:
        return
    for mp in sorted((p for p in points if p.startswith(path + "/")), key=len, reverse=True):
        subprocess.run(["umount", "-l", mp], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def remove_lab(lab_id):
    d = os.path.join(util.BASE_DIR, lab_id)
    state = util.json_load(os.path.join(d, "state.json"), {}) or {}
    for key, (pid, start, _what) in (state.get("procs") or {}).items():
        util.kill_tree(pid, start, grace=1.0)
    remove_netns(lab_namespaces(lab_id))
    _umount_under(d)
    shutil.rmtree(d, ignore_errors=True)


def lab_ids():
    ids = set()
    try:
        ids.update(os.listdir(util.BASE_DIR))
    except FileNotFoundError:
        pass
    for ns in util.list_netns():
        if ns.startswith(util.PREFIX):
            ids.add(ns[len(util.PREFIX):].split("-", 1)[0])
    return sorted(ids)


def owner_alive(lab_id):
    state = util.json_load(os.path.join(util.BASE_DIR, lab_id, "state.json"))
    if state is None:
        return None             # unknown: state not written (yet, or lost)
    if not state.get("owner_pid"):
        return True             # detached lab: only "down" or "cleanup --all" remove it
    return util.pid_alive(state["owner_pid"], state.get("owner_start"))


def sweep_dead(everything=False):
    """Removes labs whose owner process is gone (all labs with everything=True).
    A lab whose state file is missing is removed only with everything=True,
    since a lab being born writes its state before it makes a namespace."""
    removed = []
    for lab_id in lab_ids():
        alive = owner_alive(lab_id)
        if everything or alive is False or (alive is None and _orphan_namespaces_only(lab_id)):
            remove_lab(lab_id)
            removed.append(lab_id)
    if removed:
        log(f"removed lab(s): {', '.join(removed)}")
    return removed


def _orphan_namespaces_only(lab_id):
    # namespaces without a state directory: the directory is created first,
    # so these belong to a lab whose files were already removed
    return not os.path.isdir(os.path.join(util.BASE_DIR, lab_id))
