// Diagnostic tasks of the bus events; they run on a pool worker.
#include "bus/event_tasks.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdlib>
#include <iterator>

#include "core/log.h"
#include "core/openwrt.h"
#include "registry/client_node.h"
#include "registry/rwlock_guard.h"
#include "scan/lan_info.h"
#include "scan/topology.h"

namespace
{

enum { PRINT_CLIENT_ONLINE, PRINT_CLIENT_ATTR_MAX };
const blobmsg_policy print_client_policy[] = {
    /* PRINT_CLIENT_ONLINE */ {.name = "online", .type = BLOBMSG_TYPE_INT32},
};
static_assert(std::size(print_client_policy) == PRINT_CLIENT_ATTR_MAX);

bool offline_status(uint8_t status) noexcept
{
    return status == STATUS_DISCONNECT || status == STATUS_EVENT_OFFLINE;
}

void log_client(const client_node *node) noexcept
{
    char ip[INET_ADDRSTRLEN] = "";
    in_addr addr{node->ip};
    inet_ntop(AF_INET, &addr, ip, sizeof(ip));
    LR_LOG(6, "MAC : %02X-%02X IP : %s status : %d", node->mac[4], node->mac[5], ip, node->status);
}

} // namespace

void print_lan_info(void *message) noexcept
{
    // The message says nothing this report needs.
    std::free(message);
    LR_LOG(6, "lan info, ip : %s, mask : %d, ifnum : %d, gateway : %02X-%02X(port %d)", lan_info.ip,
           lan_info.prefix_len, lan_info.ifnum, lan_info.gateway_mac[4], lan_info.gateway_mac[5],
           lan_info.gateway_port);
    int ifnum = lan_info.ifnum < LAN_IF_ROWS ? lan_info.ifnum : LAN_IF_ROWS;
    for (int i = 0; i < ifnum; ++i)
        LR_LOG(6, "lan ifname:%s, idx:%d", lan_info.ifname[i], lan_info.ifindex[i]);
    int ports = port_count < PORT_INFO_ROWS ? port_count : PORT_INFO_ROWS;
    for (int i = 0; i < ports; ++i)
        LR_LOG(6, "port(%d) info:ifname:%s, wired:%d, guest:%d", i, port_info_table[i].ifname,
               port_info_table[i].wire_type, port_info_table[i].guest);
}

void print_client(void *message) noexcept
{
    LR_LOG(7, "[lr] print_client");
    auto *msg = static_cast<blob_attr *>(message);
    {
        rwlock_read_guard hold(history_list_lock);
        blob_attr *tb[PRINT_CLIENT_ATTR_MAX] = {};
        if (msg)
            blobmsg_parse(print_client_policy, PRINT_CLIENT_ATTR_MAX, tb, blob_data(msg), blob_len(msg));
        int32_t online =
            tb[PRINT_CLIENT_ONLINE] ? static_cast<int32_t>(blobmsg_get_u32(tb[PRINT_CLIENT_ONLINE])) : -1;
        LR_LOG(7, "online_type = %d", online);
        const client_node *node = get_history_list();
        if (online == 0) {
            while (node && !offline_status(node->status))
                node = node->next;
        }
        for (; node; node = node->next) {
            if (online == 1 && offline_status(node->status))
                break;
            log_client(node);
        }
    }
    std::free(message);
}
