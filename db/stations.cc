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
