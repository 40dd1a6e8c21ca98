// Wireless stations of this node's radios, with their signal and rates.
#pragma once

#include <cstdint>

struct wireless_station {
    uint8_t mac[6]; // for an MLO station the MLD address
    int8_t signal;
    uint32_t rxrate;
    uint32_t txrate;
    uint32_t mlo_rx_rate_2G;
    uint32_t mlo_tx_rate_2G;
    uint32_t mlo_rx_rate_5G;
    uint32_t mlo_tx_rate_5G;
    uint32_t mlo_rx_rate_6G;
    uint32_t mlo_tx_rate_6G;
    uint8_t mlo_valid_2G;
    uint8_t mlo_valid_5G;
    uint8_t mlo_valid_6G;
};

// 0 with a fresh array the caller frees, or -1 with nothing delivered.
int get_wireless_info(wireless_station **rows, int *count) noexcept;

// Diagnostic print of one station element of the iwinfo backend, at level
// 7; not on the data path.
struct iwinfo_assoclist_entry;
void print_assoc_entry(const iwinfo_assoclist_entry *element) noexcept;
