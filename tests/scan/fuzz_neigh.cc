// Netlink neighbour datagrams as the kernel might send them: the datagram
// check, the walker, the gateway lookup and the IPv4 classification of the
// scan pass must take any bytes without reading out of bounds.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "scan/client_table.h"
#include "scan/lan_info.h"
#include "scan/neigh.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::span<const uint8_t> buf(data, size);
    check_neigh_datagram(buf);
    neigh_walker walk(buf);
    neigh_msg m;
    while (walk.next(m)) {
        volatile uint8_t sink = 0;
        for (uint8_t b : m.dst)
            sink = sink ^ b;
        for (uint8_t b : m.lladdr)
            sink = sink ^ b;
    }
    uint8_t mac[6];
    find_neigh_mac(buf, "192.168.1.1", mac);

    std::strcpy(lan_info.ip, "192.168.1.1");
    lan_info.prefix_len = 24;
    classify_ipv4_locked(buf);
    free_client_table_locked();
    free_arp_probes_locked();
    return 0;
}
