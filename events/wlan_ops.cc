// The dispatchers of the radio driver table.
#include "events/wlan_ops.h"

#include "events/wlan_bcm.h"

const wlan_ops *wlan_adapter = &wlan_ops_bcm;

int wlan_aware_init(nl_event_socket *rec, uloop_fd_handler cb) noexcept
{
    if (!wlan_adapter || !wlan_adapter->wlan_aware_init)
        return 0;
    return wlan_adapter->wlan_aware_init(rec, cb);
}

int enable_assoc_event(const char ifname[16]) noexcept
{
    if (!wlan_adapter || !wlan_adapter->enable_assoc_event)
        return 0;
    return wlan_adapter->enable_assoc_event(ifname);
}

int wlan_event_handle(nl_event_msg *msg) noexcept
{
    if (!wlan_adapter || !wlan_adapter->wlan_event_handle) {
        nl_event_msg_free(msg);
        return 0;
    }
    return wlan_adapter->wlan_event_handle(msg);
}

void wlan_event_task(void *msg) noexcept
{
    (void)wlan_event_handle(static_cast<nl_event_msg *>(msg));
}
