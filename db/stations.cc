// Radio figures of the stations of every radio member of the LAN bridge,
// one row per station; a multi-link station's links fold into the row of
// its MLD address when the system has MLO.
#include "db/stations.h"

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/locks.h"
#include "core/openwrt.h"
#include "db/station_element.h"
#include "db/system_info.h"
#include "scan/topology.h"

namespace
{

struct link_fields {
    uint32_t wireless_station::*rx;
    uint32_t wireless_station::*tx;
    uint8_t wireless_station::*valid;
};
constexpr link_fields links[3] = {
    {&wireless_station::mlo_rx_rate_2G, &wireless_station::mlo_tx_rate_2G, &wireless_station::mlo_valid_2G},
    {&wireless_station::mlo_rx_rate_5G, &wireless_station::mlo_tx_rate_5G, &wireless_station::mlo_valid_5G},
    {&wireless_station::mlo_rx_rate_6G, &wireless_station::mlo_tx_rate_6G, &wireless_station::mlo_valid_6G},
};

class station_table
{
  public:
    station_table() = default;
    station_table(const station_table &) = delete;
    station_table &operator=(const station_table &) = delete;
    ~station_table()
    {
        std::free(rows_);
    }

    wireless_station *grow() noexcept
    {
        void *p = std::realloc(rows_, (static_cast<size_t>(count_) + 1) * sizeof(wireless_station));
        if (!p)
            return nullptr;
        rows_ = static_cast<wireless_station *>(p);
        wireless_station *row = &rows_[count_++];
        std::memset(row, 0, sizeof(*row));
        return row;
    }
    wireless_station *find(const uint8_t mac[6]) noexcept
    {
        for (int i = 0; i < count_; i++)
            if (std::memcmp(rows_[i].mac, mac, 6) == 0)
                return &rows_[i];
        return nullptr;
    }
    void publish(wireless_station **rows, int *count) noexcept
    {
        *rows = rows_;
        *count = count_;
        rows_ = nullptr;
        count_ = 0;
    }

  private:
    wireless_station *rows_ = nullptr;
    int count_ = 0;
};

bool all_zero(const uint8_t mac[6]) noexcept
{
    static const uint8_t zero[6] = {};
    return std::memcmp(mac, zero, 6) == 0;
}

void copy_links(wireless_station &row, const station_element &e, bool add_to_total) noexcept
{
    for (int l = 0; l < 3; l++) {
        if (add_to_total && !e.link_valid[l])
            continue;
        row.*links[l].valid = e.link_valid[l];
        row.*links[l].rx = e.link_rx[l];
        row.*links[l].tx = e.link_tx[l];
        if (add_to_total) {
            row.rxrate += e.link_rx[l];
            row.txrate += e.link_tx[l];
        }
    }
}

// False when the table could not grow.
bool take_element(station_table &table, station_element e) noexcept
{
    if (system_info.support_mlo) {
        if (!all_zero(e.mlo_addr))
            std::memcpy(e.mac, e.mlo_addr, 6);
        if (wireless_station *row = table.find(e.mac)) {
            copy_links(*row, e, true);
            return true;
        }
    }
    wireless_station *row = table.grow();
    if (!row)
        return false;
    std::memcpy(row->mac, e.mac, 6);
    row->signal = e.signal;
    row->rxrate = e.rxrate;
    row->txrate = e.txrate;
    if (system_info.support_mlo)
        copy_links(*row, e, false);
    return true;
}

// The stations of one radio; false when the table could not grow.
bool read_radio_locked(station_table &table, const char *ifname) noexcept
{
    const iwinfo_ops *ops = iwinfo_backend(ifname);
    if (!ops) {
        LR_LOG(7, "%s No such wireless device", ifname);
        return true;
    }
    static char buf[IWINFO_BUFSIZE];
    int len = 0;
    if (!ops->assoclist || ops->assoclist(ifname, buf, &len) != 0) {
        LR_LOG(7, "%s No information available", ifname);
        return true;
    }
    if (len < 1) {
        LR_LOG(7, "%s No station connected", ifname);
        return true;
    }
    constexpr size_t element = sizeof(iwinfo_assoclist_entry);
    for (size_t off = 0; off + element <= static_cast<size_t>(len); off += element) {
        iwinfo_assoclist_entry e;
        std::memcpy(&e, buf + off, element);
        if (!take_element(table, element_view(e)))
            return false;
    }
    return true;
}

} // namespace

int get_wireless_info(wireless_station **rows, int *count) noexcept
{
    if (!rows || !count)
        return -1;
    *rows = nullptr;
    *count = 0;
    station_table table;
    mutex_guard hold(wlan_lock);
    for (int i = 0; i < lan_wlanif_num && i < RADIO_LIST_ROWS; i++)
        if (!read_radio_locked(table, lan_wlanif[i]))
            return -1;
    table.publish(rows, count);
    return 0;
}

void print_assoc_entry(const iwinfo_assoclist_entry *element) noexcept
{
    if (!element)
        return;
    station_element v = element_view(*element);
    LR_LOG(7, "print_assoc_entry");
    LR_LOG(7, "MAC: %02X:%02X:%02X:%02X:%02X:%02X\n", v.mac[0], v.mac[1], v.mac[2], v.mac[3], v.mac[4],
           v.mac[5]);
    LR_LOG(7, "Signal: %d dBm\n", v.signal);
    LR_LOG(7, "RX Rate: %u bps\n", v.rxrate);
    LR_LOG(7, "TX Rate: %u bps\n", v.txrate);
    if (!system_info.support_mlo)
        return;
    LR_LOG(7, "MLO 2G Valid: %u\n", v.link_valid[0]);
    LR_LOG(7, "MLO 2G RX Rate: %u bps\n", v.link_rx[0]);
    LR_LOG(7, "MLO 2G TX Rate: %u bps\n", v.link_tx[0]);
    LR_LOG(7, "MLO 5G Valid: %u\n", v.link_valid[1]);
    LR_LOG(7, "MLO 5G RX Rate: %u bps\n", v.link_rx[1]);
    LR_LOG(7, "MLO 5G TX Rate: %u bps\n", v.link_tx[1]);
    LR_LOG(7, "MLO 6G Valid: %u\n", v.link_valid[2]);
    LR_LOG(7, "MLO 6G RX Rate: %u bps\n", v.link_rx[2]);
    LR_LOG(7, "MLO 6G TX Rate: %u bps\n", v.link_tx[2]);
    LR_LOG(7, "MLO Addr: %02X:%02X:%02X:%02X:%02X:%02X\n", v.mlo_addr[0], v.mlo_addr[1], v.mlo_addr[2],
           v.mlo_addr[3], v.mlo_addr[4], v.mlo_addr[5]);
}
