"""Default UCI packages of a lab run: a plausible home router whose settings
match the lab's LAN (addresses, bridge members, radios)."""


def _sec(kind, name=None, **opts):
    head = f"config {kind}" + (f" '{name}'" if name else "")
    lines = [head] + [f"\toption {k} '{v}'" for k, v in opts.items() if v is not None]
    return "\n".join(lines) + "\n"


def _pkg(*sections):
    return "\n".join(sections)


def _wired_ports(lab):
    return [p.name for n, p in lab.ports.items() if not n.startswith("@") and not p.radio
            and p.bridge == "br-lan"]


def _radios(lab):
    return [p.name for n, p in lab.ports.items() if not n.startswith("@") and p.radio]


def packages(lab, mode=None):
    """{package: text} for /etc/config, plus "profile" for /etc/profile.d."""
    mode = mode or ("router" if lab.mode == "router" else "ap")
    router = mode == "router"
    # The daemon keeps 8 LAN members: name at most that many wired ports.
    lan_members = " ".join(_wired_ports(lab)[:8]) or "eth0"
    pk = {}
    pk["network"] = _pkg(
        _sec("interface", "loopback", ifname="lo", proto="static", ipaddr="127.0.0.1",
             netmask="255.0.0.0"),
        _sec("globals", "globals", ula_prefix=f"{lab.ula}::/48"),
        _sec("interface", "lan", type="bridge", ifname=lan_members,
             proto="static" if router else "dhcp", ipaddr=lab.router_ip,
             netmask="255.255.255.0", ip6assign="60",
             gateway=None if router else f"{lab.subnet}.1"),
        _sec("interface", "wan", ifname="eth1", proto="dhcp", wan_type="dhcp"),
    )
    pk["dhcp"] = _pkg(
        _sec("dnsmasq", None, domainneeded="1", localise_queries="1", local="/lan/",
             domain="lan", authoritative="1", leasefile="/tmp/dhcp.leases",
             resolvfile="/tmp/resolv.conf.auto"),
        _sec("dhcp", "lan", interface="lan", start=str(lab.dhcp_range[0]),
             limit=str(lab.dhcp_range[1] - lab.dhcp_range[0] + 1), leasetime="12h",
             ignore=None if router else "1"),
        _sec("dhcp", "wan", interface="wan", ignore="1"),
    )
    radios = _radios(lab) or ["wl0", "wl1"]
    wireless = [_sec("wifi-device", "wifi0", type="broadcom", band="2g", channel="auto"),
                _sec("wifi-device", "wifi1", type="broadcom", band="5g", channel="auto")]
    for i, r in enumerate(radios):
        wireless.append(_sec("wifi-iface", r.replace(".", "_"), device=f"wifi{i % 2}",
                             ifname=r, network="lan", mode="ap", ssid="HomeNet",
                             encryption="psk2", enable="on"))
    pk["wireless"] = _pkg(*wireless)
    pk["weavelink"] = _pkg(_sec("weavelink", "global", enable="off", role="controller"))
    pk["sysmode"] = _pkg(_sec("sysmode", "sysmode", mode=mode))
    pk["access_control"] = _pkg(_sec("settings", "settings", enable="off", access_mode="black"))
    pk["meshd"] = _pkg(_sec("meshd", "meshd", enable="off",
                            role="controller" if router else "agent"))
    pk["qos_v2"] = _pkg(_sec("settings", "settings", enable="off"))
    pk["tfstats"] = _pkg(_sec("switch", "switch", enable="off", workaround="off"))
    pk["fing"] = _pkg(_sec("setting", "setting", pp_state="no"),
                      _sec("state", "global", mac_num="0"))
    pk["history_list"] = ""
    pk["client_speed_limit"] = _pkg(_sec("settings", "settings", enable="on"))
    pk["parental_control_v2"] = _pkg(_sec("settings", "settings", enable="off"))
    pk["lanroster"] = _pkg(_sec("settings", "settings", log_level="2"))
    pk["switch"] = _pkg(_sec("switch", "switch", enable="on"),
                        _sec("gaming", "gaming", switch_port="port4"),
                        _sec("port", "port4", ifname="lan4"))
    pk["smart_home"] = _pkg(_sec("info", "info", enable="1"))
    pk["profile"] = _pkg(
        _sec("isHighBandwidthOccupancy", None, isHighBandwidthOccupancy="no"),
        _sec("client_speed_limit", None, support="yes"),
        _sec("qos", None, qos_schedule_support="yes"),
        _sec("weavelink", None, easymesh_support="no", weavelink_support="no"),
        _sec("wireless", None, support_mlo_host="no", wireless_iot_ifname_2g="wl2",
             wireless_iot_ifname_5g="wl3"),
        _sec("qos_v2", None, gaming_lan_support="no"),
    )
    return pk


