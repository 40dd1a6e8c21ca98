// The Broadcom adapter: its loopback socket and the parse of its datagrams.
#include "events/wlan_bcm.h"

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/locks.h"
#include "core/log.h"
#include "scan/topology.h"

const wlan_ops wlan_ops_bcm = {
    .wlan_aware_init = wlan_aware_init_bcm,
    .enable_assoc_event = enable_assoc_event_bcm,
    .wlan_event_handle = wlan_event_handle_bcm,
};

namespace
{

void close_bcm(nl_event_socket *rec) noexcept
{
    close(rec->sock);
    rec->sock = -1;
}

// A radio outside "br-lan" (a guest network on its own bridge, a backhaul)
// has no clients of this LAN. The list is read under wlan_lock, which is
// let go before the event handler takes history_list_lock, so a rewrite by
// get_lan_wlanif is never seen half done.
bool is_lan_radio(const char *name) noexcept
{
    mutex_guard hold(wlan_lock);
    for (int i = 0; i < lan_wlanif_num && i < RADIO_LIST_ROWS; i++)
        if (std::strncmp(lan_wlanif[i], name, BCM_IFNAME_SIZE) == 0)
            return true;
    return false;
}

uint32_t read_be32(const uint8_t *p) noexcept
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

} // namespace

int wlan_aware_init_bcm(nl_event_socket *rec, uloop_fd_handler cb) noexcept
{
    rec->sock = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (rec->sock < 0) {
        LR_LOG(2, "[lr error]init bcm socket error");
        return -1;
    }
    if (fcntl(rec->sock, F_SETFD, FD_CLOEXEC) == -1) {
        LR_LOG(2, "[lr error]init bcm socket error");
        close_bcm(rec);
        return -1;
    }
    int on = 1;
    if (setsockopt(rec->sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
        LR_LOG(2, "[lr error]Unable to set bcm sock opt to loopback socket");
        close_bcm(rec);
        return -1;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(BCM_EVENT_PORT);
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(rec->sock, reinterpret_cast<sockaddr *>(&local), sizeof(local)) < 0) {
        LR_LOG(2, "[lr error]bind bcm nl socket error");
        close_bcm(rec);
        return -1;
    }
    LR_LOG(7, "finish init bcm nl socket, nl_fd = %d", rec->sock);
    rec->ufd.fd = rec->sock;
    rec->ufd.cb = cb;
    // Not non-blocking: the intake reads with MSG_DONTWAIT.
    if (uloop_fd_add(&rec->ufd, ULOOP_READ | ULOOP_ERROR_CB) != 0) {
        LR_LOG(2, "[lr error]uloop_fd_add error");
        close_bcm(rec);
        return -1;
    }
    return 0;
}

int enable_assoc_event_bcm(const char ifname[16]) noexcept
{
    (void)ifname;
    return 0;
}

int bcm_event_parse(const uint8_t *buf, size_t len, assoc_event *event) noexcept
{
    std::memset(event, 0, sizeof(*event));
    if (!buf || len < BCM_EVENT_MIN_SIZE) {
        LR_LOG(3, "[lr] bcm wlan event too short, len = %zu", len);
        return 0;
    }
    char name[BCM_IFNAME_SIZE + 1] = {};
    std::memcpy(name, buf + BCM_IFNAME_OFFSET, BCM_IFNAME_SIZE);
    LR_LOG(7, "bcm wlan event , ifname = %s", name);
    if (!is_lan_radio(name))
        return 0;
    uint32_t type = read_be32(buf + BCM_TYPE_OFFSET);
    LR_LOG(6, "bcm wlan event, ifname = %s, evt_type = %d", name, static_cast<int>(type));
    const uint8_t *mac = buf + BCM_MAC_OFFSET;
    switch (type) {
    case BCM_E_DEAUTH:
    case BCM_E_DEAUTH_IND:
    case BCM_E_DISASSOC_IND:
        event->remove = 1;
        LR_LOG(7, "[lr] Event_DisAssoc, ifname = %s, mac = %02X-%02X", name, mac[4], mac[5]);
        break;
    case BCM_E_ASSOC_IND:
    case BCM_E_REASSOC_IND:
        event->remove = 0;
        LR_LOG(7, "[lr] Event_Assoc, ifname = %s, mac = %02X-%02X", name, mac[4], mac[5]);
        break;
    default:
        return 0;
    }
    std::memcpy(event->mac, mac, sizeof(event->mac));
    event->active_port = 1;
    // A member name is shorter than 16 bytes, so the match above carried
    // its terminating NUL along.
    std::memcpy(event->ifname, name, sizeof(event->ifname));
    return 1;
}

int wlan_event_handle_bcm(nl_event_msg *msg) noexcept
{
    if (!msg)
        return 0;
    assoc_event event;
    size_t len = msg->len > 0 ? static_cast<size_t>(msg->len) : 0;
    if (bcm_event_parse(msg->buf, len, &event))
        (void)assco_event_handler(event);
    nl_event_msg_free(msg);
    return 0;
}
