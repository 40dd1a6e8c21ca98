// The fields of an iwinfo station element that the station rows take,
// whatever the element's layout.
#pragma once

#include <cstdint>
#include <cstring>

// The fields of one station element that the table takes. The platform's
// element carries the link fields; an iwinfo whose element lacks them (the
// distribution's library) reads them as zero.
struct station_element {
    uint8_t mac[6];
    int8_t signal;
    uint32_t rxrate;
    uint32_t txrate;
    uint32_t link_rx[3];
    uint32_t link_tx[3];
    uint8_t link_valid[3];
    uint8_t mlo_addr[6];
};

template <typename E> inline station_element element_view(const E &e) noexcept
{
    station_element v{};
    std::memcpy(v.mac, e.mac, 6);
    v.signal = e.signal;
    v.rxrate = e.rx_rate.rate;
    v.txrate = e.tx_rate.rate;
    if constexpr (requires { e.mlo_addr; }) {
        v.link_rx[0] = e.mlo_rx_rate_2g.rate;
        v.link_tx[0] = e.mlo_tx_rate_2g.rate;
        v.link_rx[1] = e.mlo_rx_rate_5g.rate;
        v.link_tx[1] = e.mlo_tx_rate_5g.rate;
        v.link_rx[2] = e.mlo_rx_rate_6g.rate;
        v.link_tx[2] = e.mlo_tx_rate_6g.rate;
        v.link_valid[0] = e.mlo_valid_2g;
        v.link_valid[1] = e.mlo_valid_5g;
        v.link_valid[2] = e.mlo_valid_6g;
        std::memcpy(v.mlo_addr, e.mlo_addr, 6);
    }
    return v;
}