# A port of every interface class, and the wireless, weavelink and profile
# packages that give it: {port: (wire_type on the bus, guest on the bus,
# wire_type number, guest number)}. "wlmc0" is the mesh configuration
# interface, which the client list never shows.
CLASS_PORTS = {
    "lan1": ("wired", "NON_GUEST", 10, 2),
    "wl0": ("2.4G", "NON_GUEST", 1, 2),
    "wl1": ("5G", "NON_GUEST", 2, 2),
    "wl2": ("5G_2", "NON_GUEST", 3, 2),
    "wl3": ("6G", "NON_GUEST", 4, 2),
    "wl4": ("mlo", "NON_GUEST", 5, 2),
    "wl5": ("2.4G", "GUEST", 1, 1),
    "ath0": ("iot_2.4G", "NON_GUEST", 6, 2),
    "ath1": ("iot_5G", "NON_GUEST", 7, 2),
    "ath2": ("iot_5G_2", "NON_GUEST", 8, 2),
    "wl6": ("wired", "NON_GUEST", 11, 2),
    "wlm0": ("2.4G", "GUEST", 1, 1),
    "wlmc0": (None, None, 9, 2),
}


def class_packages():
    """The packages of CLASS_PORTS: radios by band (2.4, 5, 5_2 and 6 GHz
    and one the daemon does not know), a guest interface, IoT interfaces,
    an MLO host, and in weavelink a mesh backhaul and the configuration
    interface."""
    iface = dict(network="lan", mode="ap", ssid="HomeNet", encryption="psk2", enable="on")
    wireless = _pkg(
        _sec("wifi-device", "radio0", band="2g"),
        _sec("wifi-device", "radio1", band="5g"),
        _sec("wifi-device", "radio2", band="5g_2"),
        _sec("wifi-device", "radio3", band="6g"),
        _sec("wifi-device", "radio4", band="60g"),
        _sec("wifi-iface", "main2g", device="radio0", ifname="wl0", **iface),
        _sec("wifi-iface", "main5g", device="radio1", ifname="wl1", **iface),
        _sec("wifi-iface", "main5g2", device="radio2", ifname="wl2", **iface),
        _sec("wifi-iface", "main6g", device="radio3", ifname="wl3", **iface),
        _sec("wifi-iface", "mlo", device="radio1", ifname="wl4", mlo_host="on", **iface),
        _sec("wifi-iface", "guest2g", device="radio0", ifname="wl5", guest="1", **iface),
        _sec("wifi-iface", "iot2g", device="radio0", ifname="ath0", iot="1", **iface),
        _sec("wifi-iface", "iot5g", device="radio1", ifname="ath1", iot="1", **iface),
        _sec("wifi-iface", "iot5g2", device="radio2", ifname="ath2", iot="1", **iface),
        _sec("wifi-iface", "odd", device="radio4", ifname="wl6", **iface),
    )
    weavelink = _pkg(
        _sec("weavelink", "global", enable="on", role="controller"),
        _sec("wifi-iface", "bh2g", ifname="wlm0", guest="1"),
        _sec("wifi-iface", "config2g", ifname="wlmc0"),
    )
    profile = _pkg(
        _sec("wireless", None, support_mlo_host="no", wireless_iot_ifname_2g="ath0",
             wireless_iot_ifname_5g="ath1", wireless_iot_ifname_5g_2="ath2",
             wireless_mesh_ifname_2g="bh2g", wireless_mesh_config_2g="wlmc0"),
    )
    return {"wireless": wireless, "weavelink": weavelink, "profile": profile}
