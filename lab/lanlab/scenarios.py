"""Ready-made LANs: the varied home network of the demo, and the scale LAN."""
import time

from .util import log

# A family home: wired ports behind a switch, two radios, one device on a
# port of its own, named and nameless devices, one IPv6-only sensor and one
# plug that never speaks first.
HOME_PORTS = ["lan1", "lan2", "wl0", "wl1", "wl2"]
HOME_CLIENTS = [
    dict(name="laptop", port="wl1", mac="3c:22:fb:10:20:01", hostname="alice-laptop",
         mdns="alice-laptop"),
    dict(name="phone", port="wl1", mac="3c:22:fb:10:20:02", hostname="bobs-phone"),
    dict(name="tv", port="lan1", mac="a8:23:fe:10:20:03", hostname="living-room-tv",
         mdns="living-room-tv", netbios="LIVINGROOMTV"),
    dict(name="nas", port="lan1", mac="00:11:32:10:20:04", dhcp=False, ip="192.168.1.20",
         netbios="NAS", workgroup="HOME", mdns="nas"),
    dict(name="printer", port="lan2", mac="00:1b:a9:10:20:05"),
    dict(name="camera", port="wl0", mac="02:4c:52:10:20:06"),
    dict(name="thermostat", port="wl0", mac="02:4c:52:10:20:07", hostname="thermostat"),
    dict(name="desktop", port="lan2", mac="02:4c:52:10:20:08", hostname="desktop-pc",
         netbios="DESKTOP-PC"),
    dict(name="sensor6", port="wl0", mac="02:4c:52:10:20:09", ipv4=False),
    dict(name="plug", port="wl0", mac="02:4c:52:10:20:0a", dhcp=False, ip="192.168.1.30",
         silent=True),
    dict(name="console", mac="02:4c:52:10:20:0b", hostname="game-console"),
    dict(name="tablet", port="wl1", mac="02:4c:52:10:20:0c", hostname="kids-tablet"),
]
HOME_JOINER = dict(name="guest-phone", port="wl2", mac="02:4c:52:10:20:0d",
                   hostname="guest-phone")


def home_packages():
    """The home's radios: wl0 on 2.4 GHz, wl1 on 5 GHz, wl2 the guest
    network on 2.4 GHz."""
    from .uci_defaults import _pkg, _sec
    iface = dict(network="lan", mode="ap", ssid="HomeNet", encryption="psk2", enable="on")
    return {"wireless": _pkg(
        _sec("wifi-device", "radio0", band="2g", channel="auto"),
        _sec("wifi-device", "radio1", band="5g", channel="auto"),
        _sec("wifi-iface", "home2g", device="radio0", ifname="wl0", **iface),
        _sec("wifi-iface", "home5g", device="radio1", ifname="wl1", **iface),
        _sec("wifi-iface", "guest2g", device="radio0", ifname="wl2", guest="1",
             **dict(iface, ssid="HomeNet-Guest")))}


def home(lab):
    for p in HOME_PORTS:
        lab.add_port(p)
    clients = lab.add_clients(HOME_CLIENTS)
    lab.poke([c for c in clients if c.silent])
    return clients


def scale(lab, count=250, ports=4, dhcp_share=0.5):
    """count clients spread over a few switch ports (a home router keeps at
    most 64 bridge ports), half of them on DHCP. Returns the seconds taken."""
    t0 = time.monotonic()
    names = [f"sw{i}" for i in range(1, ports + 1)]
    for p in names:
        lab.add_port(p)
    n_dhcp = int(count * dhcp_share)
    specs = []
    for i in range(count):
        spec = dict(name=f"h{i:03d}", port=names[i % ports])
        if i < n_dhcp:
            spec["hostname"] = f"host-{i:03d}"
        else:
            spec["dhcp"] = False
        specs.append(spec)
    lab.add_clients(specs)
    took = time.monotonic() - t0
    log(f"{count} clients up in {took:.1f} s")
    return took
