"""The LAN roster as the daemon tells it over the bus: one row per client of
"lanroster get_hist_list_new", with the vendor from "mac_oui req".

    from lanlab.roster import print_roster
    print_roster(sandbox)            # prints the table
    rows = roster_rows(sandbox)      # or just the rows
"""
import time

HEADERS = ["name", "MAC", "vendor", "IP", "port or band", "online since", "status"]

ALL_SECTIONS = {"online_type": 2, "v6": 1, "access_limit": 1, "speed_limit": 1, "qos": 1,
                "tfstats": 1, "wireless": 1, "qos_schedule": 1, "high_bandwidth_occupancy": 1,
                "lanroster_file": 0}


def vendor_of(sb, mac):
    try:
        r = sb.ubus_call("mac_oui", "req", {"mac": mac}) or {}
    except Exception:  # noqa: BLE001 - a missing vendor is shown as "-"
        return "-"
    return r.get("vendor") or "-"


BANDS = {"2.4G": "2.4 GHz", "5G": "5 GHz", "5G_2": "second 5 GHz", "6G": "6 GHz", "mlo": "MLO",
         "iot_2.4G": "IoT 2.4 GHz", "iot_5G": "IoT 5 GHz", "iot_5G_2": "IoT second 5 GHz"}


def port_or_band(c):
    """"lan2" for a wired client, "5 GHz" or "guest 2.4 GHz" for a radio."""
    kind = c.get("wire_type", "")
    if kind == "offline":
        return "-"
    if kind == "wired":
        return c.get("ifname") or "wired"
    band = BANDS.get(kind, kind)
    return f"guest {band}" if c.get("guest") == "GUEST" else band


def online_since(c):
    if not c.get("connect_status") or not c.get("access_time"):
        return "-"
    return time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(c["access_time"]))


def address(c):
    """The IPv4 address; for a client seen through IPv6 only, its first IPv6
    address."""
    ip = c.get("ip", "")
    if ip and ip != "0.0.0.0":
        return ip
    for key in ("ip6_global1", "ip6_local"):
        if c.get(key, "::") != "::":
            return c[key]
    return ip


def roster_rows(sb):
    clients = (sb.ubus_call("lanroster", "get_hist_list_new", ALL_SECTIONS) or {}).get("client_list", [])
    rows = []
    for c in clients:
        rows.append((c.get("hostname") or "-", c.get("mac", ""), vendor_of(sb, c.get("mac", "")),
                     address(c), port_or_band(c), online_since(c),
                     "online" if c.get("connect_status") else "offline"))
    return rows


def format_table(rows, headers=HEADERS):
    widths = [max(len(str(x)) for x in col) for col in zip(headers, *rows)]
    fmt = "  ".join(f"{{:<{w}}}" for w in widths)
    lines = [fmt.format(*headers), fmt.format(*("-" * w for w in widths))]
    lines += [fmt.format(*(str(x) for x in r)) for r in rows]
    return "\n".join(lines)


def print_roster(sb, say=print):
    say(format_table(roster_rows(sb)))
