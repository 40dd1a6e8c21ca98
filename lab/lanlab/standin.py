#!/usr/bin/python3
"""Recording stand-in for the platform commands the daemon runs. One script,
installed under each command's name; what it does depends on that name.

Every call appends one JSON line to $LANROSTER_LAB_RUN/calls.jsonl with the
command, its arguments, its standard input and the files it was handed.
Answers come from $LANROSTER_LAB_RUN/standin.json, which tests may change:
  {"boardprobe": {"MAC": "...", "DEV_ID": "..."}, "online_test_exit": 0,
   "fing_reply": {...} or null, "exit": {"lua": 0, ...}}
"fing_replies": [...] answers the n-th call of fing_device_recognize with its
n-th element (null: no reply file), and "fing_reply" once the list is used up.
A boardprobe answer may also be {"flood": n}: n bytes of "x" and no line
end; and "boardprobe_hang": true makes it sleep after answering, holding
its output open, until it is killed."""
import fcntl
import json
import os
import select
import sys
import time

FING_REQUEST = "/tmp/cloud/cloud_report_fing"
FING_REPLY = "/tmp/fing/update_fing_type"


def read_text(path, limit=1 << 20):
    try:
        with open(path, "rb") as f:
            return f.read(limit).decode("utf-8", "replace")
    except OSError:
        return None


def count_calls(path, name):
    try:
        with open(path) as f:
            return sum(1 for line in f if json.loads(line).get("cmd") == name)
    except (OSError, ValueError):
        return 0


def read_stdin():
    try:
        if os.isatty(0):
            return ""
        ready, _, _ = select.select([0], [], [], 0)
        return os.read(0, 1 << 16).decode("utf-8", "replace") if ready else ""
    except (OSError, ValueError):
        return ""


def main():
    name = os.path.basename(sys.argv[0])
    run_dir = os.environ.get("LANROSTER_LAB_RUN", "")
    conf = {}
    if run_dir:
        try:
            with open(os.path.join(run_dir, "standin.json")) as f:
                conf = json.load(f)
        except (OSError, ValueError):
            conf = {}
    args = sys.argv[1:]
    record = {"cmd": name, "argv": args, "time": time.time(), "stdin": read_stdin(), "files": {}}
    status = int(conf.get("exit", {}).get(name, 0))
    out = ""
    hang = False
    if name == "boardprobe":
        value = conf.get("boardprobe", {}).get(args[0] if args else "", None)
        hang = bool(conf.get("boardprobe_hang"))
        if value is None:
            status = 1
        elif isinstance(value, dict):
            out = "x" * int(value.get("flood", 0))
        else:
            out = value + "\n"
    elif name == "online-test":
        status = int(conf.get("online_test_exit", 0))
    elif name in ("smart_home_report", "new_client_access_report"):
        # the consumer of the notification file: keep its content, then empty it
        if args:
            record["files"][args[0]] = read_text(args[0])
            try:
                open(args[0], "w").close()
            except OSError:
                pass
    elif name == "fing_device_recognize":
        record["files"][FING_REQUEST] = read_text(FING_REQUEST)
        reply = conf.get("fing_reply")
        replies = conf.get("fing_replies")
        if isinstance(replies, list) and run_dir:
            earlier = count_calls(os.path.join(run_dir, "calls.jsonl"), name)
            if earlier < len(replies):
                reply = replies[earlier]
        if reply is not None:
            os.makedirs(os.path.dirname(FING_REPLY), exist_ok=True)
            with open(FING_REPLY, "w") as f:
                f.write(reply if isinstance(reply, str) else json.dumps(reply))
    record["exit"] = status
    if run_dir:
        line = json.dumps(record) + "\n"
        fd = os.open(os.path.join(run_dir, "calls.jsonl"), os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
        try:
            fcntl.flock(fd, fcntl.LOCK_EX)
            os.write(fd, line.encode())
        finally:
            os.close(fd)
    try:
        sys.stdout.write(out)
        sys.stdout.flush()
    except BrokenPipeError:
        return 141
    if hang:
        time.sleep(3600)
    return status


if __name__ == "__main__":
    sys.exit(main())
