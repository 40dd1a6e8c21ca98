"""Mesh peers in the lab: a second node's client list, sent to the daemon
the way meshd sends it (the bus event "lanroster.meshd_client_update"), and
the clients that the daemon then lists under another node's MAC.

    from lanlab import mesh
    mesh.send_update(sb, "02-4D-00-00-00-0A", [mesh.client("02:4d:00:00:10:01")])
    rows = mesh.peer_rows(sb)
"""
import json

from .util import LabError

# The second node of the demo and its two clients.
DEMO_PEER = "02-4D-00-00-00-0A"
DEMO_PEER_ID = "NODE-UPSTAIRS"


def client(mac, ip="192.168.1.180", name="", guest="MAIN", connection_type=2, client_type=0,
           signal=-55, rxrate=866, txrate=650):
    """One entry of a peer's list; connection_type 1 2.4 GHz, 2 5 GHz, 8 wired."""
    return {"mac": mac, "ip": ip, "name": name, "guest": guest, "connection_type": connection_type,
            "client_type": client_type, "signal_strength": signal, "rxrate": rxrate, "txrate": txrate}


def demo_clients():
    return [client("02:4d:00:00:10:01", ip="192.168.1.181", name="upstairs-laptop"),
            client("02:4d:00:00:10:02", ip="192.168.1.182", name="upstairs-speaker", connection_type=1,
                   client_type=3)]


def send_update(sb, device_mac, clients, device_id=DEMO_PEER_ID):
    """A peer's complete list, sent with the ubus tool on the sandbox's bus."""
    msg = {"device_mac": device_mac, "device_id": device_id, "client_num": len(clients),
           "mesh_client_list": clients}
    res = sb.ubus("send", "lanroster.meshd_client_update", json.dumps(msg))
    if res.returncode != 0:
        raise LabError(f"ubus send lanroster.meshd_client_update: {res.returncode} {res.stderr.strip()}")


def peer_rows(sb, clients=None):
    """(MAC, name, IP, band, node MAC, node id, status) of each client that
    another node holds, from get_hist_list_new."""
    rows = []
    for c in clients if clients is not None else sb.hist_list():
        if c.get("mesh_agent") != 1:
            continue
        rows.append((c.get("mac", ""), c.get("hostname", ""), c.get("ip", ""), c.get("wire_type", ""),
                     c.get("connect_device_mac", ""), c.get("connect_device_id", ""),
                     "online" if c.get("connect_status") else "offline"))
    return rows


PEER_HEADERS = ["MAC", "name", "IP", "port or band", "node MAC", "node id", "status"]
