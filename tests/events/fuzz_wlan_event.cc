// Driver datagrams of 0 to 2,000 bytes into the Broadcom parse: short
// ones, names without a NUL, every event type. Each input is a heap copy
// of exactly its size, so a read past it is caught by the address
// sanitizer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "events/assoc.h"
#include "events/nl_intake.h"
#include "events/wlan_bcm.h"
#include "scan/topology.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 2000)
        return 0;
    // "wl0" and "wl1" are the radios of the LAN, so the type and MAC are read.
    lan_wlanif_num = 2;
    std::memset(lan_wlanif, 0, sizeof(lan_wlanif));
    std::strcpy(lan_wlanif[0], "wl0");
    std::strcpy(lan_wlanif[1], "wl1");
    // libFuzzer's own buffer is a heap block of exactly `size` bytes.
    assoc_event event;
    if (bcm_event_parse(data, size, &event)) {
        if (event.remove > 1 || event.active_port != 1 || event.ip != 0 ||
            strnlen(event.ifname, sizeof(event.ifname)) == sizeof(event.ifname))
            abort();
    }

    // The task's way with the copy, with no radio in the LAN so that the
    // live list is not touched: it frees the copy whatever it holds.
    lan_wlanif_num = 0;
    auto *msg = static_cast<nl_event_msg *>(calloc(1, sizeof(nl_event_msg)));
    msg->buf = static_cast<uint8_t *>(malloc(size ? size : 1));
    if (size)
        std::memcpy(msg->buf, data, size);
    msg->len = static_cast<int32_t>(size);
    wlan_event_handle_bcm(msg);
    return 0;
}
