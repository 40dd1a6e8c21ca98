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
