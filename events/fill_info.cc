// Fill-in of a record put online by an event: DHCP data and port class.
#include "events/fill_info.h"

#include <arpa/inet.h>

#include <cstring>

#include "core/locks.h"
#include "core/log.h"
#include "core/text.h"
#include "db/system_info.h"
#include "scan/lease.h"
#include "scan/topology.h"

namespace
{

// Bytes outside printable ASCII become "^", so that a name can go to the
// console, the store and the bus as it is.
void clean_hostname(char *name) noexcept
{
    for (char *c = name; *c; c++) {
        auto b = static_cast<unsigned char>(*c);
        if (b < 0x20 || b > 0x7e)
            *c = '^';
    }
}

uint32_t parse_ipv4(const char *text) noexcept
{
    in_addr addr{};
    return inet_pton(AF_INET, text, &addr) == 1 ? addr.s_addr : 0;
}

// The row of `name` in the port table, added when it is new and there is
// room; -1 when the table is full. wlan_lock keeps the appends of the radio
// member reader and ours apart.
int port_row_for(const char *name) noexcept
{
    mutex_guard hold(wlan_lock);
    int rows = port_count < PORT_INFO_ROWS ? port_count : PORT_INFO_ROWS;
    for (int i = 0; i < rows; i++) {
        const port_info &row = port_info_table[i];
        LR_LOG(7, "port(%d) info:ifname:%s, wired:%d, guest:%d", i, row.ifname, row.wire_type, row.guest);
        if (std::strncmp(row.ifname, name, sizeof(row.ifname)) == 0)
            return i;
    }
    if (rows >= PORT_INFO_ROWS)
        return -1;
    LR_LOG(7, "[lr] create active_port info");
    return add_port_row(name);
}

void fill_default_wired(client_node *node, const assoc_event &event) noexcept
{
    node->wire_type = WIRE_WIRED;
    node->guest = GUEST_NO;
    copy_str(node->ifname, event.ifname, 15);
}

} // namespace

void fill_dhcp_info(client_node *node, assoc_event event) noexcept
{
    (void)event;
    LR_LOG(7, "[lr] fill_dhcp_info");
    if (system_info.sys_mode == SYS_MODE_ROUTER) {
        lease_row lease{};
        if (!find_lease_by_mac(&lease, node->mac))
            return;
        lease.ip[sizeof(lease.ip) - 1] = '\0';
        node->ip = parse_ipv4(lease.ip);
        if (node->type_source > TYPE_SOURCE_DHCP) {
            node->type_source = TYPE_SOURCE_DHCP;
            node->device_type = lease.type;
        }
        lease.hostname[sizeof(lease.hostname) - 1] = '\0';
        copy_str(node->hostname, lease.hostname);
    } else {
        LR_LOG(7, "[lr] fill from dhcp_hook");
        hook_client hook{};
        if (!hook_lookup(&hook, node->mac))
            return;
        hook.ipaddr[sizeof(hook.ipaddr) - 1] = '\0';
        node->ip = parse_ipv4(hook.ipaddr);
        hook.name[sizeof(hook.name) - 1] = '\0';
        copy_str(node->hostname, hook.name);
    }
    clean_hostname(node->hostname);
}

void fill_ifinfo(client_node *node, assoc_event event) noexcept
{
    if (event.active_port != 1) {
        LR_LOG(7, "default fill wired ifinfo");
        fill_default_wired(node, event);
        return;
    }
    event.ifname[sizeof(event.ifname) - 1] = '\0';
    int index = 0;
    if (event.ifname[0] != '\0')
        index = port_row_for(event.ifname);
    // A full table that lacks the name: the wired defaults will do.
    if (index < 0 || index >= PORT_INFO_ROWS || (index == 0 && port_count == 0)) {
        fill_default_wired(node, event);
        return;
    }
    node->wire_type = port_info_table[index].wire_type;
    node->guest = port_info_table[index].guest;
    copy_str(node->ifname, event.ifname, 15);
    LR_LOG(6, "fill node %02x-%02x by active port %s, wired=%d, guest=%d", node->mac[4], node->mac[5],
           event.ifname, node->wire_type, node->guest);
}

void fill_info(client_node *node, const assoc_event &event) noexcept
{
    fill_dhcp_info(node, event);
    fill_ifinfo(node, event);
    char ip[INET_ADDRSTRLEN] = "";
    in_addr addr{node->ip};
    inet_ntop(AF_INET, &addr, ip, sizeof(ip));
    LR_LOG(6,
           "fill node %02x-%02x info by port %s & dhcp, ip=%s, wired=%d, guest=%d, hostname=%s, dev_type=%d",
           node->mac[4], node->mac[5], event.ifname, ip, node->wire_type, node->guest, node->hostname,
           node->device_type);
}
