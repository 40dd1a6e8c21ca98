#!/usr/bin/python3
"""Lab tests of the cloud recognition report through the production daemon
(lanroster) in the lab's router, with the recording stand-in of
"fing_device_recognize" (lab/lanlab/standin.py): it keeps the request file as
the command found it and writes the reply the test sets.

- With consent, new clients of a pass go out in one request: the device id
  cut at 40 characters, the clients' MACs, and no client text on any command
  line. The reply's type, brand and version reach the bus and `history_list`.
- Without consent nothing goes out, and the batch files stay.
- A reply that does not parse leaves the daemon running; the next pass runs.

State is read only once it has settled: each check waits for the recorded
call or for the bus to show the value.
"""
import json
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
SRC = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
sys.path.insert(0, os.path.join(SRC, "lab", "tests"))
import labtest  # noqa: E402  (puts lab/ on sys.path)
from labtest import wait_until  # noqa: E402
from lanlab import Lab  # noqa: E402

REQUEST = "/tmp/cloud/cloud_report_fing"
DEV_ID = "LAB0123456789ABCDEF0123456789ABCDEF01234"


def dashed(c):
    return c.mac.upper().replace(":", "-")


def fing_package(consent):
    return (f"config setting 'setting'\n\toption pp_state '{consent}'\n\n"
            "config state 'global'\n\toption mac_num '0'\n")


def start(lab, c, consent, reply):
    sb = lab.sandbox()
    if not sb.start_ubusd():
        c.check(False, "ubusd built")
        return None
    sb.write_packages({"fing": fing_package(consent)})
    sb.set_standin(fing_reply=reply, boardprobe={"MAC": lab.router_mac.upper().replace(":", "-"),
                                                 "DEV_ID": DEV_ID + "-TOO-LONG"})
    sb.start_daemon()
    sb.wait_bus_object("lanroster", 30)
    sb.hist_list()
    return sb


def element(client, kind, brand, version):
    return {"mac": dashed(client), "clientType": kind, "nextQueryInterval": 0, "brand": brand,
            "systemVersion": version}


def test_request_and_reply(c):
    with Lab() as lab:
        lab.add_port("lan1")
        cam, nas = lab.add_clients([dict(name="cam", port="lan1", dhcp=False),
                                    dict(name="nas", port="lan1", dhcp=False)])
        reply = {"code": 0, "result": {"clientList": [element(cam, "IP Camera", "Acme", "2.1"),
                                                      element(nas, "NAS", "", "7")]}}
        sb = start(lab, c, "yes", reply)
        if not sb:
            return
        calls = sb.wait_calls("fing_device_recognize", 1, timeout=40)
        c.check(calls, "the outside command ran")
        if not calls:
            return
        c.equal(calls[0]["argv"], [], "no argument: no client text on the command line")
        request = json.loads(calls[0]["files"].get(REQUEST) or "{}")
        c.equal(request.get("deviceId"), DEV_ID, "the device id cut at 40 characters")
        c.equal(sorted(x["mac"] for x in request.get("clientList", [])), sorted([dashed(cam), dashed(nas)]),
                "both new clients in one request")
        c.check(all("boardprobe" == x["cmd"] or dashed(cam) not in json.dumps(x["argv"]) for x in sb.calls()),
                "no command line carries a client's MAC")

        def shown():
            rows = {x["mac"]: x for x in sb.hist_list()}
            a, b = rows.get(dashed(cam), {}), rows.get(dashed(nas), {})
            return (a.get("brand"), a.get("sys_version"), a.get("device_type"), b.get("brand"), b.get("device_type"))
        # "NAS" is no name of the type table: its type stays as it was.
        want = ("Acme", "2.1", "IP Camera", "unknown", "Other")
        c.check(wait_until(lambda: shown() == want, 40), "type, brand and version on the bus; an unknown type name changes no type", f"{shown()}")
        hist = {o.get("mac"): o for _, o in sb.uci_sections("history_list")}
        row = hist.get(cam.mac.replace(":", "").upper(), {})
        c.equal((row.get("type"), row.get("brand"), row.get("systemVersion")), ("IP Camera", "Acme", "2.1"),
                "and in history_list")
        c.check(not os.path.exists(sb.path("/tmp/fing/update_fing_type")), "the reply file is removed")
        c.check(not os.path.exists(sb.path("/tmp/fing_report_mac1")), "the batch file is removed")


def test_no_consent_sends_nothing(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_clients([dict(name=f"q{i}", port="lan1", dhcp=False) for i in range(3)])
        sb = start(lab, c, "no", {"code": 0})
        if not sb:
            return
        r = sb.ubus("call", "lanroster", "update", "{}")
        c.equal(r.returncode, 0, "another compare pass")
        c.equal(sb.calls("fing_device_recognize"), [], "no consent: no request")
        c.equal(sb.calls("online-test"), [], "and not even the online test")
        c.check(os.path.exists(sb.path("/tmp/fing_report_mac1")), "the batch waits for the gate")


def test_malformed_reply_keeps_the_daemon(c):
    with Lab() as lab:
        lab.add_port("lan1")
        lab.add_client("first", port="lan1", dhcp=False)
        sb = start(lab, c, "yes", '{"code":0,"result":{"clientList":[{"mac":')
        if not sb:
            return
        c.check(sb.wait_calls("fing_device_recognize", 1, timeout=40), "the request went out")
        late = lab.add_client("late", port="lan1", dhcp=False)
        c.check(wait_until(lambda: any(x["mac"] == dashed(late) for x in sb.hist_list()), 60),
                "the next pass runs and lists the new client")
        c.equal(sb.wait(0), None, "the daemon still runs")
        c.check("QUERY FAIL" in sb.console(), "the failed query is on the console")


def test_refused_batch_is_retried_one_by_one(c):
    with Lab() as lab:
        lab.add_port("lan1")
        clients = lab.add_clients([dict(name=f"r{i}", port="lan1", dhcp=False) for i in range(3)])
        # The batch is refused, then the first two alone are answered and
        # the third is refused again.
        ok = {"code": 0, "result": {"clientList": []}}
        sb = lab.sandbox()
        if not sb.start_ubusd():
            c.check(False, "ubusd built")
            return
        sb.write_packages({"fing": fing_package("yes")})
        sb.set_standin(fing_replies=[{"code": -5002}, ok, ok, {"code": -5002}], fing_reply=None)
        sb.start_daemon()
        sb.wait_bus_object("lanroster", 30)
        calls = sb.wait_calls("fing_device_recognize", 4, timeout=40)
        c.equal(len(calls), 4, "one batch request and three single ones")
        if len(calls) < 4:
            return
        sizes = [len(json.loads(x["files"].get(REQUEST) or "{}").get("clientList", [])) for x in calls]
        c.equal(sizes, [3, 1, 1, 1], "the refused batch goes again one MAC a request")
        last = json.loads(calls[3]["files"][REQUEST])["clientList"][0]["mac"]
        hexmac = last.replace("-", "")
        r = sb.run(["uci", "-P", "/var/state", "get", f"fing.{hexmac}.params_error"])
        c.equal(r.stdout.strip(), "1", "the MAC refused alone is marked params_error")
        c.check(last in [dashed(x) for x in clients], "and it is one of the three")
        c.equal(sb.wait(0), None, "the daemon still runs")


labtest.main([test_request_and_reply, test_no_consent_sends_nothing, test_malformed_reply_keeps_the_daemon,
              test_refused_batch_is_retried_one_by_one])
